#include "platform/overlay_files.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include "error/exception.h"

namespace platform {

namespace {

constexpr uint64_t kPageSize = 4096;
using Page = std::array<std::byte, kPageSize>;

class OverlayMapping;

[[noreturn]] void fail(const char* what, const std::string& path, int code = errno) {
    throw error::ESystemError(std::string("Cannot ") + what + " " + path, code);
}

template <class Call>
auto uninterrupted(Call&& call) {
    for (;;) {
        const auto result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

}  // namespace

struct OverlayFiles::Layer {
    /// Pages that have been written to, whole, by their number.
    std::unordered_map<uint64_t, std::unique_ptr<Page>> pages;
    uint64_t size = 0;
    /// Bytes of the disk that still show: a file made shorter and longer again reads as zeros.
    uint64_t base_size = 0;
    std::vector<OverlayMapping*> mappings;
};

namespace {

using Layer = OverlayFiles::Layer;

/// A private view of the file, which a write to the overlay changes too.
class OverlayMapping final : public Mapping {
  public:
    OverlayMapping(std::shared_ptr<Layer> layer, void* base, size_t base_length, size_t skip,
                   uint64_t offset)
        : layer_(std::move(layer)),
          base_(base),
          base_length_(base_length),
          skip_(skip),
          offset_(offset) {
        layer_->mappings.push_back(this);
    }
    ~OverlayMapping() override {
        std::erase(layer_->mappings, this);
        ::munmap(base_, base_length_);
    }
    OverlayMapping(const OverlayMapping&) = delete;
    OverlayMapping& operator=(const OverlayMapping&) = delete;

    [[nodiscard]] const std::byte* data() const override { return bytes(); }
    [[nodiscard]] size_t size() const override { return base_length_ - skip_; }

    /// Copies the part of a write that the view shows.
    void apply(const std::byte* data, size_t length, uint64_t offset) {
        const uint64_t begin = std::max(offset, offset_);
        const uint64_t end = std::min(offset + length, offset_ + size());
        if (begin < end)
            std::memcpy(bytes() + (begin - offset_), data + (begin - offset),
                        static_cast<size_t>(end - begin));
    }

  private:
    [[nodiscard]] std::byte* bytes() const { return static_cast<std::byte*>(base_) + skip_; }

    std::shared_ptr<Layer> layer_;
    void* base_;
    size_t base_length_;
    size_t skip_;
    uint64_t offset_;
};

class OverlayFile final : public File {
  public:
    OverlayFile(std::shared_ptr<SystemCalls> calls, int descriptor, std::string path)
        : calls_(std::move(calls)), descriptor_(descriptor), path_(std::move(path)) {}
    ~OverlayFile() override { calls_->close(descriptor_); }
    OverlayFile(const OverlayFile&) = delete;
    OverlayFile& operator=(const OverlayFile&) = delete;

    void attach(std::shared_ptr<Layer> layer) { layer_ = std::move(layer); }

    /// Length of the file on the disk; fails for what is no file.
    [[nodiscard]] uint64_t disk_size() {
        struct stat status {};
        if (calls_->fstat(descriptor_, &status) != 0) fail("stat", path_);
        if (S_ISREG(status.st_mode)) return static_cast<uint64_t>(status.st_size);
        if (S_ISDIR(status.st_mode)) fail("open", path_, EISDIR);
        if (!S_ISBLK(status.st_mode)) fail("open", path_, EINVAL);
        const off_t end = calls_->lseek(descriptor_, 0, SEEK_END);
        if (end < 0) fail("seek in", path_);
        return static_cast<uint64_t>(end);
    }

    size_t read_at(void* buffer, size_t length, uint64_t offset) override {
        if (offset >= layer_->size) return 0;
        length = static_cast<size_t>(std::min<uint64_t>(length, layer_->size - offset));
        auto* to = static_cast<std::byte*>(buffer);
        for (size_t done = 0; done < length;) {
            const uint64_t at = offset + done;
            const size_t part = std::min(length - done, static_cast<size_t>(run_length(at)));
            if (const Page* page = find_page(at / kPageSize); page != nullptr)
                std::memcpy(to + done, page->data() + at % kPageSize, part);
            else
                read_disk(to + done, part, at);
            done += part;
        }
        return length;
    }

    void write_at(const void* data, size_t length, uint64_t offset) override {
        const auto* from = static_cast<const std::byte*>(data);
        layer_->size = std::max(layer_->size, offset + length);
        for (size_t done = 0; done < length;) {
            const uint64_t at = offset + done;
            const size_t part = std::min<size_t>(length - done, kPageSize - at % kPageSize);
            std::memcpy(ensure_page(at / kPageSize).data() + at % kPageSize, from + done, part);
            done += part;
        }
        for (OverlayMapping* mapping : layer_->mappings) mapping->apply(from, length, offset);
    }
    void write_durable_at(const void* data, size_t length, uint64_t offset) override {
        write_at(data, length, offset);
    }
    void sync_data() override {}
    uint64_t size() override { return layer_->size; }

    void resize(uint64_t length) override {
        layer_->base_size = std::min(layer_->base_size, length);
        for (auto page = layer_->pages.begin(); page != layer_->pages.end();) {
            const uint64_t begin = page->first * kPageSize;
            if (begin < length && begin + kPageSize > length)
                std::fill(page->second->begin() + static_cast<std::ptrdiff_t>(length - begin),
                          page->second->end(), std::byte{0});
            page = begin >= length ? layer_->pages.erase(page) : std::next(page);
        }
        layer_->size = length;
    }

    bool try_lock() override {
        if (uninterrupted([&] { return calls_->flock(descriptor_, LOCK_SH | LOCK_NB); }) == 0)
            return true;
        if (errno == EWOULDBLOCK) return false;
        fail("lock", path_);
    }

    [[nodiscard]] int descriptor() const noexcept { return descriptor_; }
    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] const std::shared_ptr<Layer>& layer() const noexcept { return layer_; }

  private:
    [[nodiscard]] const Page* find_page(uint64_t number) const {
        const auto found = layer_->pages.find(number);
        return found == layer_->pages.end() ? nullptr : found->second.get();
    }

    /// How many bytes from `at` on come from the same place, at least the rest of the page.
    [[nodiscard]] uint64_t run_length(uint64_t at) const {
        uint64_t end = (at / kPageSize + 1) * kPageSize;
        if (layer_->pages.empty()) return layer_->size - at;
        if (find_page(at / kPageSize) != nullptr) return end - at;
        while (end < layer_->size && find_page(end / kPageSize) == nullptr) end += kPageSize;
        return end - at;
    }

    Page& ensure_page(uint64_t number) {
        std::unique_ptr<Page>& page = layer_->pages[number];
        if (page == nullptr) {
            auto made = std::make_unique<Page>();
            read_disk(made->data(), made->size(), number * kPageSize);
            page = std::move(made);
        }
        return *page;
    }

    /// What the disk shows of a range; zeros where it has nothing.
    void read_disk(std::byte* to, size_t length, uint64_t offset) {
        const uint64_t shown = offset >= layer_->base_size
                                   ? 0
                                   : std::min<uint64_t>(length, layer_->base_size - offset);
        size_t done = 0;
        while (done < shown) {
            const ssize_t got = uninterrupted([&] {
                return calls_->pread(descriptor_, to + done, static_cast<size_t>(shown) - done,
                                     static_cast<off_t>(offset + done));
            });
            if (got < 0) fail("read", path_);
            if (got == 0) break;
            done += static_cast<size_t>(got);
        }
        std::memset(to + done, 0, length - done);
    }

    std::shared_ptr<SystemCalls> calls_;
    int descriptor_;
    std::string path_;
    std::shared_ptr<Layer> layer_;
};

}  // namespace

OverlayFiles::OverlayFiles(std::shared_ptr<SystemCalls> calls) : calls_(std::move(calls)) {}

OverlayFiles::~OverlayFiles() = default;

std::unique_ptr<File> OverlayFiles::open(const std::string& path) {
    // Without the last flag a FIFO with no writer would never open.
    const int descriptor = uninterrupted(
        [&] { return calls_->open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK, 0); });
    if (descriptor < 0) fail("open", path);
    auto file = std::make_unique<OverlayFile>(calls_, descriptor, path);
    const uint64_t size = file->disk_size();
    std::shared_ptr<Layer>& layer = layers_[path];
    if (layer == nullptr) {
        layer = std::make_shared<Layer>();
        layer->size = layer->base_size = size;
    }
    file->attach(layer);
    return file;
}

std::unique_ptr<Mapping> OverlayFiles::map(File& file, uint64_t offset, size_t length) {
    auto& own = dynamic_cast<OverlayFile&>(file);
    const uint64_t limit = std::min(own.layer()->base_size, own.disk_size());
    if (offset > limit || length > limit - offset) fail("map", own.path(), EOVERFLOW);
    const auto page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    const auto skip = static_cast<size_t>(offset % page);
    void* base = calls_->mmap(length + skip, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_NORESERVE,
                              own.descriptor(), static_cast<off_t>(offset - skip));
    if (base == MAP_FAILED) fail("map", own.path());
    auto mapping = std::make_unique<OverlayMapping>(own.layer(), base, length + skip, skip, offset);
    for (const auto& [number, written] : own.layer()->pages)
        mapping->apply(written->data(), kPageSize, number * kPageSize);
    return mapping;
}

bool OverlayFiles::exists(const std::string& path) {
    struct stat status {};
    if (calls_->lstat(path.c_str(), &status) == 0) return true;
    if (errno == ENOENT) return false;
    fail("stat", path);
}

std::unique_ptr<File> OverlayFiles::create(const std::string& path) {
    fail("create", path, EROFS);
}

void OverlayFiles::rename(const std::string& from, const std::string&) {
    fail("rename", from, EROFS);
}

void OverlayFiles::remove(const std::string& path) {
    fail("remove", path, EROFS);
}

void OverlayFiles::sync_folder_of(const std::string&) {}

}  // namespace platform
