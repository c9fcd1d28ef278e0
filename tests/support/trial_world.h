// TrialWorld: a store with a tree in which every trial class stands, and the sorts of writes that
// such a tree sees. For tests that let each of them fail in every way.
#pragma once

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <ostream>
#include <set>
#include <string>

#include "dbcache/accounting_rebuild.h"
#include "dbcache/mark_verify.h"
#include "mdb/serializer.h"
#include "support/store_snapshot.h"
#include "support/test_store.h"
#include "support/trial_classes.h"

namespace dbcache_test {

using dbcache::kRootId;
using dbcache::ObjectHandler;

inline tql::value_t objects(uint32_t property, const std::vector<NodeId>& ids) {
    std::set<tql::id_t> all;
    for (const NodeId& id : ids) all.insert(tql::id_t::from_node_id(id));
    return std::make_unique<tql::property_object_set_t>(property, std::move(all));
}

/// Gives the root of a new store the counters that the start of a server gives it. Without them
/// the verification of counters holds back.
inline void start_counting(TestStore& store) {
    dbcache::ensure_accounting(
        {*store.database, *store.objects, *store.indexes, store.schemas, store.clock, {}});
}

/// What the verification of the file says of its structures, mark lists and counters; empty when
/// all is well.
inline std::string verification(TestStore& store) {
    if (dbcache::accounting_is_missing(
            {*store.database, *store.objects, *store.indexes, store.schemas, store.clock, {}}))
        return "the root lacks counters";
    const auto marks = dbcache::make_mark_check();
    const auto counters = dbcache::make_accounting_check();
    mdb::VerifyOptions options;
    options.checks = {marks.get(), counters.get()};
    return mdb::verify(*store.database, options).text();
}

/// A tree in which every trial class stands, under the names of its objects.
class TrialWorld {
  public:
    explicit TrialWorld(const TestStore::Sizes& sizes = {.block = 1024,
                                                         .journal = 256 * 1024,
                                                         .capacity = 1 << 20})
        : store(sizes, trial_classes(trials)) {
        start_counting(store);
        watch_store();
        folder("f", kRootId, {text(prop::label, "first"), number(prop::order, 7)});
        folder("g", at("f"), {object(prop::inherits, at("f")), object(prop::alertGroup, at("f"))});
        folder("h", kRootId, {object(prop::owner, at("g"))});
        folder("s", kRootId, {objects(prop::dependsOn, {at("f"), at("g")})});
        machine("m", at("f"), {text(prop::label, "machine")});
        check("c0", at("m"), {flag(prop::active, true), number(prop::port, 25)});
        check("c1", at("m"), {number(prop::type, 1), text(prop::value, "x")});
        add("cg", tql::id_t{at("m").first, at("m").second, 1}, cls::CheckGroup, {});
        add("cg2", at("cg"), cls::CheckGroup, {});
        add("ac", at("cg"), cls::Check, {flag(prop::active, true)});
        add("ac2", at("cg2"), cls::Check, {});
        add("p", at("m"), cls::Plan, {});
        machine("n", at("f"), {object(prop::inherits, at("m"))});
        add("mp", at("h"), cls::MountPoint, {});
        folder("r", at("mp"), {});
        machine("q", at("r"), {});
        check("qc", at("q"), {flag(prop::active, true)});
        add("set", at("h"), cls::GridConfig, {});
        store_stray();
        store.store->cache().cache_set_limits(1000, 1000, 1000);
        StoreSnapshot::load_all(store);
    }

    [[nodiscard]] const NodeId& at(const std::string& name) const { return ids_.at(name); }
    template <class Parent>
    void add(const std::string& name, const Parent& parent, uint32_t class_number, Values values) {
        values.push_back(text(prop::name, name));
        ids_[name] = store.create(parent, class_number, values);
    }
    void folder(const std::string& name, const NodeId& parent, Values values) {
        add(name, parent, cls::Domain, std::move(values));
    }
    void machine(const std::string& name, const NodeId& parent, Values values) {
        add(name, parent, cls::Node, std::move(values));
    }
    void check(const std::string& name, const NodeId& machine, Values values) {
        add(name, tql::id_t{machine.first, machine.second, 0}, cls::Check, std::move(values));
    }
    void update(const std::string& name, tql::value_t value) {
        Values values;
        values.push_back(std::move(value));
        store.update(at(name), values);
    }
    void list(const std::string& name) { static_cast<void>(store.children(at(name))); }

    /// From now on the `n`-th change of a stored object does `what`, once.
    Trials changes;
    Trials trials;
    TestStore store;

  private:
    /// An object that can't stand where it does.
    void store_stray() {
        mdb::Serializer& writer = store.database->serializer();
        writer.serial_reset();
        writer.serial_add(mdb::PropertyNodeId(prop::id, {9, 9}));
        writer.serial_add(mdb::PropertyNodeId(prop::parentId, at("s")));
        writer.serial_add(mdb::PropertyVersion(prop::version, {}));
        writer.serial_add(dbcache::PropertyNodeType(
            prop::nodeType, static_cast<dbcache::node_type_t>(nodetype::Plan)));
        static_cast<void>(store.objects->store_object({}));
    }
    void watch_store() {
        store.objects->set_object_change_hook([this](mdb::block_handle_t handle) {
            ASSERT_FALSE(store.store->cache().contains(handle));
            changes.step();
        });
    }

