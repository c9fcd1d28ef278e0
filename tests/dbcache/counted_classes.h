// The classes that accounting is about, in a registry of the tests' own: the domains and nodes of
// the catalogue, with small checks, groups of checks and mount points below them.
#pragma once

#include <fmt/format.h>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "dbcache/accounting_rebuild.h"
#include "dbcache/schema/tree_schemas.h"
#include "support/test_store.h"
#include "util/big_num.h"

namespace dbcache_test {

/// What account() of a domain, node or group does first; nothing unless a test says so.
using AccountHook = std::function<void(const NodeId&)>;

inline bool is_active(const dbcache::ObjectHandler& check, const dbcache::WorkArray& work) {
    const auto& active = work[check.schema().findProperty(prop::active, dbcache::kAllSubtypes)];
    return static_cast<const mdb::PropertyBool&>(*active.prop).value;
}

// clang-format off
inline constexpr uint32_t kDomains[] = {cls::Domain};
inline constexpr dbcache::PropertyRow kCheckRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::active, .kind = dbcache::kind_t::boolean},
    {.number = prop::activeMark, .kind = dbcache::kind_t::mark, .flags = dbcache::X | dbcache::R, .member = is_active},
    {.number = prop::alertGroup, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X, .classes = kDomains, .own_domains_only = true},
};
inline constexpr dbcache::PropertyRow kAgentGroupRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::countAgentChecks, .kind = dbcache::kind_t::count, .flags = dbcache::R},
};
inline constexpr dbcache::PropertyRow kSnmpGroupRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::tag, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::countSnmpChecks, .kind = dbcache::kind_t::count, .flags = dbcache::R},
};
inline constexpr dbcache::PropertyRow kEsxiGroupRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::countEsxiChecks, .kind = dbcache::kind_t::count, .flags = dbcache::R},
};
inline constexpr dbcache::PropertyRow kMountPointRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
};
/// A group that can stand below an agent check group and lacks its counter.
inline constexpr dbcache::PropertyRow kNoCounterRows[] = {
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
};
/// The same, with the number of the counter for something else.
inline constexpr dbcache::PropertyRow kWrongKindRows[] = {
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::countAgentChecks, .kind = dbcache::kind_t::u32, .initial = 0},
};

inline constexpr dbcache::ChildRow kAgentGroupChildren[] = {
    {cls::CheckGroup, nodetype::AgentCheckGroup}, {cls::Check, nodetype::AgentCheck},
    {cls::Series, nodetype::Series}, {cls::Tag, nodetype::Tag}, {cls::QuickLink, nodetype::QuickLink}};
inline constexpr dbcache::ChildRow kAgentCheckAlone[] = {{cls::Check, nodetype::AgentCheck}};
inline constexpr dbcache::ChildRow kSnmpGroupChildren[] = {
    {cls::CheckGroup, nodetype::SnmpCheckGroup}, {cls::Check, nodetype::SnmpCheck}};
inline constexpr dbcache::ChildRow kEsxiRootChildren[] = {{cls::CheckGroup, nodetype::EsxiCheckGroup}};
inline constexpr dbcache::ChildRow kEsxiGroupChildren[] = {
    {cls::CheckGroup, nodetype::EsxiCheckGroup}, {cls::Check, nodetype::EsxiCheck}};
inline constexpr dbcache::ChildRow kMountedDomain[] = {{cls::Domain, nodetype::Domain}};
// clang-format on

/// A class that tells the hook before it accounts as `Base` does.
template <class Base>
class Hooked : public Base {
  public:
    template <class... Args>
    explicit Hooked(const AccountHook& hook, Args&&... args)
        : Base(std::forward<Args>(args)...), hook_(hook) {}
    void account(const dbcache::SchemaObject& object, const dbcache::WorkArray& work,
                 dbcache::UseMap& use) const override {
        if (hook_) hook_(object.node_id());
        Base::account(object, work, use);
    }

  private:
    const AccountHook& hook_;
};

/// A check that counts in one counter; not a net check: while it is active.
class CheckSchema : public dbcache::TableSchema<dbcache::NodetypeSchema> {
  public:
    CheckSchema(uint32_t type, uint32_t counter)
        : TableSchema({.nodetype = type,
                       .tql_class = cls::Check,
                       .properties = kCheckRows,
                       .sibling_name = prop::name}),
          counter_(counter) {}
    void getUse(const dbcache::WorkArray& work, dbcache::UseMap& use) const override {
        const auto& active = work[findProperty(prop::active, dbcache::kAllSubtypes)];
        use.clear();
        if (counter_ == prop::countNetChecks ||
            static_cast<const mdb::PropertyBool&>(*active.prop).value)
            use[counter_] = 1;
    }

  private:
    uint32_t counter_;
};

/// A group that passes on what comes from below.
class GroupSchema : public dbcache::TableSchema<dbcache::NodetypeSchema> {
  public:
    using TableSchema::TableSchema;
    void account(const dbcache::SchemaObject&, const dbcache::WorkArray&,
                 dbcache::UseMap&) const override {}
};

