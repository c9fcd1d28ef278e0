// Creating and updating an object.
#include <fmt/format.h>

#include "dbcache/accounting.h"
#include "dbcache/detail/large_objects.h"
#include "dbcache/detail/record_writer.h"
#include "dbcache/detail/update_operation.h"
#include "dbcache/detail/write_faults.h"
#include "dbcache/property_kinds.h"
#include "dbcache/resolver.h"
#include "dbcache/special_kinds.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/object_store.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tqlengine/request_context.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

[[noreturn]] void fail_parent() {
    fail_illegal_value("Illegal value given for parentId property");
}

/// "ID:PROPERTY ID:PROPERTY".
std::string failures_text(const tqlengine::RevalidationFailures& failures) {
    std::string text;
    for (const tqlengine::RevalidationFailure& failure : failures)
        text += fmt::format("{}{}:{}", text.empty() ? "" : " ", failure.id.to_string(),
                            tql::property_name(failure.property));
    return text;
}

}  // namespace

uint32_t ObjectHandler::tqlUpdate(const tqlengine::WriteArguments& arguments) {
    if (deleted_) throw errors::tql(errors::ERR_NO_SUCH_ID, fmt::format("{} not found", id_.value));
    return detail::with_faults_as_failures([&] { return UpdateOperation(*this, arguments).run(); });
}

UpdateOperation::UpdateOperation(ObjectHandler& handler, const tqlengine::WriteArguments& arguments)
    : handler_(handler),
      schema_(handler.schema()),
      arguments_(arguments),
      rollback_(handler),
      view_(handler, arguments.context.user),
      chain_(handler.store(), handler.node_id(), handler.location()),
      work_(schema_.properties().size()),
      rewrites_(handler.rewrites_) {}

uint32_t UpdateOperation::run() {
    check_version();
    load_values();
    apply_inherits();
    apply_subtype_properties();
    subtype_ = schema_.subtype(view_, work_);
    apply_properties();
    apply_slave_build();
    end_copy();
    validate();
    subtype_ = schema_.subtype(view_, work_);

    const NodeId old_parent = handler_.parent_id();
    open_transaction();
    update_marks_now(old_parent);
    take_versions();
    schema_.afterUpdate(handler_, arguments_.context, work_);
    refresh_kept_values();
    update_marks(handler_.parent_id());
    serialise();
    store();
    schema_.afterStore(handler_);
    rollback_.commit();
    if (!new_parent_.is_null()) note_move();

    error::check(handler_.watched(), "TQL handler modified while not watched");
    renew_sibling_entry();
    return ignored_ ? tqlengine::kStatusPropertyIgnored : 0;
}

// ---- the values as they stand ------------------------------------------------------------------

void UpdateOperation::check_version() const {
    if (!is_new() && arguments_.version != handler_.copy_version_)
        throw errors::tql(errors::ERR_VERSION, "Someone else has updated the object");
}

void UpdateOperation::load_values() {
    const auto entries = schema_.properties();
    for (size_t i = 0; i < entries.size(); ++i) {
        if (is_new())
            entries[i].schema->initial(work_[i]);
        else if (entries[i].applies_to(handler_.subtype()))
            entries[i].schema->load(chain_, work_[i]);
        else
            load_other_subtype(i);
    }
    if (!is_new()) use_before_ = get_use(handler_, work_);
}

/// What another subtype would find in the object, should the update turn it into that.
void UpdateOperation::load_other_subtype(size_t index) {
    const PropertySchema& schema = *schema_.properties()[index].schema;
    try {
        schema.load(chain_, work_[index]);
    } catch (const mdb::error_wrongtype&) {
        schema.initial(work_[index]);
    }
}

bool UpdateOperation::is_given(uint32_t number) const {
    for (const tql::value_t& value : arguments_.properties)
        if (value->property == number) return true;
    return false;
}

void UpdateOperation::assign(size_t index, const tql::property_t& value) {
    schema_.properties()[index].schema->assign(value, view_, chain_, work_[index]);
}

// ---- the values given --------------------------------------------------------------------------

