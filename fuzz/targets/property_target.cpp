// Property records, slots and object blocks of any bytes.
//
//   byte 0     0: the rest is the payload of a record, of the class that byte 1 picks
//              1: the rest is the slot of an object
//              2: the rest is an object block

#include <array>
#include <cstring>
#include <optional>
#include <vector>

#include "mdb/dobj.h"
#include "mdb/object_slots.h"
#include "mdb/property_types.h"
#include "mdb/serializer.h"
#include "targets/attempt.h"
#include "targets/input.h"
#include "targets/target.h"

namespace fuzz {

namespace {

constexpr uint32_t kBlockSize = 1024;
constexpr uint32_t kId = 51;

/// One property of each class, which loads and stores in turn.
struct Classes {
    mdb::PropertyUint32 number;
    mdb::PropertyInt32 signed_number;
    mdb::PropertyString text;
    mdb::PropertyNodeId node_id;
    mdb::PropertyBool truth;
    mdb::PropertyDouble real;
    mdb::PropertyDate date;
    mdb::PropertyBigNum big;
    mdb::PropertyCount count;
    mdb::PropertySeries series;
    mdb::PropertyVersion version;
    mdb::PropertyUint64 wide;
    mdb::PropertyBlob blob;
    mdb::PropertyMarkIndex mark;
    mdb::PropertySnmpOid oid;
    mdb::PropertyStringList texts;
    mdb::PropertyNodeIdList node_ids;
    mdb::PropertyList<mdb::PropertyBlob> blobs;

    [[nodiscard]] std::array<mdb::Property*, 18> all() {
        return {&number, &signed_number, &text, &node_id, &truth, &real, &date,  &big,      &count,
                &series, &version,       &wide, &blob,    &mark,  &oid,  &texts, &node_ids, &blobs};
    }
};

bool never_failed() {
    return false;
}

/// The record of the present value.
std::vector<std::byte> encode(const mdb::Property& property) {
    std::vector<std::byte> record(property.record_length());
    property.store(record);
    return record;
}

void decode(mdb::Property& property, std::span<const std::byte> record) {
    property.read_record(mdb::RecordView(record), {1, 0});
}

/// Whatever a class takes for a value it must write as one that it reads back the same.
void round_trip(uint8_t pick, std::span<const uint8_t> payload) {
    Classes classes;
    const auto all = classes.all();
    mdb::Property& property = *all[pick % all.size()];
    std::vector<std::byte> record(mdb::record_layout::payload + payload.size());
    if (!payload.empty())
        std::memcpy(&record[mdb::record_layout::payload], payload.data(), payload.size());
    util::store_be32(&record[mdb::record_layout::id], kId);
    util::store_be32(&record[mdb::record_layout::length], static_cast<uint32_t>(record.size()));
    util::store_be32(&record[mdb::record_layout::type], property.type_id());
    std::string text;
    if (attempt(text, never_failed, [&] { decode(property, record); }) != outcome_t::done) return;

    const std::vector<std::byte> first = encode(property);
    if (first.size() % mdb::record_layout::kAlignment != 0)
        throw Violation("A record's length is no multiple of 8");
    if (attempt(text, never_failed, [&] { decode(property, first); }) != outcome_t::done)
        throw Violation("A record that was just written is refused: " + text);
    if (encode(property) != first) throw Violation("A value changed by being written and read");
}

/// A block of bytes that begins with `input`, in a buffer of exactly its size.
std::vector<std::byte> block_of(std::span<const uint8_t> input) {
    std::vector<std::byte> block(kBlockSize);
    if (!input.empty())
        std::memcpy(block.data(), input.data(), std::min<size_t>(input.size(), kBlockSize));
    return block;
}

/// Reads an object by every class, and rebuilds it record by record.
void read_object(std::span<const uint8_t> input) {
    std::vector<std::byte> block = block_of(input);
    // A slot that its block doesn't hold is refused before anybody reads it.
    const uint32_t length = mdb::slot_at(block, 0).length;
    if (length < mdb::slot_layout::records || length > kBlockSize)
        mdb::set_slot(block, {0, kBlockSize, false});
    const mdb::dobj object({1, 0}, block.data());
    std::string text;
    Classes classes;
    for (mdb::Property* property : classes.all()) {
        property->id = kId;
        attempt(text, never_failed, [&] { property->read(object); });
    }
    mdb::Serializer serializer(kBlockSize);
    serializer.serial_reset();
    mdb::BlockPool pool(kBlockSize);
    attempt(text, never_failed, [&] {
        for (const mdb::RecordView record : mdb::ObjectRecords(object))
            serializer.serial_add_raw(record.bytes().data());
        mdb::dobj image({1, 0}, pool.acquire());
        image.image = true;
        serializer.serial_replace_object(image);
        for (const mdb::RecordView record : mdb::ObjectRecords(image))
            static_cast<void>(record.id());
    });
}

/// The slot at `offset` if a walk from the start of the block gets there and it is one.
std::optional<mdb::Slot> reach(std::span<const std::byte> block, uint32_t offset) {
    for (uint32_t at = 0; at + sizeof(uint32_t) <= block.size();) {
        const mdb::Slot slot = mdb::slot_at(block, at);
        if (!mdb::slot_fits(slot, block.size())) return {};
        if (at >= offset) return slot;
        at = slot.end();
    }
    return {};
}

/// Frees and splits slots; nothing may be written outside of the block, and a block whose slots
/// tile it must stay one.
void change_block(Input& input) {
    const uint32_t offset = input.number(2) % kBlockSize;
    const uint32_t size = input.byte() * 2U + 4;
    std::vector<std::byte> block = block_of(input.rest());
    const bool tiles = !reach(block, kBlockSize) && [&] {
        uint32_t at = 0;
        while (const auto slot = reach(block, at)) at = slot->end();
        return at == kBlockSize;
    }();
    std::optional<mdb::Slot> slot = reach(block, offset);
    if (!slot || slot->length < mdb::slot_layout::records) return;
    std::string text;
    if (slot->placeholder)
        attempt(text, never_failed,
                [&] { static_cast<void>(mdb::split_placeholder(block, slot->offset, size)); });
    else
        static_cast<void>(mdb::free_slot_in_block(block, slot->offset));
    uint32_t at = 0;
    while (const auto next = reach(block, at)) at = next->end();
    if (tiles && at != kBlockSize) throw Violation("A change broke the row of slots");
}

class PropertyTarget final : public Target {
  public:
    void run(std::span<const uint8_t> bytes) override {
        Input input(bytes);
        switch (input.byte() % 3) {
            case 0: {
                const uint8_t pick = input.byte();
                return round_trip(pick, input.rest());
            }
            case 1:
                return read_object(input.rest());
            case 2:
                return change_block(input);
        }
    }
};

}  // namespace

std::unique_ptr<Target> make_property_target() {
    return std::make_unique<PropertyTarget>();
}

}  // namespace fuzz
