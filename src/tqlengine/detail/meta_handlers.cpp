#include "tqlengine/detail/meta_handlers.h"

#include <utility>

#include "error/exception.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tqlengine/level_classes.h"

namespace tqlengine::detail {

namespace {

/// Gives the properties that a pattern wants, and no others.
class Giver {
  public:
    Giver(const tql::pattern_t& pattern, tql::property_map_t& out) : pattern_(pattern), out_(out) {}

    const Giver& text(uint32_t property, std::string_view value) const {
        return give<tql::property_string_t>(property, std::string(value));
    }
    const Giver& number(uint32_t property, uint32_t value) const {
        return give<tql::property_uint_t>(property, value);
    }
    const Giver& truth(uint32_t property, bool value) const {
        return give<tql::property_boolean_t>(property, value);
    }
    template <class Kind>
    const Giver& null(uint32_t property, uint32_t flags) const {
        if (pattern_.wants(property)) tql::add_null<Kind>(out_, property, flags);
        return *this;
    }

  private:
    template <class Kind>
    const Giver& give(uint32_t property, typename Kind::value_type value) const {
        if (pattern_.wants(property)) tql::add<Kind>(out_, property, std::move(value));
        return *this;
    }

    const tql::pattern_t& pattern_;
    tql::property_map_t& out_;
};

bool can_select(const tql::pattern_t& pattern, uint32_t class_number) {
    return LevelClasses(pattern).objects().admits(class_number);
}

template <class Handler>
void list(HandlerList& out, const tql::pattern_t& pattern, uint32_t class_number,
          const Handlers<Handler>& handlers) {
    if (!can_select(pattern, class_number)) return;
    out.reserve(out.size() + handlers.size());
    for (const auto& handler : handlers) out.emplace_back(handler.get());
}

/// One handler for each of `items`, under its place among them.
template <class Handler, class Items>
Handlers<Handler> make_each(const Items& items) {
    Handlers<Handler> made;
    made.reserve(items.size());
    for (const auto& item : items)
        made.push_back(std::make_unique<Handler>(static_cast<uint32_t>(made.size()), item));
    return made;
}

}  // namespace

HandlerRef MetaHandler::tqlParentHandler() {
    error::fail_assertion("tqlParentHandler() invoked");
}

EnumerationValueHandler::EnumerationValueHandler(uint32_t place,
                                                 const tql::enumeration_value_t& value)
    : MetaHandler(cls::EnumerationValue, place), value_(value) {}

void EnumerationValueHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    Giver(pattern, out).text(prop::text, value_.text).number(prop::value, value_.value);
}

EnumerationHandler::EnumerationHandler(const tql::enumeration_t& enumeration)
    : MetaHandler(cls::Enumeration, enumeration.id),
      enumeration_(enumeration),
      values_(make_each<EnumerationValueHandler>(enumeration.values)) {}

void EnumerationHandler::tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) {
    list(out, pattern, cls::EnumerationValue, values_);
}

void EnumerationHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    Giver(pattern, out).text(prop::name, enumeration_.name).number(prop::type, enumeration_.id);
}

PropertySpecialValueHandler::PropertySpecialValueHandler(uint32_t place,
                                                         const SpecialValue& special)
    : MetaHandler(cls::PropertySpecialValue, place), special_(special) {}

void PropertySpecialValueHandler::tqlEncode(const tql::pattern_t& pattern,
                                            tql::property_map_t& out) {
    Giver(pattern, out).text(prop::text, special_.text).text(prop::value, special_.value);
}

PropertyLayoutHandler::PropertyLayoutHandler(uint32_t place, const PropertyLayout& layout)
    : MetaHandler(cls::PropertyLayout, place), layout_(layout) {}

void PropertyLayoutHandler::tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) {
    if (!can_select(pattern, cls::PropertySpecialValue)) return;
    for (const SpecialValue& special : layout_.special_values)
        out.emplace_back(
            new PropertySpecialValueHandler(static_cast<uint32_t>(out.size()), special));
}

void PropertyLayoutHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    const Giver giver(pattern, out);
    giver.text(prop::name, layout_.name)
        .truth(prop::isPassword, layout_.is_password)
        .truth(prop::isMultiline, layout_.is_multiline)
        .truth(prop::hiddenCreate, layout_.hidden_create);
    if (layout_.handler.empty())
        giver.null<tql::property_string_t>(prop::handler, 0);
    else
        giver.text(prop::handler, layout_.handler);
    giver.text(prop::blobMime, layout_.blob_mime)
        .text(prop::values, layout_.values)
        .text(prop::description, layout_.description)
        .text(prop::label, layout_.label)
        .number(prop::order, place())
        .text(prop::unit, layout_.unit)
        .text(prop::nullText, layout_.null_text)
        .text(prop::className, layout_.class_name);
}

GroupLayoutHandler::GroupLayoutHandler(uint32_t place, const GroupLayout& layout)
    : MetaHandler(cls::GroupLayout, place),
      label_(layout.label),
      required_experience_(layout.required_experience),
      properties_(make_each<PropertyLayoutHandler>(layout.properties)) {}

void GroupLayoutHandler::tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) {
    list(out, pattern, cls::PropertyLayout, properties_);
}

void GroupLayoutHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    Giver(pattern, out)
        .text(prop::label, label_)
        .number(prop::order, place())
        .number(prop::requiredExperience, required_experience_);
}

TemplateLayoutHandler::TemplateLayoutHandler(uint32_t place, const TemplateLayout& layout)
    : MetaHandler(cls::TemplateLayout, place), layout_(layout) {}

void TemplateLayoutHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    Giver(pattern, out)
        .text(prop::siblingName, layout_.sibling_name)
        .text(prop::onCreate, layout_.on_create)
        .number(prop::order, place());
}

ClassLayoutHandler::ClassLayoutHandler(uint32_t place, const ClassLayout& layout)
    : MetaHandler(cls::ClassLayout, place),
      name_(layout.name),
      label_(layout.label),
      on_delete_(layout.on_delete),
      on_create_(layout.on_create),
      groups_(make_each<GroupLayoutHandler>(layout.groups)),
      templates_(make_each<TemplateLayoutHandler>(layout.templates)) {}

void ClassLayoutHandler::tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) {
    list(out, pattern, cls::GroupLayout, groups_);
    list(out, pattern, cls::TemplateLayout, templates_);
}

void ClassLayoutHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    Giver(pattern, out)
        .text(prop::name, name_)
        .text(prop::label, label_)
        .text(prop::onDelete, on_delete_)
        .text(prop::onCreate, on_create_);
}

MetaInfoHandler::MetaInfoHandler(const Layouts& layouts)
    : TqlSingletonHandler(cls::MetaInfo), layouts_(make_each<ClassLayoutHandler>(layouts)) {
    for (const tql::enumeration_t& enumeration : tql::enumerations())
        enumerations_.emplace(enumeration.id, std::make_unique<EnumerationHandler>(enumeration));
}

void MetaInfoHandler::tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) {
    if (can_select(pattern, cls::Enumeration))
        for (const auto& [number, enumeration] : enumerations_) out.emplace_back(enumeration.get());
    list(out, pattern, cls::ClassLayout, layouts_);
}

ClusterInfoHandler::ClusterInfoHandler(std::string report_generator)
    : TqlSingletonHandler(cls::ClusterInfo), report_generator_(std::move(report_generator)) {}

void ClusterInfoHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    Giver(pattern, out)
        .null<tql::property_uint_t>(prop::recoveryProgress, tql::kFlagNullable)
        .truth(prop::allUp, true)
        .text(prop::reportGenerator, report_generator_);
}

}  // namespace tqlengine::detail
