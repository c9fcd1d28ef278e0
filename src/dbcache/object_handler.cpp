#include "dbcache/object_handler.h"

#include <algorithm>
#include <fmt/format.h>
#include <typeinfo>

#include "dbcache/detail/damage.h"
#include "dbcache/detail/metrics.h"
#include "dbcache/detail/write_faults.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/group_handler.h"
#include "dbcache/inheritance.h"
#include "dbcache/mark_index.h"
#include "dbcache/object_view.h"
#include "dbcache/resolver.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "mdb/errors.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tqlengine/request_context.h"
#include "tqlengine/update_watcher.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

/// Reads a property that every stored object has.
void read_required(const PropertyChain& chain, mdb::Property& property) {
    if (chain.read(0, property) != found_t::value)
        throw mdb::error_implicit_nullprop(
            fmt::format("Attempt to read (I)null property \"{}\"", property.id), property.id);
}

tql::version_t to_version(const mdb::PropertyVersion& stored) {
    return {stored.value.sequence, stored.value.counter};
}

}  // namespace

// ---- coming and going --------------------------------------------------------------------------

ObjectHandler::ObjectHandler(Store& store, mdb::block_handle_t location)
    : TqlObjectHandler(0), store_(store), id_(prop::id), parent_(prop::parentId) {
    load(location);
    location_ = location;
    ++store_.live_;
}

ObjectHandler::ObjectHandler(Store& store, const NodeId& id, const NodeId& parent,
                             const NodetypeSchema& schema)
    : TqlObjectHandler(schema.tql_class),
      store_(store),
      id_(prop::id, id),
      parent_(prop::parentId, parent),
      schema_(&schema) {
    ++store_.live_;
}

ObjectHandler::~ObjectHandler() {
    leave_sibling_index();
    --store_.live_;
}

void ObjectHandler::load(mdb::block_handle_t location) {
    const InheritanceChain chain(store_, id_.value, location);
    read_required(chain, id_);
    read_required(chain, parent_);
    mdb::PropertyVersion stored(prop::version);
    read_required(chain, stored);
    version_ = to_version(stored);
    stored.id = prop::copyVersion;
    copy_version_ = chain.read(0, stored) == found_t::value ? to_version(stored) : version_;
    PropertyNodeType type(prop::nodeType);
    read_required(chain, type);
    schema_ = &store_.schemas().get(static_cast<uint32_t>(type.value));
    set_class_number(schema_->tql_class);
    subtype_ = schema_->subtypeFromChain(chain);
    enter_sibling_index(chain);
}

void ObjectHandler::move_to(mdb::block_handle_t location) {
    if (!location_.is_null()) store_.cache().cache_remove(location_, false);
    location_ = location;
    ascending_records_ = 0;
    if (!location_.is_null()) store_.cache().cache_insert(id_.value, location_, *this);
}

void ObjectHandler::enter_sibling_index(const PropertyChain& chain) {
    std::optional<std::string> name = schema_->siblingName(chain);
    const SiblingIndex::Key held = sibling_entry_.key();
    if (name && sibling_entry_.entered() && held.name == *name && held.parent == parent_.value)
        return;
    leave_sibling_index();
    if (name)
        store_.sibling_index().insert(sibling_entry_, parent_.value, class_number(),
                                      std::move(*name));
}

void ObjectHandler::tqlAddRef() {
    ++store_.referenced_;
}

void ObjectHandler::tqlRelease() noexcept {
    --store_.referenced_;
    if (watched()) logger.warning("Warning: unreferenced ObjectHandler still marked as watched");
    if (cache_queue() == CachedObject::none) delete this;
}

// ---- the tree ----------------------------------------------------------------------------------

ObjectHandlerRef ObjectHandler::parent_object() const {
    return parent_.value.is_null() ? ObjectHandlerRef{}
                                   : store_.resolver().find_stored(parent_.value);
}

tqlengine::HandlerRef ObjectHandler::tqlParentHandler() {
    ObjectHandlerRef parent = detail::with_faults_as_failures([&] { return parent_object(); });
    if (!parent) return {};
    const auto group = parent->schema().group_of_child(nodetype());
    if (!group) return parent;
    return tqlengine::HandlerRef(new GroupHandler(std::move(parent), *group));
}

