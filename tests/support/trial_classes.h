// A small tree of classes in which every rule of the object layer turns up, for tests that try the
// layer as a whole:
//
//   Folder (Domain)   references of every sort, inherits, all counters, marks
//     Folder, Machine, Mount, Settings
//   Machine (Node)    inherits from machines; counters; counts by what it has
//     group 0: Check (NetCheck)         two subtypes, always marked, counted, with a series
//     group 1: CheckGroup               nests; on the way of marks and counters
//                CheckGroup, Check (AgentCheck)   marked and counted while active
//     Plan                              with a series
//   Mount (MountPoint)                  counters end here
//     Folder
//   Settings (GridConfig)               a singleton
//
// Marks and counters follow the same rules as in the system's own classes, so that the
// verifications of stored lists and counters hold for these objects too.
//
// Everything that a class adds to the work of the layer, a hook or a step of a property, can be
// made to throw or to do something by itself; see Trials.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "dbcache/accounting.h"
#include "dbcache/class_table.h"
#include "dbcache/object_handler.h"
#include "dbcache/property_kinds.h"
#include "dbcache/schema_table.h"
#include "dbcache/special_kinds.h"
#include "tql/names.h"

namespace dbcache_test {

/// What the code of the trial classes does beside its work; nothing unless a test says so.
struct Trials {
    using Hook = std::function<void(dbcache::ObjectHandler&)>;
    Hook after_update, after_store, before_delete;

    /// From now on the `n`-th step, 1 being the next, does `what`, once.
    void at_step(uint64_t n, std::function<void()> what) {
        left_ = n;
        what_ = std::move(what);
    }
    void off() { left_ = 0; }
    /// Whether the step that was asked for has come.
    [[nodiscard]] bool struck() const { return left_ == 0; }
    /// Called by the classes: once for each hook and each step of a property.
    void step() {
        if (left_ == 0 || --left_ > 0) return;
        what_();
    }

  private:
    uint64_t left_ = 0;
    std::function<void()> what_;
};

/// A property each of whose operations is a step.
template <class Base>
class TrialProperty : public Base {
  public:
    template <class... Args>
    explicit TrialProperty(Trials& trials, Args&&... args)
        : Base(std::forward<Args>(args)...), trials_(trials) {}

    void initial(dbcache::work_t& out) const override {
        trials_.step();
        Base::initial(out);
    }
    void load(const dbcache::PropertyChain& chain, dbcache::work_t& out) const override {
        trials_.step();
        Base::load(chain, out);
    }
    void assign(const tql::property_t& value, const dbcache::SchemaObject& object,
                const dbcache::PropertyChain& chain, dbcache::work_t& work) const override {
        trials_.step();
        Base::assign(value, object, chain, work);
    }
    void validate(const dbcache::SchemaObject& object, const dbcache::PropertyChain& chain,
                  dbcache::work_t& work) const override {
        Base::validate(object, chain, work);
        trials_.step();
    }
    void store(const NodeId& id, const dbcache::PropertyChain& chain, const dbcache::work_t& work,
               const dbcache::work_t& old, dbcache::RecordSink& sink) const override {
        Base::store(id, chain, work, old, sink);
        trials_.step();
    }
    [[nodiscard]] int compare(const dbcache::work_t& a, const dbcache::work_t& b) const override {
        trials_.step();
        return Base::compare(a, b);
    }
    [[nodiscard]] uint64_t hash(const dbcache::work_t& work) const override {
        trials_.step();
        return Base::hash(work);
    }

