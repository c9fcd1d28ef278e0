#include <array>
#include <cstring>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "messages/channel.h"

namespace bench {

namespace {

constexpr size_t kSlots = 64;
constexpr size_t kSlotBytes = kLargeBytes;
/// Signals that wait for each other at most.
constexpr size_t kMaxSignals = 16;

/// What goes through the FIFO.
struct Signal {
    uint32_t slot;
    uint32_t kind;
};
constexpr uint32_t kAck = 100;

/// The least that a pool with signals can do: a ring of slots for each direction, bytes copied in
/// and out, signals collected until the process waits. Nothing is marshalled or checked.
class PoolChannel final : public Channel {
  public:
    PoolChannel(char* own_area, const char* other_area, int from, int to)
        : own_area_(own_area), other_area_(other_area), from_(from), to_(to) {}

    void send(message_t message) override {
        while (in_use_ == kSlots) read_signals();
        const size_t slot = next_slot_++ % kSlots;
        ++in_use_;
        std::memcpy(own_area_ + slot * kSlotBytes, buffer_.data(), size_of(message));
        signal({static_cast<uint32_t>(slot), static_cast<uint32_t>(message)});
    }

    message_t receive() override {
        while (read_ == arrived_.size()) {
            arrived_.clear();
            read_ = 0;
            read_signals();
        }
        const Signal at = arrived_[read_++];
        const auto message = static_cast<message_t>(at.kind);
        std::memcpy(buffer_.data(), other_area_ + at.slot * kSlotBytes, size_of(message));
        signal({at.slot, kAck});
        return message;
    }

    void flush() override {
        if (pending_.empty()) return;
        const size_t bytes = pending_.size() * sizeof(Signal);
        if (::write(to_, pending_.data(), bytes) != static_cast<ssize_t>(bytes))
            throw std::runtime_error("writing signals failed");
        pending_.clear();
    }

  private:
    void signal(Signal sent) {
        pending_.push_back(sent);
        if (pending_.size() >= kMaxSignals) flush();
    }
    void read_signals() {
        flush();
        std::array<Signal, 256> signals;
        const ssize_t got = ::read(from_, signals.data(), sizeof signals);
        if (got <= 0) throw std::runtime_error("the other process ended");
        const size_t count = static_cast<size_t>(got) / sizeof(Signal);
        for (size_t i = 0; i < count; ++i) {
            if (signals[i].kind == kAck)
                --in_use_;
            else
                arrived_.push_back(signals[i]);
        }
    }

    char* own_area_;
    const char* other_area_;
    int from_, to_;
    std::array<char, kSlotBytes> buffer_{};
    size_t next_slot_ = 0, in_use_ = 0;
    std::vector<Signal> pending_, arrived_;
    size_t read_ = 0;
};

class PoolRoad final : public Road {
  public:
    PoolRoad() {
        void* mapped = ::mmap(nullptr, 2 * kSlots * kSlotBytes, PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        if (mapped == MAP_FAILED || ::pipe(to_far_) != 0 || ::pipe(to_near_) != 0)
            throw std::runtime_error("the pool could not be made");
        pool_ = static_cast<char*>(mapped);
    }
    ~PoolRoad() override {
        for (const int end : {to_far_[0], to_far_[1], to_near_[0], to_near_[1]}) ::close(end);
        ::munmap(pool_, 2 * kSlots * kSlotBytes);
    }
    std::unique_ptr<Channel> near_end() override {
        return std::make_unique<PoolChannel>(pool_, pool_ + kSlots * kSlotBytes, to_near_[0],
                                             to_far_[1]);
    }
    std::unique_ptr<Channel> far_end() override {
        return std::make_unique<PoolChannel>(pool_ + kSlots * kSlotBytes, pool_, to_far_[0],
                                             to_near_[1]);
    }

  private:
    char* pool_ = nullptr;
    int to_far_[2]{}, to_near_[2]{};
};

}  // namespace

std::unique_ptr<Road> make_pool_road() {
    return std::make_unique<PoolRoad>();
}

}  // namespace bench