bool ObjectHandler::surely_beside(const tqlengine::TqlObjectHandler& other) const {
    if (typeid(other) != typeid(ObjectHandler)) return false;
    const auto& sibling = static_cast<const ObjectHandler&>(other);
    // Of one nodetype, they are in the same group too.
    return sibling.parent_.value == parent_.value && sibling.schema_ == schema_;
}

tqlengine::HandlerRef ObjectHandler::tqlChild(uint32_t number) {
    const auto group_id = static_cast<int32_t>(number);
    if (!schema_->groups().contains(group_id)) return {};
    return tqlengine::HandlerRef(new GroupHandler(ObjectHandlerRef(this), group_id));
}

tqlengine::TqlIdResolver* ObjectHandler::tqlIdResolver() {
    return &store_.resolver();
}

tql::origin_t ObjectHandler::tqlOrigin() {
    const uint64_t epoch = store_.tree_epoch();
    if (origin_epoch_ == epoch) return origin_;
    return detail::with_faults_as_failures([&] {
        std::vector<ObjectHandlerRef> way;
        tqlengine::WayUp above{ObjectHandlerRef(this)};
        for (; above && above->origin_epoch_ != epoch; above.up()) way.push_back(above.ref());
        tql::origin_t origin;
        if (above) {
            origin = above->origin_;
        } else {
            origin = way.back()->origin_at_top();
            way.pop_back();
        }
        for (; !way.empty(); way.pop_back()) {
            ObjectHandler& at = *way.back();
            origin = at.schema_->tqlOrigin(ObjectView(at, origin));
            at.origin_ = origin;
            at.origin_epoch_ = epoch;
        }
        return origin;
    });
}

tql::origin_t ObjectHandler::origin_at_top() {
    if (id_.value == kRootId) return {tqlId(), {}, schema_->origin_type};
    return schema_->tqlOrigin(ObjectView(*this));  // detached; the schema says what that means
}

/// What is listed somewhere needn't be a child there.
tql::origin_t ObjectHandler::tqlOriginBelow(const tqlengine::TqlObjectHandler& above,
                                            const tql::origin_t& origin_above) {
    if (id_.value == kRootId || above.tqlId().to_node_id_lenient() != parent_.value)
        return tqlOrigin();
    return detail::with_faults_as_failures(
        [&] { return schema_->tqlOrigin(ObjectView(*this, origin_above)); });
}

WorkArray ObjectHandler::load_values() const {
    const InheritanceChain chain(store_, id_.value, location_);
    const auto entries = schema_->properties();
    WorkArray work(entries.size());
    for (size_t i = 0; i < work.size(); ++i)
        if (entries[i].applies_to(subtype_)) load_value(*entries[i].schema, chain, work[i]);
    return work;
}

/// A value of the wrong type must not keep an object from being deleted, nor others from being
/// written below it. A counter would go on from there, so that one does.
void ObjectHandler::load_value(const PropertySchema& schema, const PropertyChain& chain,
                               work_t& out) const {
    try {
        schema.load(chain, out);
    } catch (const mdb::error_wrongtype& fault) {
        if (schema.kept_by_system()) throw;
        detail::log_unreadable_value(schema.property, fault.text());
        schema.initial(out);
    }
}

// ---- reading -----------------------------------------------------------------------------------

void ObjectHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    out.reserve(pattern.wanted_properties.size());
    encode_into(pattern, out, [&](const PropertySchema& schema, const InheritanceChain& chain) {
        schema.encode(chain, id_.value, out);
    });
}

void ObjectHandler::encode_result(const tql::pattern_t& pattern, queues::ValueWriter& out) {
    tql::property_map_t others;
    encode_into(pattern, others, [&](const PropertySchema& schema, const InheritanceChain& chain) {
        schema.encode_result(chain, id_.value, out);
    });
    out.add(others);
}