void UpdateOperation::apply_inherits() {
    const std::optional<size_t> index = schema_.lookupProperty(prop::inherits, kAllSubtypes);
    if (!index) return;  // a class without it: a property that it doesn't have
    for (const tql::value_t& value : arguments_.properties) {
        if (value->property != prop::inherits) continue;
        if (value->type() != tql::property_type_t::object)
            throw errors::tql(errors::ERR_ILLEGAL_TYPE, "Type mismatch for property inherits");
        const bool had_parent = chain_.hasParent();
        assign(*index, *value);
        const work_t& work = work_[*index];
        const NodeId parent =
            work.is_null() ? NodeId{} : static_cast<mdb::PropertyNodeId&>(*work.prop).value;
        chain_.override_parent(parent);
        if (!had_parent && !parent.is_null()) inherit_all();
        if (had_parent && parent.is_null())
            for (work_t& own : work_)
                if (&own != &work) own.flags = 0;  // `inherits` itself was given just now
    }
}

void UpdateOperation::inherit_all() {
    const auto entries = schema_.properties();
    for (size_t i = 0; i < entries.size(); ++i)
        if (!entries[i].schema->has(kConst | kNoInheritance)) work_[i].set_inherited(true);
}

void UpdateOperation::apply_subtype_properties() {
    for (const tql::value_t& value : arguments_.properties) {
        const std::optional<size_t> index = schema_.subtypeProperty(value->property);
        if (!index) continue;
        assign(*index, *value);
        schema_.properties()[*index].schema->validate(view_, chain_, work_[*index]);
    }
    // The parent may have become something else since, or be another one now.
    const auto entries = schema_.properties();
    for (size_t i = 0; i < entries.size(); ++i)
        if (entries[i].determines_subtype && work_[i].is_inherited())
            entries[i].schema->validate(view_, chain_, work_[i]);
}

void UpdateOperation::apply_properties() {
    for (const tql::value_t& value : arguments_.properties) {
        const uint32_t number = value->property;
        const bool done_before =
            schema_.subtypeProperty(number) ||
            (number == prop::inherits && schema_.lookupProperty(prop::inherits, kAllSubtypes));
        if (done_before) continue;
        if (number == prop::checkName && schema_.nodetype == nodetype::AgentCheck)
            apply_check_name(*value);
        else
            apply_property(*value);
    }
}

void UpdateOperation::apply_check_name(const tql::property_t& value) {
    if (!is_given(prop::agentId)) apply_to(prop::agentId, value);
    apply_to(prop::name, value);
}

void UpdateOperation::apply_to(uint32_t number, const tql::property_t& value) {
    if (const std::optional<size_t> index = schema_.lookupProperty(number, subtype_))
        assign(*index, value);
    else
        skip_unknown(number);
}

void UpdateOperation::apply_property(const tql::property_t& value) {
    const std::optional<size_t> index = schema_.lookupProperty(value.property, subtype_);
    if (!index) {
        skip_unknown(value.property);
    } else if (value.property == prop::copyVersion && !value.is_null) {
        take_copy_version(*index, value);
    } else if (value.property == prop::slaveBuild) {
        slave_build_ = &value;
    } else {
        assign(*index, value);
        if (value.property == prop::parentId) take_new_parent(value);
    }
}

void UpdateOperation::skip_unknown(uint32_t number) {
    if ((arguments_.flags & tqlengine::kIgnoreUnknownProperties) == 0)
        throw errors::tql(
            errors::ERR_NO_SUCH_PROPERTY,
            fmt::format("Attempted update of unknown property \"{}\"", tql::property_name(number)));
    ignored_ = true;
}

/// The requester says which version of the original this object now is a copy of; the empty version
/// stands for the new one.
void UpdateOperation::take_copy_version(size_t index, const tql::property_t& value) {
    assign(index, value);
    if (work_[index].is_null())  // a request to inherit
        fail_illegal_value("Property copyVersion does not allow inheritance");
    auto& stored = static_cast<mdb::PropertyVersion&>(*work_[index].prop);
    if (stored.value == mdb::StoredVersion{})
        stored.value = {arguments_.new_version.ring_sequence, arguments_.new_version.counter};
    handler_.copy_version_ = {stored.value.sequence, stored.value.counter};
    sets_copy_version_ = true;
}

