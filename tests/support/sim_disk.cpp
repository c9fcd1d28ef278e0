#include "support/sim_disk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "error/exception.h"
#include "support/power_cuts.h"

namespace support {

class SimDisk::View final : public platform::Mapping {
  public:
    View(std::shared_ptr<Content> content, uint64_t offset, size_t length)
        : content_(std::move(content)), offset_(offset), length_(length) {}
    [[nodiscard]] const std::byte* data() const override {
        return content_->bytes.data() + offset_;
    }
    [[nodiscard]] size_t size() const override { return length_; }

  private:
    std::shared_ptr<Content> content_;
    uint64_t offset_;
    size_t length_;
};

class SimDisk::OpenFile final : public platform::File {
  public:
    OpenFile(SimDisk& disk, std::shared_ptr<Content> content)
        : disk_(disk), content_(std::move(content)) {}
    ~OpenFile() override {
        if (locked_) content_->locked = false;
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    size_t read_at(void* buffer, size_t length, uint64_t offset) override {
        if (disk_.begin_call("read", false) == fate_t::half) length /= 2;
        const std::vector<std::byte>& bytes = content_->bytes;
        if (offset >= bytes.size()) return 0;
        length = std::min<size_t>(length, bytes.size() - offset);
        std::memcpy(buffer, bytes.data() + offset, length);
        return length;
    }
    void write_at(const void* data, size_t length, uint64_t offset) override {
        write(data, length, offset, DiskOp::kind_t::write);
    }
    void write_durable_at(const void* data, size_t length, uint64_t offset) override {
        write(data, length, offset, DiskOp::kind_t::durable_write);
    }
    void sync_data() override {
        try {
            disk_.begin_call("sync", true);
        } catch (const error::ESystemError&) {
            record_failed_sync();
            throw;
        }
        disk_.record({.kind = DiskOp::kind_t::sync,
                      .file = content_->number,
                      .file_length = content_->bytes.size()});
    }
    uint64_t size() override {
        disk_.begin_call("stat", false);
        return content_->bytes.size();
    }
    void resize(uint64_t length) override {
        disk_.begin_call("resize", true);
        const uint64_t old_length = content_->bytes.size();
        content_->bytes.resize(length);
        DiskOp op{.kind = DiskOp::kind_t::resize, .file = content_->number};
        keep_sectors(op, std::min(old_length, length), std::max(old_length, length));
        disk_.record(std::move(op));
    }
    bool try_lock() override {
        disk_.begin_call("lock", false);
        if (content_->locked) return false;
        return content_->locked = locked_ = true;
    }
    [[nodiscard]] const std::shared_ptr<Content>& content() const { return content_; }

  private:
    void write(const void* data, size_t length, uint64_t offset, DiskOp::kind_t kind) {
        const fate_t fate = disk_.begin_call("write", true);
        if (fate == fate_t::half) {
            const bool durable = kind == DiskOp::kind_t::durable_write;
            put(data, durable ? length : length / 2, offset, DiskOp::kind_t::write);
            if (durable) record_failed_sync();
            throw error::ESystemError("write", disk_.failure_.code);
        }
        const uint64_t room = std::max<uint64_t>(disk_.most_file_bytes_, content_->bytes.size());
        if (disk_.most_file_bytes_ != 0 && offset + length > room) {
            if (offset < room) put(data, room - offset, offset, DiskOp::kind_t::write);
            throw error::ESystemError("write", ENOSPC);
        }
        put(data, length, offset, kind);
    }
    void record_failed_sync() {
        disk_.record({.kind = DiskOp::kind_t::failed_sync,
                      .file = content_->number,
                      .file_length = content_->bytes.size()});
    }
    void put(const void* data, size_t length, uint64_t offset, DiskOp::kind_t kind) {
        std::vector<std::byte>& bytes = content_->bytes;
        const uint64_t old_length = bytes.size();
        if (old_length < offset + length) bytes.resize(offset + length);
        if (length > 0) std::memcpy(bytes.data() + offset, data, length);
        DiskOp op{.kind = kind, .file = content_->number, .offset = offset, .length = length};
        // Also what a write far past the end left as zeros on its way.
        keep_sectors(op, std::min(offset, old_length), offset + length);
        disk_.record(std::move(op));
    }
    void keep_sectors(DiskOp& op, uint64_t from, uint64_t to) const {
        const std::vector<std::byte>& bytes = content_->bytes;
        op.file_length = bytes.size();
        op.sectors_from = from / kDiskSector * kDiskSector;
        const uint64_t end = (to + kDiskSector - 1) / kDiskSector * kDiskSector;
        op.sectors.resize(end - op.sectors_from);
        if (op.sectors_from >= bytes.size()) return;
        std::memcpy(op.sectors.data(), bytes.data() + op.sectors_from,
                    std::min(op.sectors.size(), bytes.size() - op.sectors_from));
    }

    SimDisk& disk_;
    std::shared_ptr<Content> content_;
    bool locked_ = false;
};

void SimDisk::load(const DiskImage& image) {
    base_ = image;
    names_ = image.names;
    files_.resize(image.files.size());
    for (size_t i = 0; i < files_.size(); ++i) {
        if (!files_[i] || files_[i].use_count() > 1) files_[i] = std::make_shared<Content>();
        files_[i]->number = static_cast<uint32_t>(i);
        files_[i]->bytes = image.files[i];
    }
    log_.clear();
    failure_ = {};
    most_file_bytes_ = 0;
    has_failed_ = cut_ = false;
    cut_in_ = 0;
}

DiskImage SimDisk::seen() const {
    DiskImage image{names_, {}};
    for (const auto& content : files_) image.files.push_back(content->bytes);
    return image;
}

void SimDisk::cut_at(uint64_t n, uint64_t seed) {
    cut_in_ = n;
    cut_seed_ = seed;
}

void SimDisk::restart() {
    load(cut_ ? left_ : seen());
}

SimDisk::fate_t SimDisk::begin_call(const char* name, bool changes) {
    if (cut_) throw PowerCut{};
    if (changes) ++changing_calls_;
    if (failure_.call == 0) return fate_t::go_on;
    if (!failure_.name.empty() && failure_.name != name) return fate_t::go_on;
    if (failure_.call > 1) {
        --failure_.call;
        return fate_t::go_on;
    }
    if (!failure_.lasting) failure_.call = 0;
    has_failed_ = true;
    const std::string_view call = name;
    if (failure_.partial && (call == "write" || call == "read")) return fate_t::half;
    throw error::ESystemError(name, failure_.code);
}

void SimDisk::record(DiskOp op) {
    log_.push_back(std::move(op));
    if (cut_in_ == 0 || --cut_in_ > 0) return;
    PowerCuts cuts(base_, log_);
    const bool durable = log_.back().kind == DiskOp::kind_t::durable_write;
    // In the middle of the operation: a sync has not done anything yet.
    cuts.go_to(cuts.points() - (durable || log_.back().kind == DiskOp::kind_t::sync ? 2 : 1));
    Rng rng(cut_seed_);
    cuts.draw(rng, left_);
    cut_ = true;
    throw PowerCut{};
}

std::shared_ptr<SimDisk::Content> SimDisk::find(const std::string& path, const char* call) const {
    const auto found = names_.find(path);
    if (found == names_.end()) throw error::ESystemError(call, ENOENT);
    return files_[found->second];
}

std::unique_ptr<platform::File> SimDisk::open(const std::string& path) {
    begin_call("open", false);
    return std::make_unique<OpenFile>(*this, find(path, "open"));
}

std::unique_ptr<platform::File> SimDisk::create(const std::string& path) {
    begin_call("create", true);
    if (names_.contains(path)) throw error::ESystemError("create", EEXIST);
    const auto number = static_cast<uint32_t>(files_.size());
    files_.push_back(std::make_shared<Content>());
    files_.back()->number = number;
    names_[path] = number;
    record({.kind = DiskOp::kind_t::create, .file = number, .path = path});
    return std::make_unique<OpenFile>(*this, files_.back());
}

std::unique_ptr<platform::Mapping> SimDisk::map(platform::File& file, uint64_t offset,
                                                size_t length) {
    begin_call("mmap", false);
    const auto& content = dynamic_cast<OpenFile&>(file).content();
    const size_t there = content->bytes.size();
    if (length == 0 || offset > there || length > there - offset)
        throw error::ESystemError("mmap", EINVAL);
    return std::make_unique<View>(content, offset, length);
}

bool SimDisk::exists(const std::string& path) {
    begin_call("access", false);
    return names_.contains(path);
}

void SimDisk::rename(const std::string& from, const std::string& to) {
    begin_call("rename", true);
    const uint32_t number = find(from, "rename")->number;
    names_.erase(from);
    names_[to] = number;
    record({.kind = DiskOp::kind_t::rename, .file = number, .path = from, .new_path = to});
}

void SimDisk::remove(const std::string& path) {
    begin_call("remove", true);
    if (names_.erase(path) == 0) return;
    record({.kind = DiskOp::kind_t::remove, .path = path});
}

void SimDisk::sync_folder_of(const std::string& path) {
    begin_call("sync folder", true);
    record({.kind = DiskOp::kind_t::sync_folder, .path = path});
}

}  // namespace support