/// `hook` must outlive the table.
inline TestStore::Declare counted_classes(const AccountHook& hook) {
    using Plain = dbcache::TableSchema<dbcache::NodetypeSchema>;
    return [&hook](dbcache::SchemaTable& table) {
        const auto add = [&](std::unique_ptr<dbcache::NodetypeSchema> schema) {
            table.registerSchema(std::move(schema));
        };
        const auto group = [&](uint32_t type, uint32_t tql_class,
                               std::span<const dbcache::PropertyRow> rows,
                               std::span<const dbcache::ChildRow> children) {
            add(std::make_unique<Hooked<GroupSchema>>(hook,
                                                      dbcache::ClassTable{.nodetype = type,
                                                                          .tql_class = tql_class,
                                                                          .properties = rows,
                                                                          .children = children}));
        };
        add(std::make_unique<Hooked<dbcache::DomainSchema>>(hook));
        add(std::make_unique<Hooked<dbcache::NodeSchema>>(hook));
        add(std::make_unique<CheckSchema>(nodetype::NetCheck, prop::countNetChecks));
        add(std::make_unique<CheckSchema>(nodetype::AgentCheck, prop::countAgentChecks));
        add(std::make_unique<CheckSchema>(nodetype::SnmpCheck, prop::countSnmpChecks));
        add(std::make_unique<CheckSchema>(nodetype::EsxiCheck, prop::countEsxiChecks));
        group(nodetype::AgentCheckGroup, cls::CheckGroup, kAgentGroupRows, kAgentGroupChildren);
        group(nodetype::SnmpCheckGroup, cls::CheckGroup, kSnmpGroupRows, kSnmpGroupChildren);
        group(nodetype::EsxiRootCheckGroup, cls::CheckGroup, kEsxiGroupRows, kEsxiRootChildren);
        group(nodetype::EsxiCheckGroup, cls::CheckGroup, kEsxiGroupRows, kEsxiGroupChildren);
        group(nodetype::Series, cls::Series, kNoCounterRows, kAgentCheckAlone);
        group(nodetype::Tag, cls::Tag, kWrongKindRows, kAgentCheckAlone);
        add(std::make_unique<Plain>(dbcache::ClassTable{.nodetype = nodetype::QuickLink,
                                                        .tql_class = cls::QuickLink,
                                                        .properties = kNoCounterRows,
                                                        .children = kAgentCheckAlone}));
        add(std::make_unique<Plain>(dbcache::ClassTable{.nodetype = nodetype::MountPoint,
                                                        .tql_class = cls::MountPoint,
                                                        .properties = kMountPointRows,
                                                        .children = kMountedDomain}));
        table.seal();
    };
}

// ---- a tree of them ----------------------------------------------------------------------------

/// The groups of a node that have no storage.
enum node_group_t : uint32_t { net_group, agent_group, snmp_group, esxi_group };

struct CountedTree {
    explicit CountedTree(const TestStore::Sizes& sizes = {})
        : world(sizes, counted_classes(hook)) {}

    NodeId domain(const NodeId& parent) { return world.domain(parent, next_name()); }
    NodeId node(const NodeId& parent) { return world.node(parent, next_name()); }
    NodeId mount_point(const NodeId& parent) {
        return world.create(parent, cls::MountPoint, {text(prop::name, next_name())});
    }
    /// Directly below a node, in one of its groups.
    NodeId in_node(const NodeId& node, node_group_t where, bool active = true) {
        const bool is_check = where == net_group;
        return world.create(tql::id_t(node.first, node.second, where),
                            is_check ? cls::Check : cls::CheckGroup,
                            values(where, active, is_check));
    }
    NodeId group(const NodeId& parent, node_group_t kind) {
        return world.create(parent, cls::CheckGroup, values(kind, false, false));
    }
    NodeId check(const NodeId& parent, bool active = true) {
        return world.create(parent, cls::Check, values(agent_group, active, true));
    }
    void set_active(const NodeId& id, bool active) {
        Values one;
        one.push_back(flag(prop::active, active));
        world.update(id, one);
    }
    /// An empty key is a null.
    void set_key(const NodeId& node, std::optional<uint32_t> key) {
        Values one;
        one.push_back(key ? std::make_unique<tql::property_bignum_t>(prop::keySecret, BigNum(*key))
                          : std::make_unique<tql::property_bignum_t>(
                                tql::property_bignum_t::null(prop::keySecret)));
        world.update(node, one);
    }
    void move(const NodeId& id, const NodeId& parent) {
        world.update(id, {object(prop::parentId, parent)});
    }

    /// The counters of an object that aren't 0, as "countNodes=2 countNetChecks=1", by number.
    std::string counters(const NodeId& id) {
        std::string shown;
        for (const auto& [number, value] : world.values(id))
            if (number >= prop::countNetChecks && number <= prop::countEsxiChecks &&
                value->print() != "0")
                shown += fmt::format("{}{}={}", shown.empty() ? "" : " ",
                                     tql::property_name(number), value->print());
        return shown;
    }
    [[nodiscard]] dbcache::Store::Parts parts() {
        return {*world.database, *world.objects, *world.indexes, world.schemas, world.clock};
    }
    /// What the comparing walk says; empty when all is well.
    std::string fault() {
        try {
            dbcache::verify_accounting(parts());
        } catch (const dbcache::VerifyError& wrong) {
            return wrong.text();
        }
        return world.fault();
    }

    AccountHook hook;
    TestStore world;

  private:
    std::string next_name() { return fmt::format("n{}", ++names_); }
    Values values(node_group_t kind, bool active, bool is_check) {
        Values made;
        made.push_back(text(kind == snmp_group && !is_check ? prop::tag : prop::name, next_name()));
        if (is_check) made.push_back(flag(prop::active, active));
        return made;
    }

    uint32_t names_ = 0;
};

}  // namespace dbcache_test
