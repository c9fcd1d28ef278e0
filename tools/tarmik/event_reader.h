// Text of a stream of server-sent events to events: a machine that is fed bytes as they come, cut
// anywhere, and hands out each event when it is whole.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace cli {

struct StreamEvent {
    std::string name;  ///< "message" where the sender gave none
    std::string data;  ///< lines joined by line ends
};

class EventReader {
  public:
    /// A larger event is no event of ours.
    static constexpr size_t kMaxEventBytes = 512U << 20;

    /// Hands each event that ends in these bytes to `take`. Comments, numbers and unknown fields
    /// are passed over. Throws CommandError for an event that is too large.
    void feed(std::string_view bytes, const std::function<void(StreamEvent)>& take);

  private:
    void take_line(const std::function<void(StreamEvent)>& take);

    std::string line_;
    bool after_return_ = false;  ///< a line feed that follows belongs to the same line end
    StreamEvent event_;
    bool has_data_ = false;
};

}  // namespace cli
