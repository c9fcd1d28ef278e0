// The check of the object blocks: slots, records, and what the objects want of the indexes.
#include <algorithm>

#include "mdb/detail/index_keys.h"
#include "mdb/detail/verify_context.h"
#include "mdb/errors.h"
#include "mdb/object_layout.h"
#include "mdb/object_slots.h"
#include "mdb/property_types.h"

namespace mdb::detail {

namespace {

template <class Codec>
bool loads(std::span<const std::byte> payload) {
    typename Codec::value_t value{};
    return Codec::load(payload, value);
}

/// True when the payload can be read as a value of the record's type; of a type that several kinds
/// share, as one of the smallest. Types that this build doesn't know can hold anything.
bool is_readable(const RecordView& record) {
    const auto payload = record.payload();
    switch (record.type_id()) {
        case 1:
        case 2:
        case 5:
        case 7:
        case 8:
        case 9:
            return payload.size() >= sizeof(uint32_t);
        case codec::Boolean::kTypeId:
            return !payload.empty();
        case codec::Text::kTypeId:
            return std::find(payload.begin(), payload.end(), std::byte{0}) != payload.end();
        case codec::NodeIdWords::kTypeId:
        case 11:
            return payload.size() >= sizeof(uint64_t);
        case codec::VersionPair::kTypeId:
            return loads<codec::VersionPair>(payload);
        case codec::Blob::kTypeId:
            return payload.size() >= sizeof(uint32_t) &&
                   util::load_be32(payload.data()) <= payload.size() - sizeof(uint32_t);
        case codec::Mark::kTypeId:
            return payload.size() >= mark_layout::kLength;
        case PropertySnmpOid::kTypeId:
            return loads<PropertySnmpOid::codec_type>(payload);
        case PropertyStringList::kTypeId:
            return loads<PropertyStringList::codec_type>(payload);
        case PropertyNodeIdList::kTypeId:
            return loads<PropertyNodeIdList::codec_type>(payload);
        default:
            return true;
    }
}

/// A null is its head alone; every other record is filled up to a multiple of 8.
bool has_possible_length(const RecordView& record) {
    const size_t length = record.bytes().size();
    return record.is_null() ? length == record_layout::kHeadLength
                            : length % record_layout::kAlignment == 0;
}

class ObjectBlocks {
  public:
    ObjectBlocks(VerifyContext& context, WantedEntries& wanted,
                 std::vector<LargeObjectReference>& references)
        : context_(context), wanted_(wanted), references_(references) {}

    void check_block(uint32_t block) {
        const std::span<const std::byte> bytes = context_.read(block);
        uint64_t free = 0;
        for (uint32_t at = 0; at < bytes.size();) {
            const Slot slot = at + sizeof(uint32_t) <= bytes.size() ? slot_at(bytes, at) : Slot{at};
            if (!slot_fits(slot, bytes.size())) {
                context_.fault("O1", block, at, "slot has length {}", slot.length);
                return;
            }
            if (slot.placeholder)
                free += slot.length;
            else
                check_object(bytes, slot, block);
            at = slot.end();
        }
        context_.counts.placeholder_bytes += free;
        const uint32_t block_size = context_.database.block_size();
        if (context_.mark(block) == mark_t::full && free >= free_threshold(block_size))
            context_.fault("O4", block, 0, "is marked full and has {} bytes free", free);
    }

  private:
    void check_object(std::span<const std::byte> block_bytes, const Slot& slot, uint32_t block) {
        const block_handle_t handle{block, slot.offset};
        ++context_.counts.objects;
        context_.counts.object_bytes += slot.length;
        const dobj object(handle, block_bytes.data());
        try {
            check_records(block_bytes.subspan(slot.offset, slot.length), handle);
            const ObjectKeys keys = read_object_keys(object);
            if (!keys[node_id_index] && !context_.options.nameless_objects)
                context_.fault("O7", block, slot.offset, "object has no id");
            for (uint32_t n = 0; n < kMaxIndexes; ++n)
                if (keys[n]) wanted_[n].push_back({to_key(*keys[n]), handle});
        } catch (const error_generic& failure) {
            context_.fault("O2", block, slot.offset, "object: {}", failure.text());
            return;
        }
        for (ObjectCheck* check : context_.options.checks) check->see(object, context_.report);
    }

    void check_records(std::span<const std::byte> slot, block_handle_t handle) {
        ids_.clear();
        for (const RecordView record : ObjectRecords(slot, handle)) {
            ++context_.counts.records;
            const auto at =
                static_cast<uint32_t>(handle.offset + (record.bytes().data() - slot.data()));
            if (!has_possible_length(record))
                context_.fault("O2", handle.block, at, "record of property {} has {} bytes",
                               record.id(), record.bytes().size());
            else if (!record.is_null() && !is_readable(record))
                context_.fault("O8", handle.block, at,
                               "record of property {} holds no value of type {}", record.id(),
                               record.type_id());
            else if (!record.is_null())
                note_reference(record, handle);
            ids_.push_back(record.id());
        }
        std::sort(ids_.begin(), ids_.end());
        for (auto twice = std::adjacent_find(ids_.begin(), ids_.end()); twice != ids_.end();
             twice = std::adjacent_find(std::upper_bound(twice, ids_.end(), *twice), ids_.end()))
            context_.fault("O3", handle.block, handle.offset,
                           "object has two records of property {}", *twice);
    }

    void note_reference(const RecordView& record, block_handle_t handle) {
        const auto& numbers = context_.options.large_object_properties;
        if (std::find(numbers.begin(), numbers.end(), record.id()) != numbers.end())
            references_.push_back({util::load_be32(record.payload().data()), handle});
    }

    VerifyContext& context_;
    WantedEntries& wanted_;
    std::vector<LargeObjectReference>& references_;
    std::vector<uint32_t> ids_;
};

}  // namespace

void verify_object_blocks(VerifyContext& context, WantedEntries& wanted,
                          std::vector<LargeObjectReference>& references) {
    ObjectBlocks blocks(context, wanted, references);
    for (uint64_t block = context.database.allocator().first_data_block();
         block < context.block_count() && !context.report.full(); ++block) {
        const mark_t mark = context.mark(static_cast<uint32_t>(block));
        if (mark == mark_t::used || mark == mark_t::full)
            blocks.check_block(static_cast<uint32_t>(block));
        context.progress("objects", block, context.block_count());
    }
}

}  // namespace mdb::detail
