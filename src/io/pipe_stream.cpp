#include "io/pipe_stream.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>
#include <utility>

#include "error/exception.h"
#include "io/exception.h"

namespace io {

PipeIStream::PipeIStream(platform::Fd fd, std::string name)
    : fd_(std::move(fd)), name_(std::move(name)) {}

void PipeIStream::name(std::string& out) const {
    out += "PipeIStream(" + name_ + ")";
}

short PipeIStream::interest() const {
    return POLLIN;
}

void PipeIStream::systemReady() {
    // Reads only into an empty buffer; what else is in the pipe is reported again.
    if (read_mark_ < fill_mark_ || ended_ || !fd_) return;
    const ssize_t count = ::read(fd_.get(), buffer_.data(), buffer_.size());
    if (count > 0) {
        read_mark_ = 0;
        fill_mark_ = static_cast<size_t>(count);
        error::check(fill_mark_ <= buffer_.size(), "PipeIStream overflow");
    } else if (count == 0) {
        ended_ = true;
    } else if (errno != EAGAIN && errno != EINTR) {
        throw error::ESystemError("Error in PipeIStream(" + name_ + ")", errno);
    }
}

size_t PipeIStream::readBegin(const uint8_t*& out) {
    if (read_mark_ == fill_mark_) {
        if (ended_) throw EEndOfStream(nameText());
        throw ENotReady(nameText());
    }
    out = buffer_.data() + read_mark_;
    return fill_mark_ - read_mark_;
}

void PipeIStream::readCommit(size_t count) {
    const size_t left = fill_mark_ - read_mark_;
    error::check(count <= left, "Overcommit in PipeIStream {} is {} bytes past end of buffer",
                 name_, count - left);
    read_mark_ += count;
    if (read_mark_ == fill_mark_) read_mark_ = fill_mark_ = 0;
}

void PipeIStream::closeRead() {
    error::check(static_cast<bool>(fd_), "Double close on PipeIStream");
    fd_.reset();
    ended_ = true;
}

PipeOStream::PipeOStream(platform::Fd fd, std::string name)
    : fd_(std::move(fd)), name_(std::move(name)) {}

void PipeOStream::name(std::string& out) const {
    out += "PipeOStream(" + name_ + ")";
}

short PipeOStream::interest() const {
    return POLLOUT;
}

size_t PipeOStream::writeBegin(uint8_t*& out) {
    if (broken_ || !fd_) throw EEndOfStream(nameText());
    if (pending_ == buffer_.size()) throw ENotReady(nameText());
    out = buffer_.data() + pending_;
    return buffer_.size() - pending_;
}

void PipeOStream::writeCommit(size_t count) {
    const size_t room = buffer_.size() - pending_;
    error::check(count <= room, "Overcommit in PipeOStream {} is {} bytes past end of buffer",
                 name_, count - room);
    pending_ += count;
    writePending();
}

void PipeOStream::systemReady() {
    writePending();
}

void PipeOStream::writePending() {
    if (pending_ == 0 || broken_ || !fd_) return;
    const ssize_t count = ::write(fd_.get(), buffer_.data(), pending_);
    if (count < 0) {
        if (errno == EAGAIN || errno == EINTR) return;
        // The reader is gone. Whoever knows why will say so; what was meant for it is void.
        broken_ = true;
        pending_ = 0;
        return;
    }
    const auto written = static_cast<size_t>(count);
    error::check(written <= pending_, "PipeOStream excessive write");
    // A pipe takes up to PIPE_BUF bytes whole or not at all; a shorter write can only come from
    // another sort of descriptor.
    std::memmove(buffer_.data(), buffer_.data() + written, pending_ - written);
    pending_ -= written;
}

void PipeOStream::closeWrite() {
    fd_.reset();
    pending_ = 0;
    broken_ = false;
}

void PipeOStream::reopen(platform::Fd fd) {
    fd_ = std::move(fd);
    pending_ = 0;
    broken_ = false;
}

}  // namespace io
