// A disk in memory behind the platform's file interfaces. It shows the running system what was
// written, records every operation that changes the disk, fails calls on request, and its power can
// be cut. What a cut at any moment of the recorded operations may leave is told by power_cuts.h:
// one run gives all its crash states, nothing has to run again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/file.h"

namespace support {

/// What the disk takes at once, or not at all (unless it is torn).
inline constexpr size_t kDiskSector = 512;
/// What the system brings to the disk in one piece, if the power holds that long.
inline constexpr size_t kDiskPage = 4096;

/// Names and bytes of all files at one moment. Files have numbers, names lead to them.
struct DiskImage {
    std::map<std::string, uint32_t> names;
    std::vector<std::vector<std::byte>> files;

    friend bool operator==(const DiskImage&, const DiskImage&) = default;
};

/// One completed operation that changed the disk.
struct DiskOp {
    enum class kind_t : uint8_t {
        write,
        durable_write,
        resize,
        sync,
        /// One that failed: the system may have forgotten what was unsynced, so that no later sync
        /// brings it to the disk.
        failed_sync,
        create,
        rename,
        remove,
        sync_folder
    };
    kind_t kind;
    uint32_t file = 0;
    /// Writes: first byte written and number of bytes.
    uint64_t offset = 0;
    uint64_t length = 0;
    /// Of the file after the operation.
    uint64_t file_length = 0;
    /// Writes and resizes: the sectors touched as they are now, whole, the first of them at
    /// `sectors_from`. Past the end of the file they are zero.
    uint64_t sectors_from = 0;
    std::vector<std::byte> sectors = {};
    /// create, rename, remove: the name; rename: also the new one.
    std::string path = {};
    std::string new_path = {};
};

/// A call that is to fail.
struct DiskFailure {
    /// Which: 1 is the next call of any kind (open, create, map, lock, size, read, write, resize,
    /// sync, rename, remove, folder sync). 0: none.
    uint64_t call = 0;
    /// Only calls of this name count; empty: of all.
    std::string_view name = {};
    int code = 0;
    /// All calls from that one on fail, not only that one.
    bool lasting = false;
    /// A write puts the first half of its bytes before it fails, a durable one all of them, but not
    /// durably; a read gives half of them and doesn't fail.
    bool partial = false;
};

class SimDisk final : public platform::FileSystem {
  public:
    /// Thrown out of the call in which the power fails, and out of every later one.
    struct PowerCut {};

    SimDisk() = default;
    /// A disk that holds `image`, durably.
    explicit SimDisk(const DiskImage& image) { load(image); }
    SimDisk(const SimDisk&) = delete;
    SimDisk& operator=(const SimDisk&) = delete;

    /// Puts another image in; the record starts anew and no call fails. All files must be closed.
    void load(const DiskImage& image);
    /// What the running system sees; what the death of the process leaves.
    [[nodiscard]] DiskImage seen() const;
    /// What was on the disk when the record began, and everything since.
    [[nodiscard]] const DiskImage& base() const { return base_; }
    [[nodiscard]] const std::vector<DiskOp>& log() const { return log_; }

    /// The power fails in the `n`-th call from now that changes or syncs, 1 being the next. What
    /// is left is drawn by `seed`.
    void cut_at(uint64_t n, uint64_t seed);
    [[nodiscard]] bool cut() const { return cut_; }
    /// Turns the power on again: what the cut left is there, and no call fails. Without a cut
    /// everything written is. All files must be closed.
    void restart();

    void fail(const DiskFailure& failure) { failure_ = failure; }
    /// The disk is full: no file grows beyond `length` bytes until this is called with 0. A write
    /// that would puts what has room and fails with ENOSPC.
    void set_most_file_bytes(uint64_t length) { most_file_bytes_ = length; }
    /// True when a call has failed by fail().
    [[nodiscard]] bool failed() const { return has_failed_; }

    /// Calls so far that change or sync, failed ones included.
    [[nodiscard]] uint64_t calls() const { return changing_calls_; }

    [[nodiscard]] std::unique_ptr<platform::File> open(const std::string& path) override;
    [[nodiscard]] std::unique_ptr<platform::File> create(const std::string& path) override;
    [[nodiscard]] std::unique_ptr<platform::Mapping> map(platform::File& file, uint64_t offset,
                                                         size_t length) override;
    [[nodiscard]] bool exists(const std::string& path) override;
    void rename(const std::string& from, const std::string& to) override;
    void remove(const std::string& path) override;
    void sync_folder_of(const std::string& path) override;

  private:
    class OpenFile;
    class View;
    struct Content {
        uint32_t number = 0;
        std::vector<std::byte> bytes;
        bool locked = false;
    };
    enum class fate_t { go_on, fail, half };

    /// Counts a call and says what becomes of it; fails it unless its fate is to be done by half.
    fate_t begin_call(const char* name, bool changes);
    /// Records a completed operation; the power may fail in it.
    void record(DiskOp op);
    [[nodiscard]] std::shared_ptr<Content> find(const std::string& path, const char* call) const;

    std::vector<std::shared_ptr<Content>> files_;
    std::map<std::string, uint32_t> names_;
    DiskImage base_;
    std::vector<DiskOp> log_;
    DiskFailure failure_;
    uint64_t most_file_bytes_ = 0;
    bool has_failed_ = false;
    uint64_t changing_calls_ = 0;
    uint64_t cut_in_ = 0;
    uint64_t cut_seed_ = 0;
    bool cut_ = false;
    DiskImage left_;
};

}  // namespace support
