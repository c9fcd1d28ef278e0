#include "dbcache/template_handler.h"

#include <fmt/format.h>

#include "dbcache/detail/template_refusals.h"
#include "dbcache/detail/write_faults.h"
#include "dbcache/inheritance.h"
#include "dbcache/object_view.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "tql/names.h"
#include "tqlengine/level_classes.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

}  // namespace

// ---- the tree ----------------------------------------------------------------------------------

void TemplateHandler::list(const Place& place, const std::map<uint32_t, uint32_t>& child_classes,
                           const tqlengine::ClassSet& classes, const ListValues& list_values,
                           tqlengine::HandlerList& out) {
    for (const auto& [child_class, child_nodetype] : child_classes) {
        if (!classes.admits(child_class)) continue;
        const NodetypeSchema* schema = place.store.schemas().find(child_nodetype);
        if (schema == nullptr) {
            logger.warning("No schema for nodetype: {}", child_nodetype);
            continue;
        }
        std::vector<TemplateValues> templates;
        list_values(*schema, templates);
        uint32_t ordinal = 0;
        for (TemplateValues& values : templates)
            out.push_back(tqlengine::HandlerRef(
                new TemplateHandler(place, *schema, ordinal++, std::move(values))));
    }
}

TemplateHandler::TemplateHandler(Place place, const NodetypeSchema& schema, uint32_t ordinal,
                                 TemplateValues values)
    : TqlObjectHandler(schema.tql_class),
      place_(std::move(place)),
      schema_(schema),
      ordinal_(ordinal),
      values_(std::move(values)) {}

tql::id_t TemplateHandler::tqlId() const {
    return place_.object ? place_.parent->tqlId() : tql::id_t();
}

tql::internal_id_t TemplateHandler::tqlInternalId() const {
    return tql::internal_id_t::by_place(class_number(), ordinal_);
}

tql::origin_t TemplateHandler::tqlOrigin() {
    tql::origin_t origin = place_.parent->tqlOrigin();
    origin.type = schema_.origin_type == kParentsOrigin ? kTemplateOrigin : schema_.origin_type;
    return origin;
}

void TemplateHandler::tqlChildrenHandlers(tqlengine::HandlerList& out,
                                          const tql::pattern_t& pattern) {
    const tqlengine::LevelClasses classes(pattern);
    if (classes.templates().empty()) return;
    detail::with_faults_as_failures([&] {
        list(
            {tqlengine::HandlerRef(this), {}, place_.store}, schema_.child_classes(),
            classes.templates(),
            [this](const NodetypeSchema& schema, std::vector<TemplateValues>& templates) {
                schema.listChildTemplates(values_, templates);
            },
            out);
    });
}

// ---- reading -----------------------------------------------------------------------------------

void TemplateHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    const InheritanceChain chain(place_.store);
    WorkArray work(schema_.properties().size());
    uint32_t subtype = kAllSubtypes;
    run_step("computing", [&] { subtype = assign_values(chain, work); });
    run_step("encode", [&] { encode_values(chain, work, subtype, pattern, out); });
    if (!place_.object) return schema_.encodeTemplateSpecials(nullptr, values_, pattern, out);
    const ObjectView parent(*place_.object);
    detail::with_faults_as_failures(
        [&] { schema_.encodeTemplateSpecials(&parent, values_, pattern, out); });
}

template <class Step>
void TemplateHandler::run_step(const char* doing, Step&& step) const {
    const auto fail = [&](const error::Exception& failure) {
        throw errors::tql(errors::ERR_BACKEND,
                          fmt::format("Error {} properties for template {} to {}: {}", doing,
                                      tql::class_name(class_number()),
                                      place_.parent->tqlId().to_string(), failure.text()));
    };
    try {
        step();
    } catch (const errors::tql& failure) {
        fail(failure);
    } catch (const mdb::error_generic& failure) {
        fail(failure);
    }
}

/// The values that determine the subtype come first, in whatever order they are preset.
uint32_t TemplateHandler::assign_values(const PropertyChain& chain, WorkArray& work) const {
    const auto entries = schema_.properties();
    for (size_t i = 0; i < entries.size(); ++i) entries[i].schema->initial(work[i]);
    // As if it were about to be created: an object that isn't stored.
    ObjectHandler draft(place_.store, {}, place_.object ? place_.object->node_id() : NodeId{},
                        schema_);
    const ObjectView view(draft);
    const auto assign = [&](size_t i, const tql::property_t& value) {
        entries[i].schema->assign(value, view, chain, work[i]);
    };
    for (const tql::value_t& value : values_)
        if (const auto index = schema_.subtypeProperty(value->property)) assign(*index, *value);
    const uint32_t subtype = schema_.subtype(view, work);
    for (const tql::value_t& value : values_)
        if (!schema_.subtypeProperty(value->property))
            assign(schema_.findProperty(value->property, subtype), *value);
    return subtype;
}

void TemplateHandler::encode_values(const PropertyChain& chain, const WorkArray& work,
                                    uint32_t subtype, const tql::pattern_t& pattern,
                                    tql::property_map_t& out) const {
    const auto entries = schema_.properties();
    for (size_t i = 0; i < entries.size(); ++i)
        if (entries[i].applies_to(subtype) && pattern.wants(entries[i].property))
            out.insert_or_assign(out.end(), entries[i].property,
                                 tql::value_t(entries[i].schema->to_template_tql(work[i], chain)));
}

// ---- writing -----------------------------------------------------------------------------------

uint32_t TemplateHandler::tqlCreate(const tql::id_t&, uint32_t, const tqlengine::WriteArguments&) {
    detail::refuse_template_create();
}

uint32_t TemplateHandler::tqlUpdate(const tqlengine::WriteArguments&) {
    detail::refuse_template_update();
}

void TemplateHandler::tqlDelete(const tqlengine::DeleteArguments&) {
    detail::refuse_template_delete();
}

}  // namespace dbcache
