// The kinds of properties that refer to other objects.
#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "dbcache/property_kinds.h"
#include "tql/names.h"

namespace dbcache {

namespace {

std::vector<std::string> names_of(const std::set<uint32_t>& classes) {
    std::vector<std::string> names;
    names.reserve(classes.size());
    for (const uint32_t one : classes) names.push_back(tql::class_name(one));
    return names;
}

std::string joined(std::string first, const std::string& second) {
    if (!first.empty() && !second.empty()) first += ' ';
    return first + second;
}

}  // namespace

void ReferenceRules::check(const SchemaObject& object, const NodeId& target,
                           uint32_t property) const {
    if (!is_restricted() || exempt_ids.contains(target)) return;
    const std::string name = tql::property_name(property);
    if (target.is_null()) fail_illegal_value(fmt::format("{} given illegal value", name));
    const std::vector<TreePlace> path = object.path_to_root(target);
    if (path.empty()) return;  // dangling references are legal
    const uint32_t target_class = path.front().class_number;
    if (!allowed_classes.empty() && !allowed_classes.contains(target_class))
        fail_illegal_value(
            fmt::format("{} points at the wrong class ({} given, should be one of {})", name,
                        tql::class_name(target_class), fmt::join(names_of(allowed_classes), ", ")));
    if (!own_domains_only) return;
    const auto is_domain = [](const TreePlace& place) { return place.class_number == cls::Domain; };
    const auto domain = std::find_if(path.begin(), path.end(), is_domain);
    if (domain == path.end())
        fail_illegal_value(fmt::format("Could not find domain containing {}", target.to_string()));
    const std::vector<TreePlace> own = object.path_to_root(object.node_id());
    const bool above = std::any_of(own.begin(), own.end(), [&](const TreePlace& place) {
        return is_domain(place) && place.id == domain->id && place.id != object.node_id();
    });
    if (!above) fail_illegal_value(fmt::format("{} points at object in illegal domain", name));
}

std::string ReferenceRules::describe() const {
    std::string text;
    if (!allowed_classes.empty())
        text = fmt::format("to {}", fmt::join(names_of(allowed_classes), ", "));
    if (own_domains_only) text += text.empty() ? "own domains" : ", own domains";
    for (const NodeId& id : exempt_ids) text += fmt::format(", or {}", id.to_string());
    return text;
}

void PropertyNodeIdSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                    work_t& work) const {
    PropertySchemaTemplate::validate(object, chain, work);
    if (!work.is_null()) rules_.check(object, payload(work), property);
}

std::string PropertyNodeIdSchema::describe() const {
    return joined(PropertySchemaTemplate::describe(), rules_.describe());
}

void PropertyNodeIdSchema::translate(const SchemaObject& object, const NodeId& inherits,
                                     work_t& work) const {
    auto& stored = static_cast<mdb::PropertyNodeId&>(*work.prop);
    stored.value = object.translate_inherited(inherits, stored.value, property);
}

void PropertyNodeIdSetSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                       work_t& work) const {
    PropertySchemaTemplate::validate(object, chain, work);
    if (work.is_null()) return;
    for (const NodeId& target : payload(work)) rules_.check(object, target, property);
}

std::string PropertyNodeIdSetSchema::describe() const {
    return joined(PropertySchemaTemplate::describe(), rules_.describe());
}

void PropertyNodeIdSetSchema::translate(const SchemaObject& object, const NodeId& inherits,
                                        work_t& work) const {
    auto& stored = static_cast<mdb::PropertyNodeIdList&>(*work.prop);
    stored.value = object.translate_inherited_set(inherits, stored.value, property);
}

void PropertyDACEdgeSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                     work_t& work) const {
    PropertyNodeIdSetSchema::validate(object, chain, work);
    if (work.is_null()) return;
    std::vector<NodeId> waiting = payload(work);
    std::set<NodeId> seen;
    while (!waiting.empty()) {
        const NodeId target = waiting.back();
        waiting.pop_back();
        if (target == object.node_id())
            fail_illegal_value(fmt::format("Inheritance cycle through property {}", name()));
        if (!seen.insert(target).second) continue;
        object.visit_object(target, [&](const PropertyChain& other) {
            work_t edges;
            load(other, edges);
            if (edges.is_null()) return;
            const std::vector<NodeId>& more = payload(edges);
            waiting.insert(waiting.end(), more.begin(), more.end());
        });
    }
}

void PropertyUserIdSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                    work_t& work) const {
    PropertySchemaTemplate::validate(object, chain, work);
    if (work.is_null() || payload(work).is_null()) return;  // null is the built-in user
    rules_.check(object, payload(work), property);
}

std::string PropertyUserIdSchema::describe() const {
    return joined(PropertySchemaTemplate::describe(), rules_.describe());
}

void PropertyLastUpdatedByUserIdSchema::validate(const SchemaObject& object,
                                                 const PropertyChain& chain, work_t& work) const {
    const NodeId user = object.request_user();
    if (!user.is_null()) {
        work.prop = std::make_unique<mdb::PropertyNodeId>(property, user);
        work.set_inherited(false);
    }
    PropertyUserIdSchema::validate(object, chain, work);
}

}  // namespace dbcache
