// ObjectHandler: the in-memory handle of one stored object, and the only way to change one. It
// stands between the query engine, whose interface it implements, and the store; what it does with
// a property it leaves to the object's schema.
//
//   load / create --> in step with the stored object --tqlDelete--> gone, until the last reference
//                       ^                |
//                       +---tqlUpdate----+
//
// A handler is kept by the object cache for as long as that wants, referenced or not, and is never
// ahead of the stored object: a change that fails leaves handler, cache, sibling index and file as
// they were. Who holds no reference must not keep the pointer over any other call.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>

#include "dbcache/nodetype_schema.h"
#include "dbcache/object_cache.h"
#include "dbcache/sibling_index.h"
#include "dbcache/store.h"
#include "mdb/property_types.h"
#include "tqlengine/object_handler.h"
#include "tqlengine/way_up.h"

namespace mdb {
struct dobj;
class ObjectStore;
}  // namespace mdb

namespace tqlengine {
class ClassSet;
}

namespace dbcache {

class InheritanceChain;

/// A number of a nodetype as objects store it in property 3.
enum class node_type_t : uint32_t {};

using PropertyNodeType = mdb::PropertyEnum<node_type_t>;

/// The tree may be of any depth: nothing recurses over it, neither down nor up. What climbs costs a
/// step for each object above, so that depth makes writes dear to nobody but those below.
class ObjectHandler final : public tqlengine::TqlObjectHandler, public CachedObject {
  public:
    /// Loads the object at `location`. Throws mdb::error_generic and ENoSchema; the handler is in
    /// no cache then. The caller enters it in the cache.
    ObjectHandler(Store& store, mdb::block_handle_t location);
    /// A new object, not stored yet.
    ObjectHandler(Store& store, const NodeId& id, const NodeId& parent,
                  const NodetypeSchema& schema);
    ~ObjectHandler() override;

    [[nodiscard]] const NodeId& node_id() const noexcept { return id_.value; }
    /// Null for the root.
    [[nodiscard]] const NodeId& parent_id() const noexcept { return parent_.value; }
    [[nodiscard]] const tql::version_t& version() const noexcept { return version_; }
    [[nodiscard]] uint32_t nodetype() const noexcept { return schema_->nodetype; }
    [[nodiscard]] uint32_t subtype() const noexcept { return subtype_; }
    [[nodiscard]] const NodetypeSchema& schema() const noexcept { return *schema_; }
    [[nodiscard]] Store& store() const noexcept { return store_; }
    /// Where the present version lies; null for an object not stored yet.
    [[nodiscard]] mdb::block_handle_t location() const noexcept { return location_; }
    [[nodiscard]] bool is_stored() const noexcept { return !location_.is_null(); }

    /// The object that `parent` names, groups left out; empty for the root and where nothing is
    /// stored under that id.
    [[nodiscard]] ObjectHandlerRef parent_object() const;

    /// The values of the object as it is stored; those of other subtypes stay empty. A record of a
    /// wrong type is logged and reads as the start value. Throws mdb::error_generic.
    [[nodiscard]] WorkArray load_values() const;

    // ---- tqlengine::TqlObjectHandler ------------------------------------------------------------

