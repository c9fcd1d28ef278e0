#include "io/detail/received_list.h"

namespace io::detail {

void ReceivedList::append(SenderQueue& queue, uint32_t sender, uint32_t offset, uint64_t length,
                          uint32_t life) {
    ReceivedMessage* entry = spare_;
    if (entry != nullptr)
        spare_ = entry->after;
    else
        entry = &storage_.emplace_back();
    *entry = {sender, offset, life, length, nullptr, tail_, nullptr, nullptr};

    (tail_ != nullptr ? tail_->after : head_) = entry;
    tail_ = entry;
    (queue.last != nullptr ? queue.last->next_of_sender : queue.first) = entry;
    queue.last = entry;
    if (!entry->isNull()) ++queue.messages;
}

void ReceivedList::popFirst(SenderQueue& queue) {
    ReceivedMessage* entry = queue.first;
    if (!entry->isNull()) --queue.messages;
    queue.first = entry->next_of_sender;
    if (queue.first == nullptr) queue.last = nullptr;

    (entry->before != nullptr ? entry->before->after : head_) = entry->after;
    (entry->after != nullptr ? entry->after->before : tail_) = entry->before;
    entry->copy.reset();
    entry->after = spare_;
    spare_ = entry;
}

}  // namespace io::detail
