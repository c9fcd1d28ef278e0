#include "dbcache/schema/mib_schemas.h"

#include <fmt/format.h>

#include "dbcache/schema/check_schema.h"
#include "mdb/property_types.h"
#include "tql/enumerations.h"
#include "tql/names.h"

namespace dbcache {

namespace {

constexpr uint32_t kMibOrigin = 26;

// clang-format off
constexpr PropertyRow kMibObjectRows[] = {
    {.number = prop::snmpId, .kind = kind_t::oid, .flags = K},
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::description, .kind = kind_t::string, .flags = N},
    {.number = prop::unit, .kind = kind_t::unit, .flags = N},
    {.number = prop::containingTable, .kind = kind_t::oid, .flags = N},
    {.number = prop::snmpType, .kind = kind_t::enumeration, .initial = 10, .enumeration = tql::enumeration::SnmpType},
    {.number = prop::displayHint, .kind = kind_t::string, .flags = N},
};
constexpr PropertyRow kMibModuleRows[] = {{.number = prop::name, .kind = kind_t::string, .flags = K}};
constexpr PropertyRow kMibModuleObjectRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::snmpId, .kind = kind_t::oid},
};
constexpr PropertyRow kMibModuleTypeRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::snmpType, .kind = kind_t::enumeration, .initial = 10, .enumeration = tql::enumeration::SnmpType},
    {.number = prop::displayHint, .kind = kind_t::string},
};
constexpr PropertyRow kMibTypeEnumRows[] = {
    {.number = prop::value, .kind = kind_t::i32, .flags = K},
    {.number = prop::text, .kind = kind_t::string},
};
// clang-format on

constexpr ChildRow kTypeEnum[] = {{cls::MibTypeEnum, nodetype::MibTypeEnum}};
constexpr ChildRow kMibModuleChildren[] = {
    {cls::MibModuleObject, nodetype::MibModuleObject},
    {cls::MibModuleType, nodetype::MibModuleType},
};

}  // namespace

void MibNamedSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                                    const tql::pattern_t& pattern, tql::property_map_t& out) const {
    if (!wants_labels(pattern)) return;
    const std::string name = own_text(chain, prop::name);
    add_labels(pattern, out, siblingName(chain).value_or(name), name, name);
}

MibObjectSchema::MibObjectSchema()
    : MibNamedSchema({.nodetype = nodetype::MibObject,
                      .tql_class = cls::MibObject,
                      .origin_type = kMibOrigin,
                      .properties = kMibObjectRows,
                      .children = kTypeEnum}) {}

std::optional<std::string> MibObjectSchema::siblingName(const PropertyChain& chain) const {
    return own_oid(chain, prop::snmpId);
}

MibModuleSchema::MibModuleSchema()
    : MibNamedSchema({.nodetype = nodetype::MibModule,
                      .tql_class = cls::MibModule,
                      .origin_type = kMibOrigin,
                      .properties = kMibModuleRows,
                      .children = kMibModuleChildren,
                      .sibling_name = prop::name}) {}

MibModuleObjectSchema::MibModuleObjectSchema()
    : MibNamedSchema({.nodetype = nodetype::MibModuleObject,
                      .tql_class = cls::MibModuleObject,
                      .origin_type = kMibOrigin,
                      .properties = kMibModuleObjectRows,
                      .sibling_name = prop::name}) {}

MibModuleTypeSchema::MibModuleTypeSchema()
    : MibNamedSchema({.nodetype = nodetype::MibModuleType,
                      .tql_class = cls::MibModuleType,
                      .origin_type = kMibOrigin,
                      .properties = kMibModuleTypeRows,
                      .children = kTypeEnum,
                      .sibling_name = prop::name}) {}

MibTypeEnumSchema::MibTypeEnumSchema()
    : TableSchema({.nodetype = nodetype::MibTypeEnum,
                   .tql_class = cls::MibTypeEnum,
                   .origin_type = kMibOrigin,
                   .properties = kMibTypeEnumRows}) {}

std::optional<std::string> MibTypeEnumSchema::siblingName(const PropertyChain& chain) const {
    mdb::PropertyInt32 value(prop::value);
    if (chain.read(0, value) != found_t::value) return std::nullopt;
    return fmt::format("{}", value.value);
}

void MibTypeEnumSchema::encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                                       const tql::pattern_t& pattern,
                                       tql::property_map_t& out) const {
    if (!wants_labels(pattern)) return;
    const std::string text = own_text(chain, prop::text);
    add_labels(pattern, out, siblingName(chain).value_or(text), text, text);
}

}  // namespace dbcache
