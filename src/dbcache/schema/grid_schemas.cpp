#include "dbcache/schema/grid_schemas.h"

#include <array>
#include <fmt/format.h>

#include "dbcache/schema/subtype_by_value.h"
#include "dbcache/schema_table.h"
#include "dbcache/time_series.h"
#include "tql/enumerations.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

constexpr uint32_t kAlertGroups[] = {cls::AlertGroup};
constexpr uint32_t kLeeching[] = {1};
constexpr uint32_t kAccepting[] = {0};
constexpr uint32_t kInitiating[] = {1};

// clang-format off
constexpr PropertyRow kGridConfigRows[] = {
    {.number = prop::gid, .kind = kind_t::gid},
    {.number = prop::name, .kind = kind_t::string},
    {.number = prop::signKeyPublic_n, .kind = kind_t::big_number, .flags = N},
    {.number = prop::signKeyPublic_e, .kind = kind_t::big_number, .flags = N},
    {.number = prop::signKeyPrivate_d, .kind = kind_t::big_number, .flags = N},
    {.number = prop::cryptKeyPublic_n, .kind = kind_t::big_number, .flags = N},
    {.number = prop::cryptKeyPublic_e, .kind = kind_t::big_number, .flags = N},
    {.number = prop::cryptKeyPrivate_d, .kind = kind_t::big_number, .flags = N},
    {.number = prop::workerNode, .kind = kind_t::u32},
    {.number = prop::countLeechingStations, .kind = kind_t::count, .flags = R},
};

constexpr ChildRow kGridConfigChildren[] = {
    {cls::GridStationConfig, nodetype::GridStationConfig},
    {cls::GridLinkConfig, nodetype::GridLinkConfig},
};

constexpr PropertyRow kGridStationConfigRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = N},
    {.number = prop::majorVersion, .kind = kind_t::u32, .flags = N},
    {.number = prop::minorVersion, .kind = kind_t::u32, .flags = N},
    {.number = prop::releaseVersion, .kind = kind_t::u32, .flags = N},
    {.number = prop::buildno, .kind = kind_t::u32, .flags = N},
    {.number = prop::gid, .kind = kind_t::gid, .flags = K | C},
    {.number = prop::isLeeching, .kind = kind_t::boolean, .determines_subtype = true},
    {.number = prop::releaseKey, .kind = kind_t::action, .flags = X, .subtypes = kLeeching},
    {.number = prop::comment, .kind = kind_t::marl, .flags = N},
    {.number = prop::signKeyPublic_n, .kind = kind_t::big_number, .flags = N},
    {.number = prop::signKeyPublic_e, .kind = kind_t::big_number, .flags = N},
    {.number = prop::cryptKeyPublic_n, .kind = kind_t::big_number, .flags = N},
    {.number = prop::cryptKeyPublic_e, .kind = kind_t::big_number, .flags = N},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
};

constexpr PropertyRow kGridLinkConfigRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::gid, .kind = kind_t::gid},
    {.number = prop::active, .kind = kind_t::boolean, .initial = true},
    {.number = prop::mayAccept, .kind = kind_t::boolean},
    {.number = prop::mayInitiate, .kind = kind_t::boolean, .determines_subtype = true},
    {.number = prop::peerAddress, .kind = kind_t::ipv4, .flags = N, .subtypes = kAccepting},
    {.number = prop::peerAddress, .kind = kind_t::ipv4, .subtypes = kInitiating},
    {.number = prop::port, .kind = kind_t::u32},
    {.number = prop::linkKeepAlive, .kind = kind_t::u32, .initial = 30},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
};

constexpr PropertyRow kMountPointRows[] = {
    {.number = prop::name, .kind = kind_t::identifier, .flags = K},
    {.number = prop::gid, .kind = kind_t::gid, .flags = C},
    {.number = prop::exportPath, .kind = kind_t::string},
    {.number = prop::mountedDomain, .kind = kind_t::object, .flags = N},
    {.number = prop::syncStatus, .kind = kind_t::u32, .initial = 0},
    {.number = prop::activeMark, .kind = kind_t::mark, .flags = X | R},
    {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R},
};

constexpr ChildRow kMountPointChildren[] = {{cls::Domain, nodetype::Domain}};

constexpr PropertyRow kDomainExportRows[] = {
    {.number = prop::gid, .kind = kind_t::gid, .flags = K},
    {.number = prop::label, .kind = kind_t::string},
    {.number = prop::infoUrl, .kind = kind_t::string, .flags = N},
    {.number = prop::comment, .kind = kind_t::marl},
    {.number = prop::alertGroup, .kind = kind_t::object, .flags = N, .classes = kAlertGroups},
    {.number = prop::alertStrategy, .kind = kind_t::enumeration, .initial = 0, .enumeration = tql::enumeration::AlertStrategy},
    {.number = prop::goodScore, .kind = kind_t::i32, .initial = 0},
    {.number = prop::warnScore, .kind = kind_t::i32, .initial = 2, .fallback = 0},
    {.number = prop::alertScore, .kind = kind_t::i32, .initial = 20, .fallback = 0},
    {.number = prop::warn, .kind = kind_t::i32, .initial = 5000},
    {.number = prop::warnCeiling, .kind = kind_t::i32, .initial = 6000},
    {.number = prop::alert, .kind = kind_t::i32, .initial = 10000},
    {.number = prop::alertCeiling, .kind = kind_t::i32, .initial = 11000},
    {.number = prop::tsdbIndex, .kind = kind_t::series, .flags = X | R},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
};

