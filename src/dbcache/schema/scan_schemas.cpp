#include "dbcache/schema/scan_schemas.h"

#include <fmt/format.h>

#include "dbcache/class_table.h"
#include "dbcache/conversions.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "platform/host_address.h"
#include "tql/names.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

const logging::Logger logger{"autodiscovery_schema"};

constexpr uint32_t kNodeOrigin = 1;

constexpr uint32_t kNodes[] = {cls::Node};

// clang-format off
constexpr PropertyRow kNetworkScanRows[] = {
    {.number = prop::ipRangeBegin, .kind = kind_t::ipv4, .flags = N | K},
    {.number = prop::ipRangeEnd, .kind = kind_t::ipv4, .flags = N | K},
    {.number = prop::nodes, .kind = kind_t::object_set, .flags = K, .classes = kNodes},
    {.number = prop::ports, .kind = kind_t::string},
    {.number = prop::icmp, .kind = kind_t::boolean},
    {.number = prop::http, .kind = kind_t::boolean},
    {.number = prop::smtp, .kind = kind_t::boolean},
    {.number = prop::pop3, .kind = kind_t::boolean},
    {.number = prop::imap, .kind = kind_t::boolean},
    {.number = prop::ftp, .kind = kind_t::boolean},
    {.number = prop::dns, .kind = kind_t::boolean},
    {.number = prop::https, .kind = kind_t::boolean},
    {.number = prop::pop3s, .kind = kind_t::boolean},
    {.number = prop::imaps, .kind = kind_t::boolean},
    {.number = prop::snmpCommunity, .kind = kind_t::string},
    {.number = prop::snmpScan, .kind = kind_t::boolean},
    {.number = prop::stationLocale, .kind = kind_t::gid, .flags = N},
};

constexpr ChildRow kNetworkScanChildren[] = {{cls::NetworkScanWork, nodetype::NetworkScanWork}};

constexpr PropertyRow kNetworkScanWorkRows[] = {
    {.number = prop::progress, .kind = kind_t::u32},
    {.number = prop::workerNode, .kind = kind_t::u32},
};

// Scans of a node by SNMP and of a virtualisation host.
constexpr PropertyRow kNodeScanRows[] = {
    {.number = prop::workerNode, .kind = kind_t::u32, .initial = 0},
    {.number = prop::done, .kind = kind_t::boolean},
};

constexpr PropertyRow kCandidateNodeRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::domainName, .kind = kind_t::string, .flags = K},
    {.number = prop::label, .kind = kind_t::string, .flags = N},
    {.number = prop::active, .kind = kind_t::boolean, .flags = N},
};
// clang-format on

/// The first three numbers of this machine's address, each with its point: the network that a new
/// scan suggests. Looked up once, since the answer may take a moment; empty when it isn't known.
const std::string& own_network() {
    static const std::string network = [] {
        const std::optional<std::string> name = platform::host_name();
        if (!name) {
            logger.warning("Could not get hostname in order to find ip address");
            return std::string();
        }
        logger.info("Got hostname in order to find ip address : {}", *name);
        const std::optional<std::string> address = platform::host_address(*name);
        if (!address) {
            logger.warning("Could not resolve ip from hostname");
            return std::string();
        }
        logger.info("Resolved ip from hostname {}", *address);
        return address->substr(0, address->rfind('.') + 1);
    }();
    return network;
}

/// A dotted address; none for a null.
std::optional<std::string> address_text(const PropertyChain& chain, uint32_t number) {
    mdb::PropertyUint32 stored(number);
    if (chain.read(0, stored) != found_t::value) return std::nullopt;
    tql::property_string_t text(number, std::string());
    IPv4Conversion::to_wire(stored, text);
    return std::move(text.value);
}

}  // namespace

class NetworkScanSchema : public TableSchema<NodetypeSchema> {
  public:
    NetworkScanSchema()
        : TableSchema({.nodetype = nodetype::NetworkScan,
                       .tql_class = cls::NetworkScan,
                       .origin_type = kNodeOrigin,
                       .properties = kNetworkScanRows,
                       .children = kNetworkScanChildren,
                       .suggestion = {"template", "Auto-discovery"}}) {}

    /// Either a whole range or some nodes.
    void validate(const SchemaObject& object, const PropertyChain& chain, WorkArray& work,
                  const NodeId& new_parent) const override {
        TableSchema::validate(object, chain, work, new_parent);
        const auto value = [&](uint32_t number) -> const work_t& {
            return work[findProperty(number, kAllSubtypes)];
        };
        const bool has_begin = !value(prop::ipRangeBegin).is_null();
        const work_t& nodes = value(prop::nodes);
        const bool has_nodes =
            !nodes.is_null() &&
            !static_cast<const mdb::PropertyNodeIdList&>(*nodes.prop).value.empty();
        if (has_begin == value(prop::ipRangeEnd).is_null())
            fail_illegal_value(
                "You must supply both begin and endpoint of the range of IP "
                "addresses to be scanned.");
        if (has_begin && has_nodes)
            fail_illegal_value(
                "You cannot both supply an IP address range and existing nodes to "
                "be scanned.");
        if (!has_begin && !has_nodes)
            fail_illegal_value(
                "You must supply either an IP address range or existing nodes to "
                "be scanned.");
    }

    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        TableSchema::encodeSpecials(object, chain, pattern, out);
        if (!pattern.wants(prop::treeLabel) && !pattern.wants(prop::longLabel)) return;
        const auto begin = address_text(chain, prop::ipRangeBegin);
        const auto end = address_text(chain, prop::ipRangeEnd);
        const std::string label =
            "Scanning " + (begin && end ? *begin + " - " + *end : std::string("existing nodes"));
        for (const uint32_t number : {prop::treeLabel, prop::longLabel})
            if (pattern.wants(number))
                tql::add<tql::property_string_t>(out, number, label, kComputed);
    }

    /// The network that this machine is in.
    void listTemplates(const SchemaObject& /*parent*/,
                       std::vector<TemplateValues>& out) const override {
        TemplateValues values;
        const auto preset = [&](uint32_t number, std::string text) {
            values.emplace_back(std::make_unique<tql::property_string_t>(number, std::move(text)));
        };
        preset(prop::ports, "22,111");
        if (!own_network().empty()) {
            preset(prop::ipRangeBegin, own_network() + "1");
            preset(prop::ipRangeEnd, own_network() + "254");
        }
        out.push_back(std::move(values));
    }
};

namespace schema {

void declare_scans(SchemaTable& table) {
    const auto add_single = [&](const ClassTable& rows) {
        table.registerSchema(std::make_unique<TableSchema<SingletonSchema>>(rows));
    };
    table.registerSchema(std::make_unique<NetworkScanSchema>());
    // None of these has a key: there is one of each kind at a time.
    add_single({.nodetype = nodetype::NetworkScanWork,
                .tql_class = cls::NetworkScanWork,
                .origin_type = kNodeOrigin,
                .properties = kNetworkScanWorkRows});
    add_single(
        {.nodetype = nodetype::SnmpScan, .tql_class = cls::SnmpScan, .properties = kNodeScanRows});
    add_single(
        {.nodetype = nodetype::EsxiScan, .tql_class = cls::EsxiScan, .properties = kNodeScanRows});
    table.registerSchema(std::make_unique<TableSchema<NodetypeSchema>>(
        ClassTable{.nodetype = nodetype::CandidateNode,
                   .tql_class = cls::CandidateNode,
                   .origin_type = kNodeOrigin,
                   .properties = kCandidateNodeRows,
                   .sibling_name = prop::name}));
}

}  // namespace schema

}  // namespace dbcache