    std::map<std::string, NodeId> ids_;
};

struct Write {
    const char* name;
    std::function<void(TrialWorld&)> run;

    /// The name as gtest wants it.
    [[nodiscard]] std::string test_name() const {
        std::string text = name;
        std::replace(text.begin(), text.end(), ' ', '_');
        return text;
    }
};
inline void PrintTo(const Write& write, std::ostream* out) {
    *out << write.name;
}

/// Runs `write` while the first hook of an update of `of` does `inside`.
inline void with_hook(TrialWorld& world, Trials::Hook Trials::*hook, const char* of,
                      const std::function<void()>& inside, const std::function<void()>& write) {
    bool busy = false;
    world.trials.*hook = [&](ObjectHandler& handler) {
        if (busy || handler.node_id() != world.at(of)) return;
        busy = true;
        inside();
    };
    struct Off {
        ~Off() { hook = {}; }
        Trials::Hook& hook;
    } const off{world.trials.*hook};
    write();
}

inline const Write kWrites[] = {
    {"create a folder", [](TrialWorld& w) { w.folder("new", w.at("g"), {}); }},
    {"create a check",
     [](TrialWorld& w) { w.check("new", w.at("n"), {flag(prop::active, true)}); }},
    {"create an inheriting machine",
     [](TrialWorld& w) { w.machine("new", w.at("r"), {object(prop::inherits, w.at("m"))}); }},
    {"update in place", [](TrialWorld& w) { w.update("f", number(prop::order, 8)); }},
    {"growing update",
     [](TrialWorld& w) { w.update("f", text(prop::label, std::string(600, 'x'))); }},
    {"rename", [](TrialWorld& w) { w.update("m", text(prop::name, "renamed")); }},
    {"activate", [](TrialWorld& w) { w.update("ac2", flag(prop::active, true)); }},
    {"deactivate", [](TrialWorld& w) { w.update("ac", flag(prop::active, false)); }},
    {"begin to inherit", [](TrialWorld& w) { w.update("m", object(prop::inherits, w.at("q"))); }},
    {"inherit from another",
     [](TrialWorld& w) { w.update("g", object(prop::inherits, w.at("h"))); }},
    {"stop to inherit", [](TrialWorld& w) { w.update("n", null_object(prop::inherits)); }},
    {"take a copied version",
     [](TrialWorld& w) {
         w.update("f", std::make_unique<tql::property_version_t>(prop::copyVersion,
                                                                 tql::version_t{9, 9}));
     }},
    {"change the subtype", [](TrialWorld& w) { w.update("c0", number(prop::type, 1)); }},
    {"set references", [](TrialWorld& w) { w.update("f", objects(prop::dependsOn, {w.at("h")})); }},
    {"move a leaf", [](TrialWorld& w) { w.update("ac", object(prop::parentId, w.at("cg2"))); }},
    {"move a machine", [](TrialWorld& w) { w.update("m", object(prop::parentId, w.at("r"))); }},
    {"move a folder", [](TrialWorld& w) { w.update("r", object(prop::parentId, w.at("g"))); }},
    {"delete a check", [](TrialWorld& w) { w.store.remove(w.at("c0")); }},
    {"delete a plan", [](TrialWorld& w) { w.store.remove(w.at("p")); }},
    {"delete a subtree", [](TrialWorld& w) { w.store.remove(w.at("f")); }},
    {"discard a stray", [](TrialWorld& w) { w.list("s"); }},
    {"create in afterStore",
     [](TrialWorld& w) {
         with_hook(
             w, &Trials::after_store, "m",
             [&] { w.check("made", w.at("m"), {flag(prop::active, true)}); },
             [&] { w.update("m", text(prop::label, "with a check")); });
     }},
    {"create in afterUpdate",
     [](TrialWorld& w) {
         with_hook(
             w, &Trials::after_update, "n",
             [&] { w.check("made", w.at("n"), {flag(prop::active, true)}); },
             [&] { w.update("n", text(prop::label, "with a check")); });
     }},
    {"update in afterStore",
     [](TrialWorld& w) {
         with_hook(
             w, &Trials::after_store, "f",
             [&] {
                 w.update("ac2", flag(prop::active, true));
                 w.update("m", text(prop::name, "renamed"));
             },
             [&] { w.update("f", number(prop::order, 9)); });
     }},
    {"delete in afterUpdate",
     [](TrialWorld& w) {
         with_hook(
             w, &Trials::after_update, "f", [&] { w.store.remove(w.at("m")); },
             [&] { w.update("f", number(prop::order, 9)); });
     }},
    {"move in beforeDelete",
     [](TrialWorld& w) {
         with_hook(
             w, &Trials::before_delete, "r",
             [&] { w.update("q", object(prop::parentId, w.at("h"))); },
             [&] { w.store.remove(w.at("r")); });
     }},
};

}  // namespace dbcache_test
