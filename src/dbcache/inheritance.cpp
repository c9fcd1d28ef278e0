#include "dbcache/inheritance.h"

#include <algorithm>
#include <cstring>

#include "dbcache/detail/child_walk.h"
#include "dbcache/object_handler.h"
#include "log/log.h"
#include "mdb/errors.h"
#include "mdb/index.h"
#include "mdb/large_object.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

constexpr unsigned kParentLevel = 1;

}  // namespace

// ---- ObjectRecord ------------------------------------------------------------------------------

void ObjectRecord::assign(std::span<const std::byte> slot, mdb::block_handle_t handle) {
    handle_ = handle;
    size_ = slot.size();
    count_ = 0;
    cursor_ = 0;
    more_places_.clear();
    std::byte* to = inline_bytes_.data();
    if (slot.size() > kInlineBytes) {
        more_bytes_ = std::make_unique_for_overwrite<std::byte[]>(slot.size());
        to = more_bytes_.get();
    }
    std::memcpy(to, slot.data(), slot.size());
    bytes_ = to;
    for (const mdb::RecordView record : mdb::ObjectRecords({to, slot.size()}, handle))
        add_place({record.id(), static_cast<uint32_t>(record.bytes().data() - to)});
}

std::span<const ObjectRecord::Place> ObjectRecord::places() const noexcept {
    if (!more_places_.empty()) return more_places_;
    return {inline_places_.data(), count_};
}

/// Puts the place behind those with the same or a lower id; records mostly lie in that order.
void ObjectRecord::add_place(const Place& place) {
    const auto later = [](const Place& a, const Place& b) { return a.id < b.id; };
    if (count_ < kInlineRecords && more_places_.empty()) {
        Place* begin = inline_places_.data();
        Place* at = begin + count_;
        while (at != begin && at[-1].id > place.id) {
            *at = at[-1];
            --at;
        }
        *at = place;
    } else {
        if (more_places_.empty())
            more_places_.assign(inline_places_.begin(), inline_places_.begin() + count_);
        more_places_.insert(
            std::upper_bound(more_places_.begin(), more_places_.end(), place, later), place);
    }
    ++count_;
}

const ObjectRecord::Place* ObjectRecord::find(uint32_t id) const noexcept {
    const std::span<const Place> all = places();
    if (cursor_ > 0 && all[cursor_ - 1].id >= id) {
        const auto lower = [](const Place& place, uint32_t wanted) { return place.id < wanted; };
        cursor_ =
            static_cast<size_t>(std::lower_bound(all.begin(), all.end(), id, lower) - all.begin());
    }
    while (cursor_ < all.size() && all[cursor_].id < id) ++cursor_;
    return cursor_ < all.size() && all[cursor_].id == id ? &all[cursor_] : nullptr;
}

found_t ObjectRecord::read(mdb::Property& property) const {
    const Place* place = find(property.id);
    if (place == nullptr) {
        property.inherited = 0;
        return found_t::absent;
    }
    const std::span<const std::byte> rest(bytes_ + place->offset, size_ - place->offset);
    const uint32_t length = util::load_be32(&rest[mdb::record_layout::length]);
    const mdb::RecordView record(rest.first(length));
    if (record.is_null() && record.type_id() == property.type_id()) {
        property.inherited = record.is_inherited() ? 1 : 0;
        return found_t::explicit_null;
    }
    property.read_record(record, handle_);
    return found_t::value;
}

// ---- InheritanceChain --------------------------------------------------------------------------

InheritanceChain::InheritanceChain(Store& store, const NodeId& id, mdb::block_handle_t handle)
    : store_(store), id_(id), handle_(handle) {
    if (!handle.is_null()) store_.read_record(handle, object_);
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
    if (!stored_) stored_ = std::make_unique<InheritanceChain>(store_, id_, handle_);
    return *stored_;
}

void InheritanceChain::override_parent(const NodeId& parent) {
    override_ = parent;
    parent_.reset();
    parent_failure_.reset();
}

bool InheritanceChain::visit_object(const NodeId& id, const Visit& visit) const {
    const ObjectHandlerRef object = store_.resolver().find_object(id);
    if (!object) return false;
    visit(InheritanceChain(store_, id, object->location()));
    return true;
}

void InheritanceChain::visit_children(const NodeId& parent, uint32_t child_class,
                                      const Visit& visit) const {
    detail::walk_children(store_, parent, mdb::parent_id_index, [&](const ObjectHandlerRef& one) {
        if (one->class_number() == child_class)
            visit(InheritanceChain(store_, one->node_id(), one->location()));
        return true;
    });
}

std::vector<uint8_t> InheritanceChain::read_lob(uint32_t block) const {
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