  private:
    Trials& trials_;
};

/// For the predicates of marks, which get the schema.
class Trying {
  public:
    explicit Trying(Trials& given) : trials(given) {}
    virtual ~Trying() = default;
    Trials& trials;
};

/// The value of a boolean among working values; false for a null.
inline bool is_set(const dbcache::NodetypeSchema& schema, const dbcache::WorkArray& work,
                   uint32_t number) {
    const auto index = schema.lookupProperty(number, dbcache::kAllSubtypes);
    if (!index || work[*index].is_null()) return false;
    return static_cast<const mdb::PropertyBool&>(*work[*index].prop).value;
}
inline bool is_active_check(const dbcache::ObjectHandler& handler, const dbcache::WorkArray& work) {
    const dbcache::NodetypeSchema& schema = handler.schema();
    dynamic_cast<const Trying&>(schema).trials.step();
    return handler.nodetype() == nodetype::NetCheck || is_set(schema, work, prop::active);
}
inline bool is_heir(const dbcache::ObjectHandler& handler, const dbcache::WorkArray& work) {
    const dbcache::NodetypeSchema& schema = handler.schema();
    dynamic_cast<const Trying&>(schema).trials.step();
    const auto index = schema.lookupProperty(prop::inherits, dbcache::kAllSubtypes);
    return index && !work[*index].is_null();
}

template <class Base = dbcache::NodetypeSchema>
class TrialSchema : public dbcache::TableSchema<Base>, public Trying {
  public:
    /// `own_use` is the counter that an object of the class adds one to, 0 for none; with
    /// `while_active` only while it is active.
    TrialSchema(Trials& given, const dbcache::ClassTable& table, uint32_t own_use = 0,
                bool while_active = false)
        : dbcache::TableSchema<Base>(table),
          Trying(given),
          own_use_(own_use),
          while_active_(while_active) {}

    void validate(const dbcache::SchemaObject& object, const dbcache::PropertyChain& chain,
                  dbcache::WorkArray& work, const NodeId& new_parent) const override {
        dbcache::TableSchema<Base>::validate(object, chain, work, new_parent);
        trials.step();
    }
    void afterUpdate(dbcache::ObjectHandler& handler, tqlengine::RequestContext&,
                     dbcache::WorkArray&) const override {
        trials.step();
        if (trials.after_update) trials.after_update(handler);
    }
    void afterStore(dbcache::ObjectHandler& handler) const override {
        trials.step();
        if (trials.after_store) trials.after_store(handler);
    }
    void beforeDelete(dbcache::ObjectHandler& handler) const override {
        trials.step();
        if (trials.before_delete) trials.before_delete(handler);
    }
    void getUse(const dbcache::WorkArray& work, dbcache::UseMap& use) const override {
        trials.step();
        use.clear();
        if (own_use_ != 0 && (!while_active_ || is_set(*this, work, prop::active)))
            use[own_use_] = 1;
    }
    /// Everything goes on upward as it came.
    void account(const dbcache::SchemaObject&, const dbcache::WorkArray&,
                 dbcache::UseMap&) const override {
        trials.step();
    }
    [[nodiscard]] uint32_t subtypeFromChain(const dbcache::PropertyChain& chain) const override {
        if (!has_subtypes()) return dbcache::TableSchema<Base>::subtypeFromChain(chain);
        mdb::PropertyUint32 type(prop::type);
        return chain.read(0, type) == dbcache::found_t::value ? type.value : 0;
    }
    [[nodiscard]] uint32_t subtypeFromWork(const dbcache::WorkArray& work) const override {
        if (!has_subtypes()) return dbcache::TableSchema<Base>::subtypeFromWork(work);
        const auto& type = work[*this->subtypeProperty(prop::type)];
        return type.is_null() ? 0 : static_cast<const mdb::PropertyUint32&>(*type.prop).value;
    }

  private:
    [[nodiscard]] bool has_subtypes() const {
        return this->subtypeProperty(prop::type).has_value();
    }

    const uint32_t own_use_;
    const bool while_active_;
};

/// A node without a key: it counts as one node, and in a class of nodes by its checks.
class TrialNodeSchema final : public TrialSchema<> {
  public:
    using TrialSchema::TrialSchema;
    void getUse(const dbcache::WorkArray& work, dbcache::UseMap& use) const override {
        trials.step();
        use = dbcache::node_use(counts(work, {}));
    }
    void account(const dbcache::SchemaObject&, const dbcache::WorkArray& work,
                 dbcache::UseMap& use) const override {
        trials.step();
        const dbcache::UseMap before = dbcache::node_use(counts(work, {}));
        const dbcache::UseMap after = dbcache::node_use(counts(work, use));
        for (const auto& [counter, difference] : dbcache::get_use_diff(before, after))
            dbcache::add_use(use, counter, difference);
    }