std::optional<bool> ObjectHandler::holds_at_hand(const tql::condition_t& condition) const {
    const tql::property_t& wanted = *condition.value;
    if (wanted.property != prop::siblingName || condition.op != tql::relop_t::eq ||
        wanted.type() != tql::property_type_t::string || !sibling_entry_.entered() ||
        !schema_->stores_sibling_name())
        return std::nullopt;
    return !wanted.is_null &&
           static_cast<const tql::property_string_t&>(wanted).value == sibling_entry_.key().name;
}

/// Calls `encode` with the schema of each stored property that `pattern` wants, in ascending order,
/// and adds to `others` what else it wants.
template <class Encode>
void ObjectHandler::encode_into(const tql::pattern_t& pattern, tql::property_map_t& others,
                                Encode&& encode) {
    const meter::TimingScope timing(detail::metrics::encode_time, store_.clock());
    const char* doing = "encode";
    try {
        const InheritanceChain chain(store_, id_.value, location_, ascending_records_);
        if (encode_stored(chain, pattern, encode)) return;
        chain.make_copy();
        encode_of_chain(chain, pattern, others);
        doing = "computing";
        schema_->encodeSpecials(ObjectView(*this), chain, pattern, others);
    } catch (const mdb::error_generic& failure) {
        throw errors::tql(errors::ERR_BACKEND,
                          fmt::format("Error {} properties for {} {}: {}", doing,
                                      tql::class_name(class_number()), id_.value, failure.text()));
    }
}

/// Walks the sorted entries beside the sorted wanted numbers. True when nothing else is wanted.
template <class Encode>
bool ObjectHandler::encode_stored(const InheritanceChain& chain, const tql::pattern_t& pattern,
                                  Encode&& encode) const {
    const bool all = (pattern.flags & tql::kPatternAllProperties) != 0;
    auto wanted = pattern.wanted_properties.begin();
    const auto wanted_end = pattern.wanted_properties.end();
    size_t stored = 0;
    uint32_t last = 0;
    for (const NodetypeSchema::Entry& entry : schema_->properties()) {
        if (!all) {
            while (wanted != wanted_end && *wanted < entry.property) ++wanted;
            if (wanted == wanted_end) break;
            if (*wanted != entry.property) continue;
        }
        if (!entry.applies_to(subtype_)) continue;
        encode(*entry.schema, chain);
        stored += entry.property != last;
        last = entry.property;
    }
    return !all && stored == pattern.wanted_properties.size();
}

void ObjectHandler::encode_of_chain(const InheritanceChain& chain, const tql::pattern_t& pattern,
                                    tql::property_map_t& out) const {
    if (pattern.wants(prop::anyOverridden))
        tql::add<tql::property_boolean_t>(out, prop::anyOverridden, any_overridden(chain),
                                          kComputed);
    if (pattern.wants(prop::hasInherits) && schema_->lookupProperty(prop::inherits, subtype_))
        tql::add<tql::property_boolean_t>(out, prop::hasInherits, chain.hasParent(), kComputed);
}

bool ObjectHandler::any_overridden(const InheritanceChain& chain) const {
    if (!chain.hasParent()) return false;
    for (const NodetypeSchema::Entry& entry : schema_->properties()) {
        if (!entry.applies_to(subtype_) || entry.schema->has(kConst | kNoInheritance)) continue;
        work_t work;
        entry.schema->load(chain, work);
        // What stores no value has none of its own either.
        if (!work.is_inherited() && entry.schema->is_inheritable()) return true;
    }
    return false;
}

// ---- creating ----------------------------------------------------------------------------------

uint32_t ObjectHandler::tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                                  const tqlengine::WriteArguments& arguments) {
    const auto child = schema_->child_classes().find(child_class);
    if (child == schema_->child_classes().end())
        throw errors::tql(errors::ERR_ILLEGAL_CHILD,
                          fmt::format("{} not allowed as child of {}", tql::class_name(child_class),
                                      tql::class_name(class_number())));
    return create_child(new_id, store_.schemas().get(child->second), arguments);
}

