// open_hash_table: an open-addressing table with linear probing, prime sizes and tombstones. It
// serves the caches, which look up far more than they insert. It owns keys and values but not what
// values point to. It never shrinks.
//
//   slot state   empty (0) -> used (1) -> deleted (2) -> used ...; back to empty only by a rehash
//
// Invariants, checked by verify():
//   T1 used = slots in state used, occupied = slots in state used or deleted
//   T2 used * 4 <= slots, but at the last size
//   T3 no empty slot lies between a key's hash slot and the slot that holds it
//   T4 every key stands once
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "error/exception.h"
#include "platform/huge_pages.h"

/// Hash policy for 32-bit keys: the low word of a multiplication.
struct WordHash {
    static constexpr uint32_t hash(uint32_t key) noexcept { return key * 0x9E3779B1U; }
};

/// `Hash::hash(key)` yields an unsigned number whose remainder by the slot count is the first slot
/// looked at. Key and Value must be default constructible; Key needs ==.
template <class Key, class Value, class Hash>
class open_hash_table {
  public:
    /// Each the largest prime below a power of two.
    static constexpr std::array<uint32_t, 24> kSizes = {
        509,      1021,     2039,      4093,      8191,      16381,      32749,      65521,
        131071,   262139,   524287,    1048573,   2097143,   4194301,    8388593,    16777213,
        33554393, 67108859, 134217689, 268435399, 536870909, 1073741789, 2147483647, 4294967291};

    open_hash_table() : slots_(kSizes[0]) {}

    /// The value of `key`, or null. Lives until the next insert().
    [[nodiscard]] Value* find(const Key& key) {
        Slot* slot = find_slot(key);
        return slot == nullptr ? nullptr : &slot->value;
    }
    [[nodiscard]] const Value* find(const Key& key) const {
        const Slot* slot = const_cast<open_hash_table*>(this)->find_slot(key);
        return slot == nullptr ? nullptr : &slot->value;
    }

    /// Starts to fetch the memory in which find() will look for `key`.
    void prefetch(const Key& key) const noexcept { __builtin_prefetch(&slots_[home(key)]); }

    /// Puts `value` under `key` unless the key is there already. Returns the value that stands
    /// under the key then, and whether it is the new one. The pointer lives until the next
    /// insert(). May move every item.
    std::pair<Value*, bool> insert(const Key& key, Value value);

    /// Takes `key` out; false if it isn't there.
    bool erase(const Key& key) {
        Slot* slot = find_slot(key);
        if (slot == nullptr) return false;
        slot->state = state_t::deleted;
        slot->value = Value{};
        --used_;
        return true;
    }

    /// Calls visit(key, value) for every item, in no order. `visit` must not change the table.
    template <class Visit>
    void for_each(Visit&& visit) {
        for (Slot& slot : slots_)
            if (slot.state == state_t::used) visit(std::as_const(slot.key), slot.value);
    }

    [[nodiscard]] std::size_t used() const noexcept { return used_; }
    /// Slots that are used or deleted.
    [[nodiscard]] std::size_t occupied() const noexcept { return occupied_; }
    [[nodiscard]] std::size_t slot_count() const noexcept { return slots_.size(); }
    /// Probes beyond the first that look-ups (find and erase) have made so far.
    [[nodiscard]] uint64_t slow_jumps() const noexcept { return slow_jumps_; }
    [[nodiscard]] uint64_t rehashes() const noexcept { return rehashes_; }

    /// Walks the whole table and names the first broken invariant by its number; empty when all
    /// hold.
    [[nodiscard]] std::string verify() const;

  private:
    enum class state_t : uint32_t { empty = 0, used = 1, deleted = 2 };
    struct Slot {
        state_t state = state_t::empty;
        Key key{};
        Value value{};
    };

    [[nodiscard]] std::size_t home(const Key& key) const noexcept {
        return Hash::hash(key) % slots_.size();
    }
    [[nodiscard]] std::size_t next(std::size_t at) const {
        return at + 1 == slots_.size() ? 0 : at + 1;
    }