constexpr ChildRow kDomainExportChildren[] = {{cls::AlertPathUsage, nodetype::AlertPathUsage}};
// clang-format on

constexpr std::string_view kExportStateColors = "rryyyg";
constexpr std::array<std::string_view, 6> kExportStates = {
    "Master not synchronizing", "Satellite not synchronizing", "Satellite beginning sync",
    "Full sync started",        "Full sync in stage 2",        "In Sync",
};

/// A station's id as it is printed; empty without one.
std::string gid_text(const PropertyChain& chain) {
    mdb::PropertyUint32 gid(prop::gid);
    if (chain.read(0, gid) != found_t::value) return {};
    return tql::property_gid_t(prop::gid, gid.value).print();
}

}  // namespace

class GridConfigSchema : public TableSchema<SingletonSchema> {
  public:
    GridConfigSchema()
        : TableSchema({.nodetype = nodetype::GridConfig,
                       .tql_class = cls::GridConfig,
                       .origin_type = 27,
                       .properties = kGridConfigRows,
                       .children = kGridConfigChildren}) {}
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& /*chain*/) const override {
        return "gridconfig";
    }
};

class GridStationConfigSchema : public SubtypeByValue<mdb::PropertyBool> {
  public:
    GridStationConfigSchema()
        : SubtypeByValue({.nodetype = nodetype::GridStationConfig,
                          .tql_class = cls::GridStationConfig,
                          .origin_type = 28,
                          .properties = kGridStationConfigRows,
                          .suggestion = {"template", "New station"}},
                         prop::isLeeching) {}
};

class GridLinkConfigSchema : public SubtypeByValue<mdb::PropertyBool> {
  public:
    GridLinkConfigSchema()
        : SubtypeByValue({.nodetype = nodetype::GridLinkConfig,
                          .tql_class = cls::GridLinkConfig,
                          .origin_type = 29,
                          .properties = kGridLinkConfigRows,
                          .sibling_name = prop::name,
                          .suggestion = {"template", "New link"}},
                         prop::mayInitiate) {}

    void encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        const std::string name = read_text(chain, *this, prop::name);
        const std::string label = name.empty() ? "(link to " + gid_text(chain) + ")" : name;
        add_labels(pattern, out, name, label, label);
    }
};

class MountPointSchema : public TableSchema<NodetypeSchema> {
  public:
    MountPointSchema()
        : TableSchema({.nodetype = nodetype::MountPoint,
                       .tql_class = cls::MountPoint,
                       .origin_type = 31,
                       .properties = kMountPointRows,
                       .children = kMountPointChildren,
                       .sibling_name = prop::name}) {}
};

/// A domain shown to another server; monitored itself, by how far the other one has come.
class DomainExportSchema : public TableSchema<NodetypeSchema> {
  public:
    DomainExportSchema()
        : TableSchema({.nodetype = nodetype::DomainExport,
                       .tql_class = cls::DomainExport,
                       .origin_type = 30,
                       .properties = kDomainExportRows,
                       .children = kDomainExportChildren}) {}

    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        TableSchema::encodeSpecials(object, chain, pattern, out);
        if (pattern.wants(prop::stateColors))
            tql::add<tql::property_string_t>(out, prop::stateColors,
                                             std::string(kExportStateColors), kComputed);
        for (uint32_t i = 0; i < kExportStates.size(); ++i)
            if (pattern.wants(prop::stateLabel0 + i))
                tql::add<tql::property_string_t>(out, prop::stateLabel0 + i,
                                                 std::string(kExportStates[i]), kComputed);
        if (!pattern.wants(prop::treeLabel) && !pattern.wants(prop::longLabel)) return;
        const std::string gid = gid_text(chain);
        const std::string label = read_text(chain, *this, prop::label);
        const std::string shown = label.empty() ? "Export to " + gid : label + " (" + gid + ")";
        for (const uint32_t number : {prop::treeLabel, prop::longLabel})
            if (pattern.wants(number))
                tql::add<tql::property_string_t>(out, number, shown, kComputed);
    }
    void afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& /*context*/,
                     WorkArray& work) const override {
        allocate_when_possible(handler, prop::tsdbIndex, enumerated_layout(), work);
        allocate_when_possible(handler, prop::tsdbIncident, small_incident_layout(), work);
    }
    [[nodiscard]] uint32_t tsdbGetDataType(const PropertyChain& chain,
                                           uint32_t property) const override {
        if (property == prop::tsdbIndex) return kEnumeratedData;
        return TableSchema::tsdbGetDataType(chain, property);
    }
};

namespace schema {

void declare_grid(SchemaTable& table) {
    table.registerSchema(std::make_unique<GridConfigSchema>());
    table.registerSchema(std::make_unique<GridStationConfigSchema>());
    table.registerSchema(std::make_unique<GridLinkConfigSchema>());
    table.registerSchema(std::make_unique<MountPointSchema>());
    table.registerSchema(std::make_unique<DomainExportSchema>());
}

}  // namespace schema

}  // namespace dbcache
