#include "store/object.h"

#include <cstring>
#include <fmt/format.h>

#include "mdb/object_slots.h"

namespace bench {

namespace {

constexpr uint32_t kObjectSequence = 1, kParentSequence = 2, kTemplateSequence = 3,
                   kMasterSequence = 4, kPathSequence = 5;
constexpr uint32_t kTemplates = 50, kPaths = 200;

}  // namespace

NodeId id_of(uint32_t ordinal) {
    return {kObjectSequence, ordinal + 1};
}

NodeId parent_of(uint32_t ordinal) {
    return {kParentSequence, ordinal / kChildrenPerParent + 1};
}

Object::Object(uint32_t ordinal) {
    id.value = id_of(ordinal);
    parent.value = parent_of(ordinal);
    inherits.value = {kTemplateSequence, ordinal % kTemplates + 1};
    // An order of its own, as another server gave these.
    master.value = {kMasterSequence, ordinal * 2654435761U};
    notify.value = {kPathSequence, ordinal % kPaths + 1};
    active.value = true;
    name.value = fmt::format("node{:07}", ordinal);
    label.value = fmt::format("rack {:02}", ordinal % 100);
    comment.value =
        fmt::format("Object {:07} stands in hall three, row B, and is kept by ops", ordinal);
    comment.value.resize(60, '.');
    limit.value = ordinal % 1000;
    counter.value = ordinal;
    version.value = {1, ordinal};
}

std::array<const mdb::Property*, 12> Object::properties() const {
    return {&id,   &parent, &active,  &inherits, &master,  &notify,
            &name, &label,  &comment, &limit,    &counter, &version};
}

void Object::decode(const mdb::ObjectRecords& records) {
    const auto property = [this](uint32_t wanted) -> mdb::Property* {
        switch (wanted) {
            case 0:
                return &id;
            case 2:
                return &parent;
            case 502:
                return &active;
            case 59:
                return &inherits;
            case 3800:
                return &master;
            case 3901:
                return &notify;
            case prop::name:
                return &name;
            case prop::label:
                return &label;
            case prop::comment:
                return &comment;
            case prop::limit:
                return &limit;
            case prop::counter:
                return &counter;
            case prop::version:
                return &version;
            default:
                return nullptr;
        }
    };
    for (const mdb::RecordView record : records)
        if (mdb::Property* into = property(record.id())) into->read_record(record, {});
}

bool Object::is(uint32_t ordinal) const {
    const Object wanted(ordinal);
    return id.value == wanted.id.value && parent.value == wanted.parent.value &&
           active.value == wanted.active.value && inherits.value == wanted.inherits.value &&
           master.value == wanted.master.value && notify.value == wanted.notify.value &&
           name.value == wanted.name.value && label.value == wanted.label.value &&
           comment.value == wanted.comment.value && limit.value == wanted.limit.value &&
           version.value == wanted.version.value;
}

void decode_child(const mdb::ObjectRecords& records, Child& child) {
    mdb::PropertyNodeId id;
    for (const mdb::RecordView record : records) {
        if (record.id() == 0) {
            id.read_record(record, {});
            child.id = id.value;
        } else if (record.id() == prop::name) {
            if (!mdb::codec::Text::load(record.payload(), child.name))
                mdb::throw_bad_record(record.id(), record.type_id(), record.bytes().size());
            return;
        }
    }
}

std::span<const std::byte> PackedObject::pack(const Object& object) {
    serializer_.serial_reset();
    for (const mdb::Property* property : object.properties()) serializer_.serial_add(*property);
    const uint32_t slot = mdb::slot_layout::records + serializer_.serial_size();
    bytes_.resize(kHead + slot);
    bytes_[0] = std::byte{1};
    mdb::set_slot(std::span(bytes_).subspan(kHead), {0, slot, false});
    std::memcpy(&bytes_[kHead + mdb::slot_layout::records], serializer_.data(),
                serializer_.serial_size());
    return bytes_;
}

std::span<const std::byte> PackedObject::with_counter(std::span<const std::byte> packed,
                                                      uint64_t counter) {
    bytes_.assign(packed.begin(), packed.end());
    for (const mdb::RecordView record : records(bytes_)) {
        if (record.id() != prop::counter) continue;
        const auto at = static_cast<size_t>(record.payload().data() - bytes_.data());
        util::store_be64(&bytes_[at], counter);
    }
    return bytes_;
}

mdb::ObjectRecords PackedObject::records(std::span<const std::byte> packed) {
    return {packed.subspan(kHead), {}};
}

}  // namespace bench