  private:
    [[nodiscard]] dbcache::NodeCounts counts(const dbcache::WorkArray& work,
                                             const dbcache::UseMap& added) const {
        const auto count = [&](uint32_t number) {
            const auto& stored = work[findProperty(number, dbcache::kAllSubtypes)];
            const auto more = added.find(number);
            return dbcache::add_to_counter(
                stored.is_null() ? 0 : static_cast<const mdb::PropertyCount&>(*stored.prop).value,
                more == added.end() ? 0 : more->second);
        };
        return {.net_checks = count(prop::countNetChecks),
                .agent_checks = count(prop::countAgentChecks)};
    }
};

namespace trial {

using dbcache::C;
using dbcache::K;
using dbcache::kind_t;
using dbcache::N;
using dbcache::R;
using dbcache::X;

// clang-format off
inline constexpr uint32_t kFolders[] = {cls::Domain};
inline constexpr uint32_t kMachines[] = {cls::Node};
inline constexpr uint32_t kType0[] = {0};
inline constexpr uint32_t kType1[] = {1};

inline constexpr dbcache::PropertyRow kParent = {.number = prop::parentId, .kind = kind_t::object, .flags = N | X};
inline constexpr dbcache::PropertyRow kLabel = {.number = prop::label, .kind = kind_t::string, .flags = N};
inline constexpr dbcache::PropertyRow kNetCount = {.number = prop::countNetChecks, .kind = kind_t::count, .flags = R};
inline constexpr dbcache::PropertyRow kAgentCount = {.number = prop::countAgentChecks, .kind = kind_t::count, .flags = R};
inline constexpr dbcache::PropertyRow kNodeCount = {.number = prop::countNodes, .kind = kind_t::count, .flags = R};
inline constexpr dbcache::PropertyRow kNetNodeCount = {.number = prop::countNetCheckNodes, .kind = kind_t::count, .flags = R};
inline constexpr dbcache::PropertyRow kOnTheWay = {.number = prop::activeMark, .kind = kind_t::mark, .flags = X | R};
inline constexpr dbcache::PropertyRow kActiveMark = {.number = prop::activeMark, .kind = kind_t::mark, .flags = X | R, .member = is_active_check};
inline constexpr dbcache::PropertyRow kInheritsMark = {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R, .member = is_heir};

inline constexpr dbcache::PropertyRow kFolderRows[] = {
    kParent, kLabel, kNetCount, kAgentCount, kNodeCount, kNetNodeCount, kOnTheWay, kInheritsMark,
    {.number = prop::countSnmpChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countEsxiChecks, .kind = kind_t::count, .flags = R},
    {.number = prop::countAgentCheckNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countAgentLimitNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countSnmpCheck10Nodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countSnmpCheckInfNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::countEsxiNodes, .kind = kind_t::count, .flags = R},
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kFolders},
    {.number = prop::alertGroup, .kind = kind_t::object, .flags = N | X, .classes = kFolders, .own_domains_only = true},
    {.number = prop::owner, .kind = kind_t::object, .flags = N},
    {.number = prop::dependsOn, .kind = kind_t::acyclic_set, .flags = X, .classes = kFolders},
};
inline constexpr dbcache::PropertyRow kMachineRows[] = {
    kParent, kLabel, kNetCount, kAgentCount, kOnTheWay, kInheritsMark,
    {.number = prop::inherits, .kind = kind_t::object, .flags = N | X, .classes = kMachines},
};
inline constexpr dbcache::PropertyRow kCheckRows[] = {
    kParent, kActiveMark,
    {.number = prop::type, .kind = kind_t::u32, .flags = X, .initial = 0, .low = 0, .high = 1, .determines_subtype = true},
    {.number = prop::port, .kind = kind_t::u32, .flags = X, .initial = 80, .subtypes = kType0},
    {.number = prop::value, .kind = kind_t::string, .flags = X, .subtypes = kType1},
    {.number = prop::active, .kind = kind_t::boolean, .flags = X},
    {.number = prop::tsdbIndex, .kind = kind_t::series, .flags = X | R},
};
inline constexpr dbcache::PropertyRow kGroupRows[] = {kParent, kNetCount, kAgentCount, kOnTheWay};
inline constexpr dbcache::PropertyRow kPlanRows[] = {
    kParent, {.number = prop::tsdbIndex, .kind = kind_t::series, .flags = X | R},
};
inline constexpr dbcache::PropertyRow kMountRows[] = {kParent, kNetCount, kAgentCount, kNodeCount, kNetNodeCount, kOnTheWay, {.number = prop::inheritsMark, .kind = kind_t::mark, .flags = X | R}};
inline constexpr dbcache::PropertyRow kSettingsRows[] = {kLabel};

inline constexpr dbcache::ChildRow kFolderChildren[] = {
    {cls::Domain, nodetype::Domain}, {cls::Node, nodetype::Node}, {cls::MountPoint, nodetype::MountPoint}, {cls::GridConfig, nodetype::GridConfig}};
inline constexpr dbcache::ChildRow kMountChildren[] = {{cls::Domain, nodetype::Domain}};
inline constexpr dbcache::ChildRow kMachineChildren[] = {{cls::Plan, nodetype::Plan}};
inline constexpr dbcache::ChildRow kNetChecks[] = {{cls::Check, nodetype::NetCheck}};
inline constexpr dbcache::ChildRow kAgentChecks[] = {{cls::CheckGroup, nodetype::AgentCheckGroup}};
inline constexpr dbcache::ChildRow kGroupChildren[] = {{cls::CheckGroup, nodetype::AgentCheckGroup}, {cls::Check, nodetype::AgentCheck}};
inline constexpr dbcache::GroupRow kMachineGroups[] = {
    {0, cls::CheckGroup, kNetChecks, "netchecks", "NetChecks", "NetChecks on "},
    {1, cls::CheckGroup, kAgentChecks, "agentchecks", "AgentChecks", "AgentChecks on "}};
// clang-format on

}  // namespace trial

