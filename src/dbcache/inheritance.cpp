#include "dbcache/inheritance.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "dbcache/detail/child_walk.h"
#include "dbcache/object_handler.h"
#include "log/log.h"
#include "mdb/errors.h"
#include "mdb/index.h"
#include "mdb/large_object.h"
#include "mdb/object_slots.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

constexpr unsigned kParentLevel = 1;

}  // namespace

// ---- ObjectRecord ------------------------------------------------------------------------------

void ObjectRecord::assign(mdb::dobj object, hold_t hold, uint32_t* ascending) {
    object_ = std::move(object);
    is_view_ = !object_.copy;
    look_at(mdb::object_slot(object_));
    if (hold == hold_t::copy) make_copy();
    uint32_t ordered = ascending == nullptr ? 0 : *ascending;
    if (ordered == 0) {
        auto record = records_.begin();
        for (uint32_t last = 0; record != records_.end(); ++record) {
            if (ordered == 0 && (*record).id() < last)
                ordered = static_cast<uint32_t>(record.place() - slot_.data());
            last = (*record).id();
        }
        if (ordered == 0) ordered = static_cast<uint32_t>(slot_.size());
        if (ascending != nullptr) *ascending = ordered;
    }
    unordered_ = slot_.data() + ordered;
}

void ObjectRecord::make_copy() {
    if (!std::exchange(is_view_, false)) return;
    const ptrdiff_t ordered = unordered_ - slot_.data();
    std::byte* to = inline_bytes_.data();
    if (slot_.size() > kInlineBytes) {
        more_bytes_ = std::make_unique_for_overwrite<std::byte[]>(slot_.size());
        to = more_bytes_.get();
    }
    std::memcpy(to, slot_.data(), slot_.size());
    look_at({to, slot_.size()});
    unordered_ = to + ordered;
}

void ObjectRecord::look_at(std::span<const std::byte> slot) {
    slot_ = slot;
    records_ = mdb::ObjectRecords(slot, object_.handle());
    unordered_ = slot.data();
    cursor_ = records_.begin();
    last_asked_ = 0;
}

std::optional<mdb::RecordView> ObjectRecord::find(uint32_t id) const {
    if (id <= last_asked_) cursor_ = records_.begin();
    // A search that throws leaves no place to go on from.
    last_asked_ = std::numeric_limits<uint32_t>::max();
    for (; cursor_ != records_.end() && cursor_.place() < unordered_; ++cursor_) {
        const mdb::RecordView record = *cursor_;
        if (record.id() < id) continue;
        if (record.id() > id) break;
        last_asked_ = id;
        return record;
    }
    last_asked_ = id;
    if (unordered_ < slot_.data() + slot_.size())
        for (const mdb::RecordView record : records_.from(unordered_))
            if (record.id() == id) return record;
    return std::nullopt;
}

found_t ObjectRecord::read(mdb::Property& property) const {
    const std::optional<mdb::RecordView> record = find(property.id);
    if (!record) {
        property.inherited = 0;
        return found_t::absent;
    }
    if (record->is_null() && record->type_id() == property.type_id()) {
        property.inherited = record->is_inherited() ? 1 : 0;
        return found_t::explicit_null;
    }
    property.read_record(*record, object_.handle());
    return found_t::value;
}

// ---- InheritanceChain --------------------------------------------------------------------------

InheritanceChain::InheritanceChain(Store& store, const NodeId& id, mdb::block_handle_t handle)
    : store_(store), id_(id), handle_(handle) {
    if (!handle.is_null()) store_.read_record(handle, object_);
}

InheritanceChain::InheritanceChain(Store& store, const NodeId& id, mdb::block_handle_t handle,
                                   uint32_t& ascending)
    : store_(store), id_(id), handle_(handle) {
    if (!handle.is_null()) store_.read_record(handle, object_, hold_t::view, &ascending);
}

found_t InheritanceChain::read(unsigned number, mdb::Property& property) const {
    return level(number).read(property);
}

NodeId InheritanceChain::inherits() const {
    if (override_) return *override_;
    if (!inherits_) {
        mdb::PropertyNodeId stored(prop::inherits);
        inherits_ = object_.read(stored) == found_t::value ? stored.value : NodeId{};
    }
    return *inherits_;
}

const PropertyChain& InheritanceChain::stored() const {
    if (!override_) return *this;
    make_copy();
    if (!stored_) stored_ = std::make_unique<InheritanceChain>(store_, id_, handle_);
    return *stored_;
}

void InheritanceChain::override_parent(const NodeId& parent) {
    override_ = parent;
    parent_.reset();
    parent_failure_.reset();
}

bool InheritanceChain::visit_object(const NodeId& id, const Visit& visit) const {
    make_copy();
    const ObjectHandlerRef object = store_.resolver().find_object(id);
    if (!object) return false;
    visit(InheritanceChain(store_, id, object->location()));
    return true;
}

void InheritanceChain::visit_children(const NodeId& parent, uint32_t child_class,
                                      const Visit& visit) const {
    make_copy();
    detail::walk_children(store_, parent, mdb::parent_id_index, [&](const ObjectHandlerRef& one) {
        if (one->class_number() == child_class)
            visit(InheritanceChain(store_, one->node_id(), one->location()));
        return true;
    });
}

std::vector<uint8_t> InheritanceChain::read_lob(uint32_t block) const {
    make_copy();
    std::vector<std::byte> bytes;
    mdb::read_lob(store_.database(), block, bytes);
    const auto* first = reinterpret_cast<const uint8_t*>(bytes.data());
    return {first, first + bytes.size()};
}

const ObjectRecord& InheritanceChain::level(unsigned number) const {
    error::check(!empty_, "Handles list empty");
    if (number == 0) return object_;
    error::check(number == kParentLevel, "No level {} in an inheritance chain", number);
    if (!parent_ && !parent_failure_) open_parent();
    if (parent_failure_) throw EInheritance(*parent_failure_);
    return *parent_;
}

void InheritanceChain::open_parent() const {
    const NodeId parent = inherits();
    if (parent.is_null()) {
        parent_failure_ = "No inheritance parent: Inherits is null";
        return;
    }
    make_copy();
    std::string reason = "Object was deleted";
    if (const auto handle = store_.indexes().unique_find(mdb::node_id_index, parent)) {
        auto record = std::make_unique<ObjectRecord>();
        store_.read_record(*handle, *record);
        PropertyNodeType type(prop::nodeType);
        if (record->read(type) == found_t::value && type.value != node_type_t{}) {
            parent_ = std::move(record);
            return;
        }
    } else {
        reason = fmt::format("No object with id {}", parent);
    }
    logger.warning("Error locating inheritance parent {} to object {}: {}", parent, id_, reason);
    parent_failure_ = "No parent: " + reason;
}

}  // namespace dbcache