uint32_t ObjectHandler::create_child(const tql::id_t& new_id, const NodetypeSchema& child_schema,
                                     const tqlengine::WriteArguments& arguments) try {
    if (deleted_) throw errors::tql(errors::ERR_NO_SUCH_ID, fmt::format("{} not found", id_.value));
    if (new_id.size() != 2 || is_reserved_id(new_id.to_node_id()))
        throw errors::tql(errors::ERR_ILLEGAL_VALUE,
                          fmt::format("Illegal id for a new object: \"{}\"", new_id.to_string()));
    const NodeId id = new_id.to_node_id();
    if (id.first > kMaxMarkFirstWord && child_schema.has_marks())
        throw errors::tql(errors::ERR_ILLEGAL_VALUE,
                          fmt::format("Illegal id for a new object: \"{}\", its first number must "
                                      "not be above {}",
                                      new_id.to_string(), kMaxMarkFirstWord));
    detail::with_faults_as_failures([&] {
        if (store_.indexes().unique_find(mdb::node_id_index, id))
            throw errors::tql_exists(new_id, new_id.to_string() + " exists already");
    });

    const ObjectHandlerRef child(new ObjectHandler(store_, id, id_.value, child_schema));
    tqlengine::TqlUpdateWatcher watcher(arguments.context.engine, child,
                                        tqlengine::watch_t::create);
    const uint32_t status = [&] {
        try {
            return child->tqlUpdate({child->copy_version_, arguments.new_version,
                                     arguments.properties, arguments.flags, arguments.context});
        } catch (const error::Exception&) {
            // There is no object to tell anybody of; the handler goes with its last reference.
            watcher.forget();
            throw;
        }
    }();
    watcher.close();
    error::check(child->reference_count() > 0, "New object {} lost its reference", id);
    return status;
} catch (const errors::tql& refused) {
    if (refused.code() != errors::ERR_BACKEND) detail::metrics::create_fails.increment();
    throw;
}

// ---- records that the system keeps --------------------------------------------------------------

void ObjectHandler::rewrite_records(const ImageChange& change) {
    // First of all: from here on an abort, whatever it comes from, brings the handler back.
    store_.touch(*this);
    struct Return {
        ObjectHandler& handler;
        const mdb::block_handle_t before = handler.location_;
        ~Return() {
            if (!handler.is_stored()) handler.move_to(before);
        }
    } const unless_done{*this};
    mdb::ObjectStore& objects = store_.objects();
    move_to({});  // the store refuses to touch an object that the cache holds
    mdb::dobj image = objects.begin_object_update(unless_done.before);
    change(objects, image);
    move_to(objects.commit_object_update(image));
    ++rewrites_;
}

// ---- validating again --------------------------------------------------------------------------

void ObjectHandler::revalidate_own(tqlengine::RevalidationFailures& failures) {
    const InheritanceChain chain(store_, id_.value, location_);
    WorkArray work = load_values();
    collect_failures(ObjectView(*this), chain, work, failures);
}

/// Of a node only what is active.
void ObjectHandler::list_revalidated(tqlengine::HandlerList& out) {
    if (class_number() != cls::Node || !schema_->lookupProperty(prop::activeMark, subtype_)) {
        TqlObjectHandler::list_revalidated(out);
        return;
    }
    MarkIndex(store_, prop::activeMark).traverse(out, id_.value);
    std::erase_if(out, [this](const tqlengine::HandlerRef& one) { return one.get() == this; });
}

void ObjectHandler::collect_failures(const SchemaObject& view, const PropertyChain& chain,
                                     WorkArray& work,
                                     tqlengine::RevalidationFailures& failures) const {
    const auto entries = schema_->properties();
    const uint32_t subtype = schema_->subtype(view, work);
    for (size_t i = 0; i < entries.size(); ++i) {
        if (!entries[i].applies_to(subtype) || entries[i].property == prop::parentId) continue;
        try {
            entries[i].schema->validate(view, chain, work[i]);
        } catch (const errors::tql&) {
            // What is active below something active comes twice.
            const tqlengine::RevalidationFailure failure{tqlId(), entries[i].property};
            if (std::find(failures.begin(), failures.end(), failure) == failures.end())
                failures.push_back(failure);
        }
    }
}

tql::id_t ObjectHandler::tqlId() const {
    return tql::id_t::from_node_id(id_.value);
}

}  // namespace dbcache
