// StoredTree: the tree as its records lie in the store, without classes, handlers or cache. For
// work at start that has to go over many objects, of nodetypes that may have no schema: mark lists,
// counters, conversions. Not for anything while requests are served: what it changes, a cached
// handler would not know.
#pragma once

#include <optional>
#include <vector>

#include "dbcache/object_handler.h"
#include "dbcache/store.h"
#include "mdb/dobj.h"
#include "mdb/errors.h"
#include "mdb/property_types.h"

namespace dbcache {

/// The value of property `id`, of class P, in `object`; none for either kind of null. Throws
/// mdb::error_wrongtype, mdb::error_need_repair.
template <class P>
[[nodiscard]] std::optional<typename P::value_t> find_value(const mdb::dobj& object, uint32_t id) {
    for (const mdb::RecordView record : mdb::ObjectRecords(object)) {
        if (record.id() != id) continue;
        P property(id);
        if (record.type_id() == property.type_id() && record.is_null()) return std::nullopt;
        property.read_record(record, object.handle());
        return std::move(property.value);
    }
    return std::nullopt;
}

/// The same; mdb::error_implicit_nullprop or mdb::error_explicit_nullprop for a null.
template <class P>
[[nodiscard]] typename P::value_t get_value(const mdb::dobj& object, uint32_t id) {
    P property(id);
    property.read(object);
    return std::move(property.value);
}

/// The object's own id and nodetype; mdb::error_nullprop when it has none.
[[nodiscard]] NodeId id_of(const mdb::dobj& object);
[[nodiscard]] uint32_t nodetype_of(const mdb::dobj& object);

class StoredTree {
  public:
    explicit StoredTree(const Store::Parts& parts);
    StoredTree(mdb::ObjectStore& objects, mdb::IndexTable& indexes)
        : objects_(objects), indexes_(indexes) {}

    /// Where the object lies until it is changed itself; changes of others don't move it.
    [[nodiscard]] std::optional<mdb::block_handle_t> find(const NodeId& id);
    /// The same; throws mdb::error_nomatch.
    [[nodiscard]] mdb::block_handle_t get(const NodeId& id);

    /// Places of the children in the order of the parent index, each right until the child itself
    /// is changed. Costs 8 bytes for each child.
    [[nodiscard]] std::vector<mdb::block_handle_t> children(const NodeId& id);

    /// A private copy with the changes of the open transaction. Throws mdb::error_need_repair when
    /// no object is there.
    [[nodiscard]] mdb::dobj load(mdb::block_handle_t place);
    [[nodiscard]] mdb::dobj load(const NodeId& id) { return load(get(id)); }

    /// Replaces the records of these properties, or adds them, and leaves all others as they are.
    /// One transaction, asynchronous, or part of the open one. Returns where the object lies now.
    /// Throws what mdb::ObjectStore::commit_object_update() throws; nothing is changed then.
    mdb::block_handle_t rewrite(mdb::block_handle_t place,
                                const std::vector<const mdb::Property*>& properties);
    /// Takes the record of a property out, if there is one; otherwise as rewrite().
    mdb::block_handle_t drop(mdb::block_handle_t place, uint32_t property);

  private:
    mdb::ObjectStore& objects_;
    mdb::IndexTable& indexes_;
};

}  // namespace dbcache
