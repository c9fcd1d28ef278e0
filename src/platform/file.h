// Files, mappings and folders as the storage layer sees them. Everything the store does to a disk
// goes through these interfaces, so that a test can put a simulated disk behind them and cut its
// power. They know nothing of blocks or formats. SystemFiles is the machine's own implementation.
//
// Every operation throws error::ESystemError, with the errno of the failed call and the path in its
// text, unless it says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace platform {

class SystemCalls;

/// One open file with random access. Closed by its destructor, which flushes nothing.
class File {
  public:
    virtual ~File() = default;

    /// Reads up to `length` bytes at `offset`; returns how many there were, fewer only at the end
    /// of file.
    [[nodiscard]] virtual size_t read_at(void* buffer, size_t length, uint64_t offset) = 0;
    /// Writes all of `length` bytes at `offset`, growing the file where needed. After a return the
    /// bytes survive the death of the process, but a power cut only after sync_data().
    virtual void write_at(const void* data, size_t length, uint64_t offset) = 0;
    /// write_at() that returns only when these bytes are on stable storage. It promises nothing for
    /// bytes of earlier writes.
    virtual void write_durable_at(const void* data, size_t length, uint64_t offset) = 0;
    /// Returns when everything written before, by this process or by one that died, and the file's
    /// length are on stable storage. After a failure the state of unsynced bytes is unknown and a
    /// second call proves nothing.
    virtual void sync_data() = 0;
    /// Lets the system begin to bring written bytes to stable storage, so that a later sync finds
    /// less to do. Promises nothing and never fails; what goes wrong is told by the next sync.
    virtual void start_writeback(uint64_t /*offset*/, uint64_t /*length*/) {}
    /// Length in bytes.
    [[nodiscard]] virtual uint64_t size() = 0;
    /// Sets the length; new bytes read as zero and may be a hole.
    virtual void resize(uint64_t length) = 0;
    /// Takes the file's advisory lock for as long as this object lives. False when another open
    /// file, of any process, holds it.
    [[nodiscard]] virtual bool try_lock() = 0;
};

/// A readable view of a part of a file. It shows the same bytes as reads and writes of the file.
class Mapping {
  public:
    virtual ~Mapping() = default;
    /// First byte of the view. Lives as long as this object.
    [[nodiscard]] virtual const std::byte* data() const = 0;
    [[nodiscard]] virtual size_t size() const = 0;
};

/// The folders that files live in.
class FileSystem {
  public:
    virtual ~FileSystem() = default;

    /// Opens an existing file for reading and writing.
    [[nodiscard]] virtual std::unique_ptr<File> open(const std::string& path) = 0;
    /// Makes a new, empty file that only its owner may access, whatever the umask. Fails if it
    /// exists.
    [[nodiscard]] virtual std::unique_ptr<File> create(const std::string& path) = 0;
    /// Maps `length` bytes of `file`, made by this object, from `offset` on. The range must lie in
    /// the file, and the file must not be made shorter while the mapping lives.
    [[nodiscard]] virtual std::unique_ptr<Mapping> map(File& file, uint64_t offset,
                                                       size_t length) = 0;
    [[nodiscard]] virtual bool exists(const std::string& path) = 0;
    /// Gives a file a new name at once, replacing a file that has it.
    virtual void rename(const std::string& from, const std::string& to) = 0;
    /// Removes a file; no failure if there is none.
    virtual void remove(const std::string& path) = 0;
    /// Makes the names in the folder that holds `path` durable: what was created, renamed, removed.
    virtual void sync_folder_of(const std::string& path) = 0;
};

/// The files of the machine. A call that a signal interrupted is made again, and a transfer that
/// ended early is continued; but a sync is made once, as its failure may have been told only then.
class SystemFiles final : public FileSystem {
  public:
    SystemFiles();
    /// Makes its calls through `calls`, where a test can let them fail.
    explicit SystemFiles(std::shared_ptr<SystemCalls> calls);

    [[nodiscard]] std::unique_ptr<File> open(const std::string& path) override;
    [[nodiscard]] std::unique_ptr<File> create(const std::string& path) override;
    [[nodiscard]] std::unique_ptr<Mapping> map(File& file, uint64_t offset, size_t length) override;
    [[nodiscard]] bool exists(const std::string& path) override;
    void rename(const std::string& from, const std::string& to) override;
    void remove(const std::string& path) override;
    void sync_folder_of(const std::string& path) override;

  private:
    std::shared_ptr<SystemCalls> calls_;
};

/// Has a write beyond the process's limit of the size of files fail with EFBIG, like a write to a
/// full disk, in place of ending the process. Every process that writes files calls it at its
/// start.
void ignore_file_size_signal();

/// Whether a file can be opened for reading at this moment. Never waits, for a FIFO either.
[[nodiscard]] bool can_open_for_reading(const std::string& path);

}  // namespace platform
