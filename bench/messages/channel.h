// A road between two processes, in the forms that are compared. Whatever is sent is made of the
// sender's own data and ends as data of the receiver's own, so that a road is no faster for handing
// out memory that nobody fills or reads.
#pragma once

#include <cstddef>
#include <memory>

namespace bench {

inline constexpr size_t kSmallBytes = 256;
inline constexpr size_t kLargeBytes = 64 * 1024;

enum class message_t : unsigned { request, reply, large, stop };

[[nodiscard]] constexpr size_t size_of(message_t message) {
    return message == message_t::large ? kLargeBytes : kSmallBytes;
}

/// One end, used by one process.
class Channel {
  public:
    virtual ~Channel() = default;
    /// Sends a message; it may stay here until the next receive(). Waits while there is no room.
    virtual void send(message_t message) = 0;
    /// Takes the next message out; waits for it. Throws std::runtime_error when the other process
    /// ended.
    virtual message_t receive() = 0;
    /// Sees to it that everything sent leaves without another receive().
    virtual void flush() {}
};

/// Made before the fork; afterwards each process takes its end, once.
class Road {
  public:
    virtual ~Road() = default;
    /// For the process that made the road. The other one is being started.
    [[nodiscard]] virtual std::unique_ptr<Channel> near_end() = 0;
    [[nodiscard]] virtual std::unique_ptr<Channel> far_end() = 0;
};

std::unique_ptr<Road> make_tarmik_road();
std::unique_ptr<Road> make_socket_road();
std::unique_ptr<Road> make_pool_road();

}  // namespace bench
