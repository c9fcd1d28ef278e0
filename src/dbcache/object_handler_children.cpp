// Listing the children of an object.
#include "dbcache/detail/child_walk.h"
#include "dbcache/detail/metrics.h"
#include "dbcache/detail/write_faults.h"
#include "dbcache/group_handler.h"
#include "dbcache/mark_index.h"
#include "dbcache/object_handler.h"
#include "dbcache/object_view.h"
#include "dbcache/template_handler.h"
#include "error/exception.h"
#include "log/log.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tqlengine/level_classes.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

/// The value of the step's condition that `property` equals it; null without one. Of a recursive
/// step the conditions don't hold for all that it leads to.
template <class Kind>
const Kind* equal_condition(const tql::pattern_t& pattern, uint32_t property) {
    if ((pattern.flags & tql::kPatternRecursive) != 0) return nullptr;
    for (const tql::condition_t& condition : pattern.where)
        if (condition.op == tql::relop_t::eq && condition.value &&
            condition.value->property == property && condition.value->type() == Kind::kType &&
            !condition.value->is_null)
            return static_cast<const Kind*>(condition.value.get());
    return nullptr;
}

bool wants_active_only(const tql::pattern_t& pattern) {
    const auto* active = equal_condition<tql::property_boolean_t>(pattern, prop::active);
    return active != nullptr && active->value;
}

}  // namespace

void ObjectHandler::tqlChildrenHandlers(tqlengine::HandlerList& out,
                                        const tql::pattern_t& pattern) {
    error::check(out.empty(), "Output list not empty upon entry in tqlChildrenHandlres()");
    if (schema_->childrenHook(*this, pattern, out)) return;
    list_groups(pattern, out);
    list_children(schema_->child_classes(), schema_->direct_children(), *this, pattern, out);
}

void ObjectHandler::list_groups(const tql::pattern_t& pattern, tqlengine::HandlerList& out) {
    if (schema_->groups().empty()) return;
    const tqlengine::LevelClasses classes(pattern);
    for (const auto& [group_id, group] : schema_->groups())
        if (classes.objects().admits(group.tql_class))
            out.push_back(
                tqlengine::HandlerRef(new GroupHandler(ObjectHandlerRef(this), group_id)));
}

void ObjectHandler::list_children(const std::map<uint32_t, uint32_t>& child_classes,
                                  const std::set<uint32_t>& nodetypes,
                                  tqlengine::TqlObjectHandler& place, const tql::pattern_t& pattern,
                                  tqlengine::HandlerList& out) {
    if (!is_stored()) return;
    detail::metrics::children.increment();
    const tqlengine::LevelClasses classes(pattern);
    if (!classes.templates().empty())
        list_templates(child_classes, classes.templates(), place, out);
    if (!classes.objects().empty()) list_stored(nodetypes, classes.objects(), pattern, out);
    detail::metrics::children_count.increment(out.size());
}

void ObjectHandler::list_templates(const std::map<uint32_t, uint32_t>& child_classes,
                                   const tqlengine::ClassSet& classes,
                                   tqlengine::TqlObjectHandler& place,
                                   tqlengine::HandlerList& out) {
    detail::with_faults_as_failures([&] {
        TemplateHandler::list(
            {tqlengine::HandlerRef(&place), ObjectHandlerRef(this), store_}, child_classes, classes,
            [view = ObjectView(*this)](const NodetypeSchema& schema,
                                       std::vector<TemplateValues>& templates) {
                schema.listTemplates(view, templates);
            },
            out);
    });
}

void ObjectHandler::list_stored(const std::set<uint32_t>& nodetypes,
                                const tqlengine::ClassSet& classes, const tql::pattern_t& pattern,
                                tqlengine::HandlerList& out) {
    if (childless_) return;
    const auto* name = equal_condition<tql::property_string_t>(pattern, prop::siblingName);
    if (name != nullptr && pattern.class_ != cls::Any) {
        ObjectHandler* found =
            store_.sibling_index().find({id_.value, pattern.class_, name->value});
        if (found != nullptr && nodetypes.contains(found->nodetype())) {
            out.emplace_back(found);
            return;
        }
    }
    const bool active_only =
        wants_active_only(pattern) && store_.indexes().index_count() > mdb::active_parent_index;
    const uint32_t index = active_only ? mdb::active_parent_index : mdb::parent_id_index;
    std::vector<ObjectHandlerRef> strays;
    const auto sort_child = [&](ObjectHandlerRef child) {
        const uint32_t child_nodetype = child->nodetype();
        if (nodetypes.contains(child_nodetype)) {
            if (classes.admits(child->class_number())) out.push_back(std::move(child));
        } else if (!schema_->all_children().contains(child_nodetype)) {
            strays.push_back(std::move(child));
        }
        return true;
    };
    detail::with_faults_as_failures(
        [&] { detail::walk_children(store_, id_.value, index, sort_child); });
    // Where the class takes no children only strays of an older version can be, and none come.
    childless_ = !active_only && strays.empty() && schema_->all_children().empty();
    discard_strays(strays);
}

void ObjectHandler::discard_strays(const std::vector<ObjectHandlerRef>& strays) {
    for (const ObjectHandlerRef& stray : strays) {
        logger.warning("Deleting {} {}, which can't stand under {} {}",
                       tql::class_name(stray->class_number()), stray->node_id(),
                       tql::class_name(class_number()), id_.value);
        detail::with_faults_as_failures([&] {
            StoreTransaction transaction(store_);
            leave_mark_lists(*stray);
            store_.discard_stored(stray->location());
            transaction.commit(true);
        });
    }
}

}  // namespace dbcache
