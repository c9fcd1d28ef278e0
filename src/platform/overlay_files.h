// Files that can be written to without being changed: every file is opened for reading only, and
// what is written stays in memory, laid over what the disk has. So code that needs to write, as a
// replay does, can run on files that must stay as they are. The writes to a path live as long as
// the OverlayFiles does, also when the file is closed and opened again; nobody else sees them.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/file.h"
#include "platform/system_calls.h"

namespace platform {

/// Costs memory for each page of 4096 bytes written to. Locks are shared ones: they exclude those
/// of SystemFiles, not each other. Nothing can be created, renamed or removed (EROFS). A file that
/// somebody else makes shorter while it is mapped ends the process, as with SystemFiles.
class OverlayFiles final : public FileSystem {
  public:
    OverlayFiles() : OverlayFiles(std::make_shared<SystemCalls>()) {}
    /// All calls go through `calls`, for tests.
    explicit OverlayFiles(std::shared_ptr<SystemCalls> calls);
    ~OverlayFiles() override;

    /// Opens files and devices with a length; fails with EISDIR for a folder, EINVAL for anything
    /// else that has no bytes at positions.
    [[nodiscard]] std::unique_ptr<File> open(const std::string& path) override;
    /// Maps what the disk has and what has been written. The range must lie in the file on the
    /// disk.
    [[nodiscard]] std::unique_ptr<Mapping> map(File& file, uint64_t offset, size_t length) override;
    [[nodiscard]] bool exists(const std::string& path) override;
    [[nodiscard]] std::unique_ptr<File> create(const std::string& path) override;
    void rename(const std::string& from, const std::string& to) override;
    void remove(const std::string& path) override;
    void sync_folder_of(const std::string& path) override;

    /// What is kept of the writes to one path.
    struct Layer;

  private:
    std::shared_ptr<SystemCalls> calls_;
    std::map<std::string, std::shared_ptr<Layer>> layers_;
};

}  // namespace platform
