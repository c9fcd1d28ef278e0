// A disk in memory whose power can be cut. Each file has the bytes that the running system sees and
// those that are on stable storage. At a cut every page written since the last sync is, drawn by
// seed and independently of all others, kept, lost, or kept in part (whole sectors). Names are
// durable at once; cuts between renames are a test's own affair.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "error/exception.h"
#include "platform/file.h"
#include "support/rng.h"

namespace support {

class SimDisk final : public platform::FileSystem {
  public:
    /// Thrown out of the call in which the power fails, and out of every later one.
    struct PowerCut {};

    static constexpr size_t kPage = 4096;
    static constexpr size_t kSector = 512;

    /// The power fails in the `n`-th call from now that writes or syncs, 1 being the next.
    void cut_at(uint64_t n, uint64_t seed) {
        calls_left_ = n;
        rng_ = Rng(seed);
    }
    /// The `n`-th write or sync from now, and every one after it, fails with EIO.
    void fail_at(uint64_t n) { fail_left_ = n; }
    [[nodiscard]] bool cut() const { return cut_; }
    /// Turns the power on again: only what was on stable storage is left. All files must be closed.
    void restart() {
        cut_ = failing_ = false;
        calls_left_ = fail_left_ = 0;
    }
    /// Calls so far that wrote or synced.
    [[nodiscard]] uint64_t calls() const { return calls_; }

    [[nodiscard]] std::unique_ptr<platform::File> open(const std::string& path) override {
        const auto found = files_.find(path);
        if (found == files_.end()) throw error::ESystemError("open", ENOENT);
        return std::make_unique<OpenFile>(*this, found->second);
    }
    [[nodiscard]] std::unique_ptr<platform::File> create(const std::string& path) override {
        if (files_.contains(path)) throw error::ESystemError("create", EEXIST);
        files_[path] = std::make_shared<Content>();
        return open(path);
    }
    [[nodiscard]] std::unique_ptr<platform::Mapping> map(platform::File& file, uint64_t offset,
                                                         size_t length) override {
        auto& open_file = dynamic_cast<OpenFile&>(file);
        const std::vector<std::byte>& seen = open_file.content().seen;
        if (length == 0 || offset > seen.size() || length > seen.size() - offset)
            throw error::ESystemError("mmap", EINVAL);
        return std::make_unique<View>(open_file.shared(), offset, length);
    }
    [[nodiscard]] bool exists(const std::string& path) override { return files_.contains(path); }
    void rename(const std::string& from, const std::string& to) override {
        files_[to] = files_.at(from);
        files_.erase(from);
    }
    void remove(const std::string& path) override { files_.erase(path); }
    void sync_folder_of(const std::string&) override {}

  private:
    struct Content {
        std::vector<std::byte> seen;
        std::vector<std::byte> stable;
        std::set<size_t> dirty_pages;
        bool locked = false;
    };

    class View final : public platform::Mapping {
      public:
        View(std::shared_ptr<Content> content, uint64_t offset, size_t length)
            : content_(std::move(content)), offset_(offset), length_(length) {}
        [[nodiscard]] const std::byte* data() const override {
            return content_->seen.data() + offset_;
        }
        [[nodiscard]] size_t size() const override { return length_; }

      private:
        std::shared_ptr<Content> content_;
        uint64_t offset_;
        size_t length_;
    };

    class OpenFile final : public platform::File {
      public:
        OpenFile(SimDisk& disk, std::shared_ptr<Content> content)
            : disk_(disk), content_(std::move(content)) {}
        ~OpenFile() override {
            if (locked_) content_->locked = false;
        }
        OpenFile(const OpenFile&) = delete;
        OpenFile& operator=(const OpenFile&) = delete;

        size_t read_at(void* buffer, size_t length, uint64_t offset) override {
            const std::vector<std::byte>& seen = content_->seen;
            if (offset >= seen.size()) return 0;
            length = std::min<size_t>(length, seen.size() - offset);
            std::memcpy(buffer, seen.data() + offset, length);
            return length;
        }
        void write_at(const void* data, size_t length, uint64_t offset) override {
            disk_.before_call([&] { put(data, length, offset); });
            put(data, length, offset);
        }
        void write_durable_at(const void* data, size_t length, uint64_t offset) override {
            disk_.before_call([&] { put(data, length, offset); });
            put(data, length, offset);
            for (size_t page = offset / kPage; page * kPage < offset + length; ++page) settle(page);
        }
        void sync_data() override {
            disk_.before_call([] {});
            while (!content_->dirty_pages.empty()) settle(*content_->dirty_pages.begin());
        }
        uint64_t size() override { return content_->seen.size(); }
        void resize(uint64_t length) override { content_->seen.resize(length); }
        bool try_lock() override {
            if (content_->locked) return false;
            return content_->locked = locked_ = true;
        }
        [[nodiscard]] Content& content() { return *content_; }
        [[nodiscard]] const std::shared_ptr<Content>& shared() const { return content_; }

      private:
        void put(const void* data, size_t length, uint64_t offset) {
            std::vector<std::byte>& seen = content_->seen;
            if (seen.size() < offset + length) seen.resize(offset + length);
            std::memcpy(seen.data() + offset, data, length);
            for (size_t page = offset / kPage; page * kPage < offset + length; ++page)
                content_->dirty_pages.insert(page);
        }
        /// Brings one page to stable storage.
        void settle(size_t page) {
            copy(*content_, page * kPage, kPage);
            content_->dirty_pages.erase(page);
        }

        SimDisk& disk_;
        std::shared_ptr<Content> content_;
        bool locked_ = false;
    };

    static void copy(Content& content, size_t start, size_t length) {
        const size_t end = std::min(start + length, content.seen.size());
        if (end <= start) return;
        if (content.stable.size() < end) content.stable.resize(end);
        std::memcpy(content.stable.data() + start, content.seen.data() + start, end - start);
    }

    /// Counts a call; `apply` does to the visible bytes what the call would have done.
    template <class Apply>
    void before_call(Apply&& apply) {
        if (cut_) throw PowerCut{};
        ++calls_;
        if (failing_ || (fail_left_ > 0 && --fail_left_ == 0)) {
            failing_ = true;
            throw error::ESystemError("write", EIO);
        }
        if (calls_left_ == 0 || --calls_left_ > 0) return;
        apply();
        cut_power();
        throw PowerCut{};
    }

    void cut_power() {
        cut_ = true;
        for (auto& [path, content] : files_) {
            for (const size_t page : content->dirty_pages) {
                const uint64_t fate = rng_.below(3);
                for (size_t at = page * kPage; at < (page + 1) * kPage; at += kSector)
                    if (fate == 0 || (fate == 1 && rng_.chance(50))) copy(*content, at, kSector);
            }
            content->dirty_pages.clear();
            content->seen = content->stable;
        }
    }

    std::map<std::string, std::shared_ptr<Content>> files_;
    Rng rng_{0};
    uint64_t calls_ = 0;
    uint64_t calls_left_ = 0;
    uint64_t fail_left_ = 0;
    bool failing_ = false;
    bool cut_ = false;
};

}  // namespace support