/// Registers one class with a name as its key and, where it may inherit one, an order.
template <class Schema = TrialSchema<>>
void add_trial_class(dbcache::SchemaTable& table, Trials& trials, dbcache::ClassTable columns,
                     uint32_t own_use = 0, bool while_active = false) {
    columns.sibling_name = prop::name;
    auto schema = std::make_unique<Schema>(trials, columns, own_use, while_active);
    schema->addPropertySchema(std::make_shared<TrialProperty<dbcache::PropertyStringSchema>>(
        trials, prop::name, dbcache::K | dbcache::X));
    if (schema->lookupProperty(prop::inherits, dbcache::kAllSubtypes))
        schema->addPropertySchema(std::make_shared<TrialProperty<dbcache::PropertyUI32Schema>>(
            trials, prop::order, 0U, dbcache::Defaults<uint32_t>::both(5)));
    table.registerSchema(std::move(schema));
}

/// `trials` must outlive the table.
inline std::function<void(dbcache::SchemaTable&)> trial_classes(Trials& trials) {
    return [&trials](dbcache::SchemaTable& table) {
        using namespace trial;
        const auto add = [&](const dbcache::ClassTable& columns, uint32_t own_use = 0,
                             bool while_active = false) {
            add_trial_class(table, trials, columns, own_use, while_active);
        };
        add({.nodetype = nodetype::Domain,
             .tql_class = cls::Domain,
             .properties = kFolderRows,
             .children = kFolderChildren});
        add_trial_class<TrialNodeSchema>(table, trials,
                                         {.nodetype = nodetype::Node,
                                          .tql_class = cls::Node,
                                          .properties = kMachineRows,
                                          .children = kMachineChildren,
                                          .groups = kMachineGroups});
        add({.nodetype = nodetype::NetCheck, .tql_class = cls::Check, .properties = kCheckRows},
            prop::countNetChecks);
        add({.nodetype = nodetype::AgentCheck, .tql_class = cls::Check, .properties = kCheckRows},
            prop::countAgentChecks, true);
        add({.nodetype = nodetype::AgentCheckGroup,
             .tql_class = cls::CheckGroup,
             .properties = kGroupRows,
             .children = kGroupChildren});
        add({.nodetype = nodetype::Plan, .tql_class = cls::Plan, .properties = kPlanRows});
        add({.nodetype = nodetype::MountPoint,
             .tql_class = cls::MountPoint,
             .properties = kMountRows,
             .children = kMountChildren});
        add_trial_class<TrialSchema<dbcache::SingletonSchema>>(table, trials,
                                                               {.nodetype = nodetype::GridConfig,
                                                                .tql_class = cls::GridConfig,
                                                                .properties = kSettingsRows});
        table.seal();
    };
}

}  // namespace dbcache_test
