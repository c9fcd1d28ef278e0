// The messages that arrived and were not read: one list over all senders in order of arrival, and
// within it one queue per sender. All operations cost O(1); entries are reused, so a steady flow
// allocates nothing.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>

namespace io::detail {

struct ReceivedMessage {
    uint32_t sender = 0;
    uint32_t offset = 0;  ///< 0 for the null message, the mark of the stream's end
    uint32_t life = 0;    ///< of the sender, when it arrived
    uint64_t length = 0;  ///< payload bytes; 0 for the null message

    [[nodiscard]] bool isNull() const { return offset == 0; }

    std::unique_ptr<uint8_t[]> copy;  ///< its bytes, if the block was given back already

    ReceivedMessage* before = nullptr;
    ReceivedMessage* after = nullptr;
    ReceivedMessage* next_of_sender = nullptr;
};

/// The part of the list that one sender sent; its first entry is where that sender's stream stands.
struct SenderQueue {
    ReceivedMessage* first = nullptr;
    ReceivedMessage* last = nullptr;
    uint32_t messages = 0;  ///< without null messages
};

class ReceivedList {
  public:
    [[nodiscard]] bool empty() const { return head_ == nullptr; }
    /// The oldest entry of all; null if empty.
    [[nodiscard]] const ReceivedMessage* front() const { return head_; }
    [[nodiscard]] ReceivedMessage* front() { return head_; }

    void append(SenderQueue& queue, uint32_t sender, uint32_t offset, uint64_t length,
                uint32_t life);
    /// Removes the first entry of `queue`, wherever it stands in the whole list.
    void popFirst(SenderQueue& queue);

  private:
    std::deque<ReceivedMessage> storage_;
    ReceivedMessage* spare_ = nullptr;
    ReceivedMessage* head_ = nullptr;
    ReceivedMessage* tail_ = nullptr;
};

}  // namespace io::detail
