// Streams on a system pipe or FIFO, with a buffer of 4096 bytes inside the object. The input reads
// when the system says that there is something and only into an empty buffer; the output writes
// when asked and keeps what the pipe did not take. The pipe's descriptor is non-blocking and
// belongs to the stream.
#pragma once

#include <array>
#include <limits>
#include <string>

#include "io/stream.h"
#include "io/system_handle.h"
#include "platform/fifo.h"

namespace io {

/// Also the most that one write may hold to never tear (PIPE_BUF).
inline constexpr size_t kPipeBufferBytes = 4096;

class PipeIStream : public IStream, public SystemHandle {
  public:
    PipeIStream(platform::Fd fd, std::string name);

    void name(std::string& out) const override;
    [[nodiscard]] bool isReady() const override { return read_mark_ < fill_mark_ || ended_; }
    size_t readBegin(const uint8_t*& out) override;
    void readCommit(size_t count) override;
    void closeRead() override;

    [[nodiscard]] int fd() const override { return fd_.get(); }
    [[nodiscard]] short interest() const override;
    [[nodiscard]] bool completesIo() const override { return true; }
    void systemReady() override;

  private:
    platform::Fd fd_;
    std::string name_;
    size_t read_mark_ = 0;
    size_t fill_mark_ = 0;
    bool ended_ = false;
    std::array<uint8_t, kPipeBufferBytes> buffer_;
};

class PipeOStream : public OStream, public SystemHandle {
  public:
    PipeOStream(platform::Fd fd, std::string name);

    void name(std::string& out) const override;
    /// Ready when no bytes wait for the pipe, and when it failed.
    [[nodiscard]] bool isReady() const override { return pending_ == 0 || broken_; }
    [[nodiscard]] bool hasFailed() const override { return broken_; }
    size_t writeBegin(uint8_t*& out) override;
    /// Tries to write at once; one write for everything pending. A reader that is gone makes the
    /// stream fail silently: hasFailed() turns true and the next writeBegin() throws EEndOfStream.
    void writeCommit(size_t count) override;
    [[nodiscard]] bool hasPendingData() const override { return pending_ != 0; }
    void closeWrite() override;
    [[nodiscard]] bool isOpen() const { return fd_.get() >= 0; }

    [[nodiscard]] int fd() const override { return fd_.get(); }
    [[nodiscard]] short interest() const override;
    [[nodiscard]] bool completesIo() const override { return true; }
    /// Writes what is pending.
    void systemReady() override;

  protected:
    /// Opens a closed stream anew.
    void reopen(platform::Fd fd);

  private:
    void writePending();

    platform::Fd fd_;
    std::string name_;
    size_t pending_ = 0;
    bool broken_ = false;
    std::array<uint8_t, kPipeBufferBytes> buffer_;
};

}  // namespace io