    [[nodiscard]] Slot* find_slot(const Key& key);
    /// Slot of a key that is known to be there; counts nothing.
    [[nodiscard]] Slot& locate(const Key& key) {
        std::size_t at = home(key);
        while (!(slots_[at].state == state_t::used && slots_[at].key == key)) at = next(at);
        return slots_[at];
    }
    [[nodiscard]] bool rehash_when_due();
    void rehash();

    std::vector<Slot, platform::HugeAllocator<Slot>> slots_;
    std::size_t size_index_ = 0;
    std::size_t used_ = 0;
    std::size_t occupied_ = 0;
    uint64_t slow_jumps_ = 0;
    uint64_t rehashes_ = 0;
};

template <class Key, class Value, class Hash>
auto open_hash_table<Key, Value, Hash>::find_slot(const Key& key) -> Slot* {
    for (std::size_t at = home(key);; at = next(at)) {
        Slot& slot = slots_[at];
        if (slot.state == state_t::used && slot.key == key) return &slot;
        if (slot.state == state_t::empty) return nullptr;
        ++slow_jumps_;
    }
}

template <class Key, class Value, class Hash>
std::pair<Value*, bool> open_hash_table<Key, Value, Hash>::insert(const Key& key, Value value) {
    // A deleted slot ends the search for a place but not the search for the key, which may lie
    // behind it.
    Slot* place = nullptr;
    for (std::size_t at = home(key);; at = next(at)) {
        Slot& slot = slots_[at];
        if (slot.state == state_t::used) {
            if (slot.key == key) return {&slot.value, false};
            continue;
        }
        if (place == nullptr) place = &slot;
        if (slot.state == state_t::empty) break;
    }
    if (place->state == state_t::empty) ++occupied_;
    *place = Slot{state_t::used, key, std::move(value)};
    ++used_;
    return {rehash_when_due() ? &locate(key).value : &place->value, true};
}

template <class Key, class Value, class Hash>
bool open_hash_table<Key, Value, Hash>::rehash_when_due() {
    error::check(occupied_ >= used_, "accounting failure");
    if (used_ * 4 > slots_.size() && size_index_ + 1 < kSizes.size()) {
        ++size_index_;
        rehash();
        return true;
    }
    if (occupied_ > used_ * 3) {
        rehash();
        return true;
    }
    return false;
}

template <class Key, class Value, class Hash>
void open_hash_table<Key, Value, Hash>::rehash() {
    std::vector<Slot, platform::HugeAllocator<Slot>> old(kSizes[size_index_]);
    old.swap(slots_);
    for (Slot& slot : old) {
        if (slot.state != state_t::used) continue;
        std::size_t at = home(slot.key);
        while (slots_[at].state == state_t::used) at = next(at);
        slots_[at] = std::move(slot);
    }
    occupied_ = used_;
    ++rehashes_;
}

template <class Key, class Value, class Hash>
std::string open_hash_table<Key, Value, Hash>::verify() const {
    std::size_t used = 0;
    std::size_t occupied = 0;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        if (slots_[i].state == state_t::empty) continue;
        ++occupied;
        if (slots_[i].state == state_t::deleted) continue;
        ++used;
        for (std::size_t at = home(slots_[i].key); at != i; at = next(at)) {
            if (slots_[at].state == state_t::empty)
                return fmt::format("T3: gap ahead of slot {}", i);
            if (slots_[at].state == state_t::used && slots_[at].key == slots_[i].key)
                return fmt::format("T4: key of slot {} stands in slot {} too", i, at);
        }
    }
    if (used != used_ || occupied != occupied_)
        return fmt::format("T1: {} used and {} occupied, counted {} and {}", used_, occupied_, used,
                           occupied);
    if (used * 4 > slots_.size() && size_index_ + 1 < kSizes.size())
        return fmt::format("T2: {} used in {} slots", used, slots_.size());
    return {};
}
