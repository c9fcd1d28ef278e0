#include "dbcache/stored_tree.h"

#include "mdb/index.h"
#include "mdb/object_store.h"
#include "tql/names.h"

namespace dbcache {

NodeId id_of(const mdb::dobj& object) {
    return get_value<mdb::PropertyNodeId>(object, prop::id);
}

uint32_t nodetype_of(const mdb::dobj& object) {
    return static_cast<uint32_t>(get_value<PropertyNodeType>(object, prop::nodeType));
}

StoredTree::StoredTree(const Store::Parts& parts) : StoredTree(parts.objects, parts.indexes) {}

std::optional<mdb::block_handle_t> StoredTree::find(const NodeId& id) {
    return indexes_.unique_find(mdb::node_id_index, id);
}

mdb::block_handle_t StoredTree::get(const NodeId& id) {
    return indexes_.unique_search(mdb::node_id_index, id);
}

std::vector<mdb::block_handle_t> StoredTree::children(const NodeId& id) {
    std::vector<mdb::block_handle_t> places;
    for (mdb::IndexIterator it = indexes_.non_unique_search(mdb::parent_id_index, id);
         it.at_searched_key(); indexes_.iterator_next(it))
        places.push_back(indexes_.iterator_value(it));
    return places;
}

mdb::dobj StoredTree::load(mdb::block_handle_t place) {
    return objects_.load_object(place);
}

mdb::block_handle_t StoredTree::rewrite(mdb::block_handle_t place,
                                        const std::vector<const mdb::Property*>& properties) {
    mdb::dobj image = objects_.begin_object_update(place);
    for (const mdb::Property* property : properties)
        objects_.update_property(image, *property, true, false);
    return objects_.commit_object_update(image);
}

mdb::block_handle_t StoredTree::drop(mdb::block_handle_t place, uint32_t property) {
    mdb::dobj image = objects_.begin_object_update(place);
    objects_.remove_property(image, property, true);
    return objects_.commit_object_update(image);
}

}  // namespace dbcache
