#include "mdb/object_verify.h"

#include <algorithm>
#include <array>
#include <set>
#include <span>
#include <vector>

#include "mdb/database.h"
#include "mdb/detail/fault_list.h"
#include "mdb/detail/index_keys.h"
#include "mdb/detail/index_tree.h"
#include "mdb/index.h"
#include "mdb/object_slots.h"
#include "mdb/property.h"

namespace mdb {

namespace {

/// One key of an object, or one entry of an index.
struct Entry {
    NodeId key;
    block_handle_t handle;
    friend auto operator<=>(const Entry&, const Entry&) = default;
};

class ObjectVerifier {
  public:
    ObjectVerifier(Database& database, IndexTable& indexes)
        : database_(database), indexes_(indexes) {}

    std::string run() {
        Allocator& allocator = database_.allocator();
        const uint64_t end = uint64_t{allocator.map_blocks()} * database_.block_size();
        for (uint32_t block = allocator.first_data_block(); block < end && !faults_.full(); ++block)
            check_block(block, allocator.query_mark(block));
        for (uint32_t n = 0; n < indexes_.index_count() && !faults_.full(); ++n) compare_index(n);
        return faults_.take();
    }

  private:
    void check_block(uint32_t block, mark_t mark) {
        if (mark == mark_t::empty) return;
        if (!database_.store().block_in_file(block)) {
            faults_.add("O4 block {} has mark {} and is not in the file", block,
                        static_cast<unsigned>(mark));
            return;
        }
        if (mark != mark_t::used && mark != mark_t::full) return;
        const std::span<const std::byte> bytes(database_.cache().cached_block(block),
                                               database_.block_size());
        uint64_t free = 0;
        for (uint32_t at = 0; at < bytes.size();) {
            const Slot slot = at + sizeof(uint32_t) <= bytes.size() ? slot_at(bytes, at) : Slot{at};
            if (!slot_fits(slot, bytes.size())) {
                faults_.add("O1 slot at {}:{} has length {}", block, at, slot.length);
                return;
            }
            if (slot.placeholder)
                free += slot.length;
            else
                check_object(bytes, slot, block);
            at = slot.end();
        }
        if (mark == mark_t::full && free >= free_threshold(database_.block_size()))
            faults_.add("O4 block {} is marked full and has {} bytes free", block, free);
    }

    void check_object(std::span<const std::byte> bytes, const Slot& slot, uint32_t block) {
        const block_handle_t handle{block, slot.offset};
        try {
            std::set<uint32_t> ids;
            for (const RecordView record :
                 ObjectRecords(bytes.subspan(slot.offset, slot.length), handle))
                if (!ids.insert(record.id()).second)
                    faults_.add("O3 object {} has two records of property {}",
                                detail::describe(handle), record.id());
            const auto keys = detail::read_object_keys(dobj(handle, bytes.data()));
            for (uint32_t n = 0; n < kMaxIndexes; ++n)
                if (keys[n]) keys_[n].push_back({*keys[n], handle});
        } catch (const error_generic& e) {
            faults_.add("O2 object {}: {}", detail::describe(handle), e.text());
        }
    }

    /// The entries of index `n` and the keys of the objects must be the same.
    void compare_index(uint32_t n) {
        std::vector<Entry> entries;
        try {
            for (auto it = indexes_.iterate_first(n); it.valid(); indexes_.iterator_next(it))
                entries.push_back({indexes_.iterator_key(it), indexes_.iterator_value(it)});
        } catch (const error_generic& e) {
            faults_.add("O6 index {} cannot be read: {}", n, e.text());
            return;
        }
        std::sort(entries.begin(), entries.end());
        std::sort(keys_[n].begin(), keys_[n].end());
        const char* const rule = n == node_id_index ? "O5" : "O6";
        std::vector<Entry> odd;
        std::set_difference(entries.begin(), entries.end(), keys_[n].begin(), keys_[n].end(),
                            std::back_inserter(odd));
        for (const Entry& entry : odd)
            faults_.add("O6 entry {}->{} of index {} has no object", entry.key.to_string(),
                        detail::describe(entry.handle), n);
        odd.clear();
        std::set_difference(keys_[n].begin(), keys_[n].end(), entries.begin(), entries.end(),
                            std::back_inserter(odd));
        for (const Entry& entry : odd)
            faults_.add("{} object {} has key {} and no entry in index {}", rule,
                        detail::describe(entry.handle), entry.key.to_string(), n);
    }

    Database& database_;
    IndexTable& indexes_;
    detail::FaultList faults_;
    /// Keys of all objects, by index.
    std::array<std::vector<Entry>, kMaxIndexes> keys_;
};

}  // namespace

std::string verify_objects(Database& database, IndexTable& indexes) {
    return ObjectVerifier(database, indexes).run();
}

}  // namespace mdb