    [[nodiscard]] tql::id_t tqlId() const override;
    [[nodiscard]] tql::version_t tqlVersion() const override { return copy_version_; }
    [[nodiscard]] tql::origin_t tqlOrigin() override;
    [[nodiscard]] tql::origin_t tqlOriginBelow(const tqlengine::TqlObjectHandler& above,
                                               const tql::origin_t& origin_above) override;
    void tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t& pattern) override;
    tqlengine::HandlerRef tqlChild(uint32_t number) override;
    /// The group of the parent under which this object stands, where there is one.
    tqlengine::HandlerRef tqlParentHandler() override;
    [[nodiscard]] bool surely_beside(const tqlengine::TqlObjectHandler& other) const override;
    tqlengine::TqlIdResolver* tqlIdResolver() override;
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;
    /// The name among the siblings, where the index of them has it.
    [[nodiscard]] std::optional<bool> holds_at_hand(
        const tql::condition_t& condition) const override;
    void encode_result(const tql::pattern_t& pattern, queues::ValueWriter& out) override;
    uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                       const tqlengine::WriteArguments& arguments) override;
    /// Besides errors::tql: mdb::error_io and mdb::error_internal, which end the process. All other
    /// faults of the store become code 14.
    uint32_t tqlUpdate(const tqlengine::WriteArguments& arguments) override;
    void tqlDelete(const tqlengine::DeleteArguments& arguments) override;
    void list_revalidated(tqlengine::HandlerList& out) override;
    void revalidate_own(tqlengine::RevalidationFailures& failures) override;

    // ---- for the rest of the object layer -------------------------------------------------------

    /// Creates a child of the class with `child_schema`; for an object and its groups.
    uint32_t create_child(const tql::id_t& new_id, const NodetypeSchema& child_schema,
                          const tqlengine::WriteArguments& arguments);
    /// Lists the children whose nodetype is in `nodetypes` and that `pattern` can match, and ahead
    /// of them the templates of `child_classes`, nodetypes by class, as children of `place`: of
    /// this object or one of its groups. Children of a class that no longer stands under this one
    /// are deleted from the store on the way.
    void list_children(const std::map<uint32_t, uint32_t>& child_classes,
                       const std::set<uint32_t>& nodetypes, tqlengine::TqlObjectHandler& place,
                       const tql::pattern_t& pattern, tqlengine::HandlerList& out);

    /// Gets the image of a stored object; changes it by update_property() and remove_property().
    using ImageChange = std::function<void(mdb::ObjectStore&, mdb::dobj&)>;
    /// Changes records that the system keeps, marks and counters, beside any update of the object:
    /// writes what `change` makes of it in the open transaction, which the caller has, and puts the
    /// handler back into the cache at its new place. Versions, class and names stay. The caller
    /// holds a reference to the handler; an abort brings it back to what is stored then. While
    /// `change` runs the handler is in no cache, so it must look for no object. Throws
    /// mdb::error_generic.
    void rewrite_records(const ImageChange& change);

    [[nodiscard]] uint32_t cache_references() const noexcept override { return reference_count(); }

  protected:
    void tqlAddRef() override;
    void tqlRelease() noexcept override;

  private:
    friend class DeleteOperation;
    friend class HandlerRollback;
    friend class DbcacheIdResolver;
    friend class Store;
    friend class UpdateOperation;

    /// Takes all fields but the location from the object at `location` and enters the sibling
    /// index.
    void load(mdb::block_handle_t location);
    /// Takes the handler out of the cache and enters it again under `location`, unless that is
    /// null.
    void move_to(mdb::block_handle_t location);
    /// The entry of the sibling index becomes that of the name that `chain` gives.
    void enter_sibling_index(const PropertyChain& chain);
    void leave_sibling_index() noexcept { store_.sibling_index().erase(sibling_entry_); }
    template <class Encode>
    void encode_into(const tql::pattern_t& pattern, tql::property_map_t& others, Encode&& encode);
    template <class Encode>
    bool encode_stored(const InheritanceChain& chain, const tql::pattern_t& pattern,
                       Encode&& encode) const;
    /// Adds the properties that come of the chain as a whole, not of one record.
    void encode_of_chain(const InheritanceChain& chain, const tql::pattern_t& pattern,
                         tql::property_map_t& out) const;
    [[nodiscard]] bool any_overridden(const InheritanceChain& chain) const;
    /// The origin of an object that has no parent.
    [[nodiscard]] tql::origin_t origin_at_top();
    void load_value(const PropertySchema& schema, const PropertyChain& chain, work_t& out) const;
    void list_groups(const tql::pattern_t& pattern, tqlengine::HandlerList& out);
    void list_templates(const std::map<uint32_t, uint32_t>& child_classes,
                        const tqlengine::ClassSet& classes, tqlengine::TqlObjectHandler& place,
                        tqlengine::HandlerList& out);
    void list_stored(const std::set<uint32_t>& nodetypes, const tqlengine::ClassSet& classes,
                     const tql::pattern_t& pattern, tqlengine::HandlerList& out);
    void discard_strays(const std::vector<ObjectHandlerRef>& strays);
    /// Validates each value in `work` and adds those that fail.
    void collect_failures(const SchemaObject& view, const PropertyChain& chain, WorkArray& work,
                          tqlengine::RevalidationFailures& failures) const;

    Store& store_;
    mdb::block_handle_t location_{};
    mdb::PropertyNodeId id_;
    mdb::PropertyNodeId parent_;
    tql::version_t version_;
    tql::version_t copy_version_;
    const NodetypeSchema* schema_ = nullptr;
    uint32_t subtype_ = kAllSubtypes;
    bool deleted_ = false;
    /// A write to the object has a transaction open, and takes back the fields itself on an abort.
    bool in_write_ = false;
    /// Grows with each rewrite_records().
    uint32_t rewrites_ = 0;
    /// How far the stored records ascend, for ObjectRecord::assign().
    uint32_t ascending_records_ = 0;
    /// Nothing stands below the object, nor ever will.
    bool childless_ = false;
    SiblingIndex::Entry sibling_entry_{*this};
    /// The store's tree epoch in which the object was last seen to hang together with the root.
    uint64_t attached_epoch_ = 0;
    /// The origin, as it was in that epoch.
    tql::origin_t origin_;
    uint64_t origin_epoch_ = 0;
};

/// For tqlengine::WayUp: a climb over objects leaves out their groups.
inline ObjectHandlerRef parent_of(ObjectHandler& object) {
    return object.parent_object();
}

}  // namespace dbcache