void UpdateOperation::take_new_parent(const tql::property_t& value) {
    if (value.is_null) fail_illegal_value("Null given for parentId property");
    // A request to inherit has passed without a look at its kind.
    if (value.type() != tql::property_type_t::object) fail_parent();
    const NodeId id = static_cast<const tql::property_object_t&>(value).value.to_node_id();
    if (id == handler_.parent_id()) return;
    const ObjectHandlerRef parent = handler_.store().resolver().find_object(id);
    if (!parent || !parent->schema().all_children().contains(schema_.nodetype)) fail_parent();
    // Below itself the object would be cut off from the tree with all that it has.
    for (tqlengine::WayUp at(parent); at; at.up())
        if (at->node_id() == handler_.node_id()) fail_parent();
    new_parent_ = id;
}

/// A peer's build is noted only when the peer sent something that this server doesn't know.
void UpdateOperation::apply_slave_build() {
    if (slave_build_ == nullptr) return;
    const size_t index = schema_.findProperty(prop::slaveBuild, subtype_);
    assign(index, *slave_build_);
    if (!ignored_) work_[index].prop.reset();
}

/// A local change ends the object's being a copy of anything.
void UpdateOperation::end_copy() {
    if (sets_copy_version_) return;
    const std::optional<size_t> index = schema_.lookupProperty(prop::copyVersion, subtype_);
    if (!index)
        throw errors::tql(errors::ERR_NO_SUCH_PROPERTY, "Did not find property copyVersion");
    assign(*index, tql::property_version_t::null(prop::copyVersion));
}

void UpdateOperation::validate() {
    const auto entries = schema_.properties();
    for (size_t i = 0; i < entries.size(); ++i)
        if (entries[i].applies_to(subtype_) && entries[i].property != prop::parentId)
            entries[i].schema->validate(view_, chain_, work_[i]);
    schema_.validate(view_, chain_, work_, new_parent_);
}

// ---- in the transaction ------------------------------------------------------------------------

void UpdateOperation::open_transaction() {
    const UseMap use_after = get_use(handler_, work_);
    if (new_parent_.is_null())
        rollback_.begin(accountParent(handler_, get_use_diff(use_before_, use_after)));
    else
        move(use_after);
}

/// What the object counted for leaves the old ancestors, what it counts for now reaches the new
/// ones.
void UpdateOperation::move(const UseMap& use_after) {
    rollback_.begin(accountParent(handler_, get_use_diff(use_before_, {})));
    handler_.parent_.value = new_parent_;
    handler_.store().advance_tree_epoch();
    accountParent(handler_, use_after)->commit();
    revalidate_moved();
}

/// The subtree is validated where it is about to stand; the object itself with its new values.
void UpdateOperation::revalidate_moved() {
    tqlengine::RevalidationFailures failures;
    tqlengine::HandlerList below;
    handler_.list_revalidated(below);
    for (const tqlengine::HandlerRef& object : below) object->tqlRevalidate(failures);
    handler_.collect_failures(view_, chain_, work_, failures);
    if (!failures.empty())
        throw errors::tql(errors::ERR_ACCESS_DENIED,
                          fmt::format("MOVE_ERR{{{}}}", failures_text(failures)));
}

/// Brings the object's places in the mark lists up to date, from `marks_` as stored.
void UpdateOperation::update_marks(const NodeId& old_parent) {
    for (size_t i = 0; i < kMarks.size(); ++i)
        MarkIndex(handler_.store(), kMarks[i])
            .update(is_member(kMarks[i]), handler_.parent_id(), old_parent, marks_[i],
                    handler_.node_id());
}

