#include "dbcache/schema/check_part_schemas.h"

#include <array>
#include <fmt/format.h>

#include "dbcache/schema/agent_config.h"
#include "dbcache/schema/check_rows.h"
#include "dbcache/schema/check_schema.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

using namespace check_rows;

/// What a log rule does with a line; these tell somebody of it.
constexpr uint32_t kWithDestination[] = {2, 3, 5};

constexpr uint32_t kLogCheckRuleClass[] = {cls::LogCheckRule};
constexpr uint32_t kLogCheckRuleCommentClass[] = {cls::LogCheckRuleComment};
constexpr uint32_t kActionConnectionClass[] = {cls::ActionConnection};
constexpr uint32_t kTag[] = {cls::Tag};
constexpr uint32_t kTagRule[] = {cls::EnumCheckTagRule};

// clang-format off
constexpr PropertyRow kLogCheckRuleRows[] = {
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kLogCheckRuleClass},
    kInheritsMark,
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
    {.number = prop::logCheckRegex, .kind = kind_t::pattern},
    {.number = prop::logCheckStatus, .kind = kind_t::enumeration, .enumeration = tql::enumeration::LogCheckStatus},
    {.number = prop::logCheckLogDecision, .kind = kind_t::enumeration, .enumeration = tql::enumeration::LogCheckLogDecision, .determines_subtype = true},
    {.number = prop::destination, .kind = kind_t::object, .flags = N, .subtypes = kWithDestination},
};
constexpr PropertyRow kLogCheckRuleCommentRows[] = {
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kLogCheckRuleCommentClass},
    kInheritsMark,
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
    {.number = prop::text, .kind = kind_t::string},
};
constexpr PropertyRow kActionConnectionRows[] = {
    kComment,
    {.number = prop::order, .kind = kind_t::u32, .flags = K},
    {.number = prop::active, .kind = kind_t::boolean, .initial = true},
    kActiveMark,
    {.number = prop::actionId, .kind = kind_t::object, .classes = kAnyCheck},
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kActionConnectionClass},
    kInheritsMark,
};
constexpr PropertyRow kTagRows[] = {{.number = prop::name, .kind = kind_t::string, .flags = K}};
constexpr PropertyRow kEnumCheckTagRuleRows[] = {
    {.number = prop::state, .kind = kind_t::u32, .flags = K},
    {.number = prop::tagId, .kind = kind_t::object, .flags = K, .classes = kTag},
};
// All matches are found by the list of what is active, which a select of them goes by.
constexpr PropertyRow kTagRuleMatchRows[] = {
    {.number = prop::activeMark, .kind = kind_t::mark, .flags = X | R, .member = marks_always},
    {.number = prop::rule, .kind = kind_t::object, .flags = K, .classes = kTagRule},
    {.number = prop::tagId, .kind = kind_t::object, .flags = K, .classes = kTag},
};
// clang-format on

void add_inherits_and_labels(const NodetypeSchema& schema, const PropertyChain& chain,
                             const tql::pattern_t& pattern, const std::string& label,
                             tql::property_map_t& out) {
    if (pattern.wants(prop::hasInherits))
        tql::add<tql::property_boolean_t>(out, prop::hasInherits, chain.hasParent(), kComputed);
    add_labels(pattern, out, schema.siblingName(chain).value_or(""), label, label);
}

}  // namespace

// ---- log rules ---------------------------------------------------------------------------------

LogCheckRuleSchema::LogCheckRuleSchema()
    : OrderSiblingEncoder({.nodetype = nodetype::LogCheckRule,
                           .tql_class = cls::LogCheckRule,
                           .properties = kLogCheckRuleRows}) {}

uint32_t LogCheckRuleSchema::subtypeFromChain(const PropertyChain& chain) const {
    return own_enum(chain, prop::logCheckLogDecision).value_or(0);
}

uint32_t LogCheckRuleSchema::subtypeFromWork(const WorkArray& work) const {
    return subtype_enum_in(*this, work, prop::logCheckLogDecision);
}

void LogCheckRuleSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                                        const tql::pattern_t& pattern,
                                        tql::property_map_t& out) const {
    add_inherits_and_labels(*this, chain, pattern, read_text(chain, *this, prop::logCheckRegex),
                            out);
}

void LogCheckRuleSchema::afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                                     WorkArray& /*work*/) const {
    touch_agent_config(handler, context);
}

LogCheckRuleCommentSchema::LogCheckRuleCommentSchema()
    : OrderSiblingEncoder({.nodetype = nodetype::LogCheckRuleComment,
                           .tql_class = cls::LogCheckRuleComment,
                           .properties = kLogCheckRuleCommentRows}) {}

void LogCheckRuleCommentSchema::encodeSpecials(const SchemaObject& /*object*/,
                                               const PropertyChain& chain,
                                               const tql::pattern_t& pattern,
                                               tql::property_map_t& out) const {
    add_inherits_and_labels(*this, chain, pattern, read_text(chain, *this, prop::text), out);
}

// ---- remedies ----------------------------------------------------------------------------------

ActionConnectionSchema::ActionConnectionSchema()
    : OrderSiblingEncoder({.nodetype = nodetype::ActionConnection,
                           .tql_class = cls::ActionConnection,
                           .properties = kActionConnectionRows}) {}

void ActionConnectionSchema::encodeSpecials(const SchemaObject& /*object*/,
                                            const PropertyChain& chain,
                                            const tql::pattern_t& pattern,
                                            tql::property_map_t& out) const {
    // The name of the action that is run.
    const std::string name = text_of(chain, own_object(chain, prop::actionId), prop::name);
    add_inherits_and_labels(*this, chain, pattern, name, out);
}

// ---- tags --------------------------------------------------------------------------------------

TagSchema::TagSchema()
    : TableSchema({.nodetype = nodetype::Tag,
                   .tql_class = cls::Tag,
                   .properties = kTagRows,
                   .sibling_name = prop::name}) {}

void TagSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                               const tql::pattern_t& pattern, tql::property_map_t& out) const {
    const std::string name = own_text(chain, prop::name);
    add_labels(pattern, out, name, name, name);
}

EnumCheckTagRuleSchema::EnumCheckTagRuleSchema()
    : TableSchema({.nodetype = nodetype::EnumCheckTagRule,
                   .tql_class = cls::EnumCheckTagRule,
                   .origin_type = kCheckOrigin,
                   .properties = kEnumCheckTagRuleRows}) {}

TagRuleMatchSchema::TagRuleMatchSchema()
    : TableSchema({.nodetype = nodetype::TagRuleMatch,
                   .tql_class = cls::TagRuleMatch,
                   .origin_type = kCheckOrigin,
                   .properties = kTagRuleMatchRows}) {}

}  // namespace dbcache
