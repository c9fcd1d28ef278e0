// A handful of files in memory, each with room for a fixed number of bytes: past it the disk is
// full. The room is kept from one run to the next, so that putting files in place costs a copy.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "error/exception.h"
#include "platform/clock.h"
#include "platform/file.h"

namespace fuzz {

class MemoryFiles final : public platform::FileSystem {
  public:
    explicit MemoryFiles(size_t room) : room_(room) {}

    /// Makes `bytes` the content of the file; no handle of it may be open.
    void put(const std::string& path, std::span<const std::byte> bytes) {
        Content& content = files_[path];
        content.bytes.resize(room_);
        content.length = std::min(bytes.size(), room_);
        std::copy_n(bytes.begin(), content.length, content.bytes.begin());
    }
    [[nodiscard]] std::span<const std::byte> bytes(const std::string& path) const {
        const Content& content = files_.at(path);
        return {content.bytes.data(), content.length};
    }

    [[nodiscard]] std::unique_ptr<platform::File> open(const std::string& path) override {
        const auto found = files_.find(path);
        if (found == files_.end()) throw error::ESystemError("open", ENOENT);
        return std::make_unique<OpenFile>(found->second);
    }
    [[nodiscard]] std::unique_ptr<platform::File> create(const std::string& path) override {
        if (files_.contains(path)) throw error::ESystemError("create", EEXIST);
        put(path, {});
        return open(path);
    }
    [[nodiscard]] std::unique_ptr<platform::Mapping> map(platform::File& file, uint64_t offset,
                                                         size_t length) override {
        const Content& content = dynamic_cast<OpenFile&>(file).content();
        if (length == 0 || offset > content.length || length > content.length - offset)
            throw error::ESystemError("mmap", EINVAL);
        return std::make_unique<View>(content.bytes.data() + offset, length);
    }
    [[nodiscard]] bool exists(const std::string& path) override { return files_.contains(path); }
    void rename(const std::string& from, const std::string& to) override {
        files_[to] = std::move(files_.at(from));
        files_.erase(from);
    }
    void remove(const std::string& path) override { files_.erase(path); }
    void sync_folder_of(const std::string&) override {}

  private:
    struct Content {
        /// Never grows while a file is open, so that views stay valid.
        std::vector<std::byte> bytes;
        size_t length = 0;
        bool locked = false;
    };

    class View final : public platform::Mapping {
      public:
        View(const std::byte* data, size_t length) : data_(data), length_(length) {}
        [[nodiscard]] const std::byte* data() const override { return data_; }
        [[nodiscard]] size_t size() const override { return length_; }

      private:
        const std::byte* data_;
        size_t length_;
    };

    class OpenFile final : public platform::File {
      public:
        explicit OpenFile(Content& content) : content_(content) {}
        ~OpenFile() override {
            if (locked_) content_.locked = false;
        }
        OpenFile(const OpenFile&) = delete;
        OpenFile& operator=(const OpenFile&) = delete;

        size_t read_at(void* buffer, size_t length, uint64_t offset) override {
            if (offset >= content_.length) return 0;
            length = std::min<size_t>(length, content_.length - static_cast<size_t>(offset));
            std::memcpy(buffer, content_.bytes.data() + offset, length);
            return length;
        }
        void write_at(const void* data, size_t length, uint64_t offset) override {
            if (offset > content_.bytes.size() || length > content_.bytes.size() - offset)
                throw error::ESystemError("write", ENOSPC);
            if (length == 0) return;
            grow(static_cast<size_t>(offset));
            std::memcpy(content_.bytes.data() + offset, data, length);
            content_.length = std::max(content_.length, static_cast<size_t>(offset) + length);
        }
        void write_durable_at(const void* data, size_t length, uint64_t offset) override {
            write_at(data, length, offset);
        }
        void sync_data() override {}
        uint64_t size() override { return content_.length; }
        void resize(uint64_t length) override {
            if (length > content_.bytes.size()) throw error::ESystemError("resize", ENOSPC);
            grow(static_cast<size_t>(length));
            content_.length = static_cast<size_t>(length);
        }
        bool try_lock() override {
            if (content_.locked) return false;
            return content_.locked = locked_ = true;
        }
        [[nodiscard]] const Content& content() const { return content_; }

      private:
        /// Fills up to `length` with zeros.
        void grow(size_t length) {
            if (length <= content_.length) return;
            std::memset(content_.bytes.data() + content_.length, 0, length - content_.length);
            content_.length = length;
        }

        Content& content_;
        bool locked_ = false;
    };

    std::map<std::string, Content> files_;
    size_t room_;
};

/// A clock that moves only when it is told to.
class StillClock final : public platform::Clock {
  public:
    [[nodiscard]] platform::WallTime wall() const override {
        return {static_cast<int64_t>(1'000'000'000 + seconds_), 0};
    }
    [[nodiscard]] uint64_t monotonic_us() const override { return seconds_ * 1'000'000; }
    void next_second() { ++seconds_; }

  private:
    uint64_t seconds_ = 5;
};

}  // namespace fuzz
