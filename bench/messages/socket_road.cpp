#include <array>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "messages/channel.h"

namespace bench {

namespace {

/// A stream of frames, each with its kind in the first byte. A frame is written by one call;
/// reading takes as much as is there.
class SocketChannel final : public Channel {
  public:
    explicit SocketChannel(int fd) : fd_(fd) {}

    void send(message_t message) override {
        out_[0] = static_cast<char>(message);
        const size_t size = size_of(message);
        for (size_t done = 0; done < size;) {
            const ssize_t written = ::write(fd_, out_.data() + done, size - done);
            if (written <= 0) throw std::runtime_error("writing to the socket failed");
            done += static_cast<size_t>(written);
        }
    }

    message_t receive() override {
        need(1);
        const auto message = static_cast<message_t>(in_[begin_]);
        need(size_of(message));
        begin_ += size_of(message);
        return message;
    }

  private:
    /// Has at least `size` bytes from begin_ on.
    void need(size_t size) {
        if (end_ - begin_ < size && begin_ > 0) {
            std::memmove(in_.data(), in_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        while (end_ - begin_ < size) {
            const ssize_t got = ::read(fd_, in_.data() + end_, in_.size() - end_);
            if (got <= 0) throw std::runtime_error("the other process ended");
            end_ += static_cast<size_t>(got);
        }
    }

    int fd_;
    std::array<char, kLargeBytes> out_{};
    std::vector<char> in_ = std::vector<char>(4 * kLargeBytes);
    size_t begin_ = 0, end_ = 0;
};

class SocketRoad final : public Road {
  public:
    SocketRoad() {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) != 0)
            throw std::runtime_error("socketpair failed");
        const int size = 1 << 20;
        for (const int end : ends_) ::setsockopt(end, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    ~SocketRoad() override {
        for (const int end : ends_) ::close(end);
    }
    std::unique_ptr<Channel> near_end() override {
        return std::make_unique<SocketChannel>(ends_[0]);
    }
    std::unique_ptr<Channel> far_end() override {
        return std::make_unique<SocketChannel>(ends_[1]);
    }

  private:
    int ends_[2];
};

}  // namespace

std::unique_ptr<Road> make_socket_road() {
    return std::make_unique<SocketRoad>();
}

}  // namespace bench
