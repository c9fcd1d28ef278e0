// All or nothing: each kind of write is made to fail at every step that can fail, by itself and
// within a transaction that goes on, and is compared with what was there before: every stored
// object and index, every handler, the cache and the index of siblings. The same write without a
// fault then succeeds, and an abort around it takes it back.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>

#include "dbcache/detail/record_writer.h"
#include "support/store_snapshot.h"
#include "support/test_store.h"
#include "support/trial_classes.h"

using namespace dbcache_test;
using dbcache::kRootId;
using dbcache::ObjectHandler;
using dbcache::StoreTransaction;

namespace {

tql::value_t flag(uint32_t property, bool value) {
    return std::make_unique<tql::property_boolean_t>(property, value);
}
tql::value_t objects(uint32_t property, const std::vector<NodeId>& ids) {
    std::set<tql::id_t> all;
    for (const NodeId& id : ids) all.insert(tql::id_t::from_node_id(id));
    return std::make_unique<tql::property_object_set_t>(property, std::move(all));
}

/// A tree in which every trial class stands, under the names of its objects.
class TrialWorld {
  public:
    explicit TrialWorld(const TestStore::Sizes& sizes = {.block = 1024,
                                                         .journal = 256 * 1024,
                                                         .capacity = 1 << 20})
        : store(sizes, trial_classes(trials)) {
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
        dbcache::RecordWriter writer(store.database->serializer());
        writer.add_head({9, 9}, at("s"), {}, nodetype::Plan);
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
};

/// Runs `write` while the first hook of an update of `of` does `inside`.
void with_hook(TrialWorld& world, Trials::Hook Trials::*hook, const char* of,
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

const Write kWrites[] = {
    {"create a folder", [](TrialWorld& w) { w.folder("new", w.at("g"), {}); }},
    {"create a check",
     [](TrialWorld& w) { w.check("new", w.at("n"), {flag(prop::active, true)}); }},
    {"create an inheriting machine",
     [](TrialWorld& w) { w.machine("new", w.at("r"), {object(prop::inherits, w.at("m"))}); }},
    {"update in place", [](TrialWorld& w) { w.update("f", number(prop::order, 8)); }},
    {"growing update",
     [](TrialWorld& w) { w.update("f", text(prop::label, std::string(600, 'x'))); }},
    {"rename", [](TrialWorld& w) { w.update("m", text(prop::name, "renamed")); }},
    {"activate", [](TrialWorld& w) { w.update("c1", flag(prop::active, true)); }},
    {"deactivate", [](TrialWorld& w) { w.update("ac", flag(prop::active, false)); }},
    {"begin to inherit", [](TrialWorld& w) { w.update("m", object(prop::inherits, w.at("q"))); }},
    {"inherit from another",
     [](TrialWorld& w) { w.update("g", object(prop::inherits, w.at("h"))); }},
    {"stop to inherit", [](TrialWorld& w) { w.update("n", null_object(prop::inherits)); }},
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
                 w.update("c1", flag(prop::active, true));
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

class AtomicTest : public ::testing::TestWithParam<Write> {
  protected:
    AtomicTest() { build(); }

    void build() {
        world = std::make_unique<TrialWorld>();
        before = std::make_unique<StoreSnapshot>(world->store);
    }
    /// True when the write threw.
    bool fails() {
        try {
            GetParam().run(*world);
            return false;
        } catch (const error::Exception&) {
            return true;
        }
    }
    void expect_unchanged() { EXPECT_EQ(before->difference(StoreSnapshot(world->store)), ""); }
    /// The write without a fault, taken back by the transaction around it.
    void expect_possible() {
        {
            const StoreTransaction outer(*world->store.store);
            EXPECT_FALSE(fails());
        }
        expect_unchanged();
    }
    /// Has each step that `steps` counts throw.
    void fail_at_every_step(Trials TrialWorld::*steps, const std::function<void()>& thrown) {
        uint64_t k = 1;
        for (; k < 1000 && !HasFailure(); ++k) {
            SCOPED_TRACE(fmt::format("step {}", k));
            (world.get()->*steps).at_step(k, thrown);
            const bool failed = fails();
            const bool struck = (world.get()->*steps).struck();
            (world.get()->*steps).off();
            if (!failed) {
                build();
                if (!struck) break;
                continue;  // a step whose failure is no failure of the write
            }
            expect_unchanged();
            fail_within(steps, k, thrown);
            expect_possible();
        }
        EXPECT_LT(k, 1000U);
    }
    /// The same failure in a transaction that doesn't end by it.
    void fail_within(Trials TrialWorld::*steps, uint64_t k, const std::function<void()>& thrown) {
        {
            const StoreTransaction outer(*world->store.store);
            world->update("q", text(prop::label, "in the outer one"));
            const StoreSnapshot meanwhile(world->store);
            (world.get()->*steps).at_step(k, thrown);
            EXPECT_TRUE(fails());
            (world.get()->*steps).off();
            EXPECT_EQ(meanwhile.difference(StoreSnapshot(world->store)), "");
        }
        expect_unchanged();
    }

    std::unique_ptr<TrialWorld> world;
    std::unique_ptr<StoreSnapshot> before;
};

void throw_refusal() {
    throw errors::tql(errors::ERR_ILLEGAL_VALUE, "trial");
}
void throw_fault() {
    throw mdb::error_transact("Transaction log full");
}

}  // namespace

TEST_P(AtomicTest, ASchemaThatThrowsUndoesIt) {
    for (const auto& thrown : {throw_refusal, throw_fault})
        fail_at_every_step(&TrialWorld::trials, thrown);
}

TEST_P(AtomicTest, AStoreThatRefusesAChangeUndoesIt) {
    fail_at_every_step(&TrialWorld::changes, throw_fault);
}

/// Takes room in the journal until `room` bytes are left, by updates that change nothing.
void fill_journal(TestStore& store, uint32_t room) {
    // An update takes a head of 20 bytes and what it writes, together a multiple of 8.
    constexpr uint32_t kHead = 20;
    constexpr uint32_t kMost = kHead + 1020;
    const auto place = store.indexes->unique_find(mdb::node_id_index, kRootId);
    const mdb::dobj root = store.objects->load_object(*place);
    mdb::Journal& journal = store.database->journal();
    while (journal.free_space() > room) {
        const uint32_t rest = journal.free_space() - room;
        // Two for the end, so that none is left with less than a head.
        const uint32_t whole = rest > 2 * kMost ? kMost : rest > kMost ? rest / 2 & ~7U : rest;
        journal.journal_update(root.data, whole - kHead,
                               store.database->store().block_offset(root.block));
    }
}

/// The journal fills up at each of the updates of blocks that the write makes.
TEST_P(AtomicTest, AJournalWithoutRoomUndoesIt) {
    // No update of a block takes less, so each of them is the one that fails for some room.
    constexpr uint32_t kSmallestUpdate = 24;
    bool failed = true;
    uint32_t room = 8;
    for (; failed && room < 64 * 1024 && !HasFailure(); room += kSmallestUpdate) {
        SCOPED_TRACE(fmt::format("room {}", room));
        {
            const StoreTransaction outer(*world->store.store);
            fill_journal(world->store, room);
            const StoreSnapshot meanwhile(world->store);
            failed = fails();
            if (failed) {
                EXPECT_EQ(meanwhile.difference(StoreSnapshot(world->store)), "");
            }
        }
        expect_unchanged();
    }
    EXPECT_FALSE(failed);
    EXPECT_GT(room, kSmallestUpdate + 8);
}

/// Memory after a write is what a server finds that starts then.
TEST_P(AtomicTest, WithoutAFaultMemoryAndFileAgree) {
    GetParam().run(*world);
    StoreSnapshot::load_all(world->store);
    const StoreSnapshot after(world->store);
    EXPECT_NE(before->difference(after), "");
    world->store.open();
    world->store.store->cache().cache_set_limits(1000, 1000, 1000);
    StoreSnapshot::load_all(world->store);
    EXPECT_EQ(after.difference(StoreSnapshot(world->store)), "");
}

INSTANTIATE_TEST_SUITE_P(Writes, AtomicTest, ::testing::ValuesIn(kWrites), [](const auto& write) {
    std::string name = write.param.name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
});