/// The same for an object that others can already find: its own records are written at once, so
/// that the hooks and what they write meet whole lists.
void UpdateOperation::update_marks_now(const NodeId& old_parent) {
    if (is_new()) return;
    marks_ = read_marks(chain_);
    refresh_kept_values();
    const MarkRecords before = marks_;
    update_marks(old_parent);
    if (marks_ == before) return;
    handler_.rewrite_records([this](mdb::ObjectStore& objects, mdb::dobj& image) {
        for (size_t i = 0; i < kMarks.size(); ++i)
            if (marks_[i])
                objects.update_property(image, mdb::PropertyMarkIndex(kMarks[i], *marks_[i]), true,
                                        false);
            else
                objects.remove_property(image, kMarks[i], true);
    });
}

bool UpdateOperation::is_member(uint32_t mark) const {
    const std::optional<size_t> index = schema_.lookupProperty(mark, subtype_);
    if (!index) return false;
    const auto* entry =
        dynamic_cast<const PropertyMarkIndexSchema*>(schema_.properties()[*index].schema.get());
    return entry != nullptr && entry->is_member(handler_, work_);
}

void UpdateOperation::note_move() {
    if (schema_.tql_class == cls::Node) handler_.store().moved_nodes().insert(handler_.node_id());
}

void UpdateOperation::take_versions() {
    handler_.version_ = arguments_.new_version;
    if (!sets_copy_version_) handler_.copy_version_ = arguments_.new_version;
}

/// What a hook has written may have changed the marks and counters of this object too.
void UpdateOperation::refresh_kept_values() {
    if (is_new() || handler_.rewrites_ == rewrites_) return;
    const InheritanceChain stored(handler_.store(), handler_.node_id(), handler_.location());
    marks_ = read_marks(stored);
    const auto entries = schema_.properties();
    for (size_t i = 0; i < entries.size(); ++i)
        if (entries[i].schema->kept_by_system() && entries[i].applies_to(handler_.subtype()))
            entries[i].schema->load(stored, work_[i]);
}

void UpdateOperation::serialise() {
    RecordWriter writer(handler_.store().database());
    writer.add_head(handler_.node_id(), handler_.parent_id(), handler_.version(), schema_.nodetype);
    const auto entries = schema_.properties();
    for (size_t i = 0; i < entries.size(); ++i)
        if (entries[i].applies_to(subtype_) && entries[i].property != prop::parentId &&
            !is_mark(entries[i].property))
            store_value(i, writer);
    if (!is_new())
        detail::free_large_objects(handler_.store().database(), schema_, chain_, subtype_);
    for (size_t i = 0; i < kMarks.size(); ++i)
        if (marks_[i]) writer.add(mdb::PropertyMarkIndex(kMarks[i], *marks_[i]));
}

void UpdateOperation::store_value(size_t index, RecordWriter& writer) {
    const PropertySchema& schema = *schema_.properties()[index].schema;
    work_t old;
    // Only a value with storage of its own has to know what it replaces.
    const bool owns_storage =
        schema.has_backend() || dynamic_cast<const PropertyLobSchema*>(&schema) != nullptr;
    if (owns_storage && !is_new()) schema.load(chain_, old);
    schema.store(handler_.node_id(), chain_, work_[index], old, writer);
}

void UpdateOperation::store() {
    Store& store = handler_.store();
    const mdb::block_handle_t old_location = handler_.location();
    // The store refuses to touch an object that the cache holds.
    store.cache().cache_remove(old_location, false);
    const mdb::block_handle_t location = store.objects().store_object(old_location);
    handler_.move_to(location);
    handler_.subtype_ = subtype_;
    note_key();
}

/// In the transaction, before a hook can create a sibling of this object.
void UpdateOperation::note_key() {
    Store& store = handler_.store();
    if (!store.sibling_keys().knows(handler_.parent_id())) return;
    const InheritanceChain stored(store, handler_.node_id(), handler_.location());
    store.sibling_keys().note(handler_.parent_id(), handler_.node_id(), handler_.class_number(),
                              stored);
}

void UpdateOperation::renew_sibling_entry() {
    try {
        const InheritanceChain chain(handler_.store(), handler_.node_id(), handler_.location());
        handler_.enter_sibling_index(chain);
    } catch (const mdb::error_generic& fault) {
        // The update is done; without an entry the object is found by a walk.
        handler_.leave_sibling_index();
        logger.warning("Warning: {}", fault.text());
    }
}

}  // namespace dbcache
