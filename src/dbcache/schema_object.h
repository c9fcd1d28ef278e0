// What the schema framework asks of the layer that holds the objects: the stored record that a
// property is read from, the record that it is written to, and the object at hand with the tree
// around it. The framework knows storage, cache and handlers by these interfaces alone, so that a
// class can be tested with objects made of plain maps.
//
// dbcache::InheritanceChain implements PropertyChain, dbcache::ObjectHandler (or an object that it
// makes for one operation) implements SchemaObject, and the writer of a new object version
// implements RecordSink.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "error/exception.h"
#include "mdb/property.h"
#include "tql/id.h"
#include "tql/origin.h"
#include "util/node_id.h"

namespace platform {
class Clock;
}

namespace dbcache {

class SiblingKey;

/// An inheritance parent can't be reached: `inherits` is null or names no object. Never leaves this
/// folder.
class EInheritance : public error::Exception {
  public:
    using Exception::Exception;
};

/// What a stored object says about a property.
enum class found_t : uint8_t { value, explicit_null, absent };

/// An object and its inheritance parent, open for reading.
class PropertyChain {
  public:
    virtual ~PropertyChain() = default;

    /// Reads the property that `property.id` names from the object (level 0) or its inheritance
    /// parent (level 1). `value`: it is loaded. `value` and `explicit_null`: property.inherited
    /// tells the record's mark. Throws EInheritance when level 1 can't be opened and
    /// mdb::error_wrongtype for a record of another type.
    virtual found_t read(unsigned level, mdb::Property& property) const = 0;

    /// The record of a property in the object (level 0) as it lies there, for who takes the value
    /// from it without a property; none where there is none, or where the chain has no bytes to
    /// show. Good until the chain is asked for anything else.
    [[nodiscard]] virtual std::optional<mdb::RecordView> own_record(uint32_t /*number*/) const {
        return std::nullopt;
    }

    /// The value of `inherits`, of the object or of an update in progress; null when there is none.
    [[nodiscard]] virtual NodeId inherits() const = 0;
    [[nodiscard]] bool hasParent() const { return !inherits().is_null(); }
    /// The chain without the parent that an update in progress gives the object.
    [[nodiscard]] virtual const PropertyChain& stored() const { return *this; }

    using Visit = std::function<void(const PropertyChain&)>;
    /// Opens another stored object for reading and calls `visit` with it; false when `id` resolves
    /// to nothing. For classes that are told apart by what stands around them.
    virtual bool visit_object(const NodeId& id, const Visit& visit) const = 0;
    /// Calls `visit` with each stored child of `parent` of the class `child_class`.
    virtual void visit_children(const NodeId& parent, uint32_t child_class,
                                const Visit& visit) const = 0;

    /// The whole large object that begins at `block`; throws mdb::error_generic when it can't be
    /// read.
    [[nodiscard]] virtual std::vector<uint8_t> read_lob(uint32_t block) const = 0;
};

/// Where the new version of an object is put together.
class RecordSink {
  public:
    virtual ~RecordSink() = default;

    /// Adds a record; the mark of inheritance is property.inherited.
    virtual void add(const mdb::Property& property) = 0;
    /// Adds an explicit null with the property's id, type and mark.
    virtual void add_null(const mdb::Property& property) = 0;

    /// Writes a large object, which needs the open transaction; gives its first block.
    [[nodiscard]] virtual uint32_t write_lob(std::span<const uint8_t> bytes) = 0;
    virtual void free_lob(uint32_t block) = 0;
};

/// An object on the way from another one to the root.
struct TreePlace {
    NodeId id;
    uint32_t class_number = 0;
};

/// The object that an operation is about. All results are those of the moment; nothing is kept.
class SchemaObject {
  public:
    virtual ~SchemaObject() = default;

    [[nodiscard]] virtual NodeId node_id() const = 0;
    /// The class that clients see.
    [[nodiscard]] virtual uint32_t schema_class() const = 0;
    /// False while the object is being created.
    [[nodiscard]] virtual bool is_stored() const = 0;
    /// The user in whose name the request runs; null when there is none.
    [[nodiscard]] virtual NodeId request_user() const = 0;

    /// The stored object `id` first, then its ancestors up to the root; groups are left out. Empty
    /// when `id` resolves to nothing. Works for the object at hand before it is stored too: it then
    /// begins with the object itself.
    [[nodiscard]] virtual std::vector<TreePlace> path_to_root(const NodeId& id) const = 0;

    /// Opens another stored object for reading and calls `visit` with it; false when `id` resolves
    /// to nothing.
    virtual bool visit_object(const NodeId& id,
                              const std::function<void(const PropertyChain&)>& visit) const = 0;

    /// Gets the id, class and record of a sibling; false ends the visits.
    using SiblingVisit = std::function<bool(const NodeId&, uint32_t, const PropertyChain&)>;
    /// Visits the stored children, of the classes in `classes` and without the object at hand, of
    /// the object's parent, or of `new_parent` when that isn't null. Where the parent files this
    /// object under a group, only the group's children count. False when the object has no parent.
    virtual bool visit_siblings(const NodeId& new_parent, const std::set<uint32_t>& classes,
                                const SiblingVisit& visit) const = 0;
    /// The first of those siblings, of the classes that `key` names, whose values equal `key`. By
    /// itself it compares with one after the other.
    [[nodiscard]] virtual std::optional<NodeId> find_equal_sibling(const NodeId& new_parent,
                                                                   const SiblingKey& key) const;
    static constexpr uint32_t kNoParent = 0xFFFFFFFF;
    /// The class of that parent; kNoParent without one.
    [[nodiscard]] virtual uint32_t parent_class(const NodeId& new_parent) const = 0;

    /// What an id in a value inherited from the object `inherits` means for this object: the id
    /// itself, or the corresponding object under this node. Throws errors::tql with code 10 where
    /// none or more than one corresponds; `property` is for the text.
    [[nodiscard]] virtual NodeId translate_inherited(const NodeId& inherits, const NodeId& id,
                                                     uint32_t property) const = 0;
    /// The same for a set, from which ids without correspondence are dropped.
    [[nodiscard]] virtual std::vector<NodeId> translate_inherited_set(
        const NodeId& inherits, const std::vector<NodeId>& ids, uint32_t property) const = 0;

    /// For measuring how long a check takes.
    [[nodiscard]] virtual const platform::Clock& clock() const = 0;

    /// The origin of the parent, groups left out; none without a parent.
    [[nodiscard]] virtual std::optional<tql::origin_t> parent_origin() const = 0;
};

}  // namespace dbcache
