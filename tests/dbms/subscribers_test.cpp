// Subscriptions from the events that make them to the events that come out of them, over a real
// store: states and their times, and who is told of what.
#include "dbms/subscribers.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

#include "dbcache/object_view.h"
#include "dbms/dispatcher.h"
#include "log/log.h"
#include "test_family.h"
#include "tql/query_text.h"
#include "tqlengine/requests.h"

namespace dbms {
namespace {

using queues::queue_t;
using tqlengine::object_operation_t;

constexpr uint32_t kRequest = 50;
constexpr uint32_t kPlain = tqlengine::kSelectSubscribe;
constexpr uint32_t kAcknowledged = kPlain | tqlengine::kSelectAcknowledge;
constexpr uint32_t kPatchable = kPlain | tqlengine::kSelectPatchable;

/// Knows nobody, and takes its time to say so.
struct SlowResolver final : tqlengine::TqlIdResolver {
    explicit SlowResolver(support::FakeClock& its_clock) : clock(its_clock) {}
    tqlengine::HandlerRef find(const tql::id_t&) override {
        clock.advance_us(takes_us);
        return {};
    }
    bool obviousMatches(tqlengine::HandlerList&, const tql::id_t&, const tql::pattern_t&) override {
        return false;
    }
    void erase(tqlengine::HandlerRef) override {}

    support::FakeClock& clock;
    uint64_t takes_us = 0;
};

std::string brief(const tql::result_t& node) {
    std::string text = node.id.to_string();
    for (const tql::result_t& child : node.children) text += ">" + brief(child);
    return text;
}

/// "NUMBER/UID" and what the event tells.
std::string told_by(const queues::event& received) {
    std::string text = fmt::format("{}/{}", static_cast<int>(received.number()), received.uid);
    if (const auto* failure = dynamic_cast<const queues::exevent*>(&received))
        return fmt::format("exception {} {}", failure->uid, failure->text);
    switch (received.number()) {
        case queues::RETURN_TQL_SELECT: {
            const auto& record = queues::data<queues::RETURN_TQL_SELECT>(received);
            if (record.status != 0) text += fmt::format(" status {}", record.status);
            for (const tql::result_t& tree : record.res) text += " " + brief(tree);
            break;
        }
        case queues::RETURN_TQL_SELECT_PATCH: {
            const auto& record = queues::data<queues::RETURN_TQL_SELECT_PATCH>(received);
            text += fmt::format(" {} {}", record.id.to_string(), brief(record.patch));
            EXPECT_EQ(record.seq, tql::version_t{});
            break;
        }
        case queues::RETURN_TQL_SELECT_DELETE_PATCH:
            text +=
                " " + queues::data<queues::RETURN_TQL_SELECT_DELETE_PATCH>(received).id.to_string();
            break;
        case queues::RETURN_TQL_SIMPLE_SUBSCRIBE: {
            const auto& record = queues::data<queues::RETURN_TQL_SIMPLE_SUBSCRIBE>(received);
            text += fmt::format(" op{}", record.operation);
            for (const auto& step : record.obj_path)
                text += fmt::format(" {}:{}", step.id.to_string(), step.class_);
            break;
        }
        case queues::RETURN_TQL_FORGET: {
            const auto& record = queues::data<queues::RETURN_TQL_FORGET>(received);
            text += fmt::format(" {} status {}", record.forgotten_req_id, record.status);
            break;
        }
        default:
            break;
    }
    return text;
}

class SubscribersTest : public testing::Test, protected dbms_test::TestFamily {
  protected:
    SubscribersTest() {
        store.engine->add_resolver(slow);
        store.engine->set_operation_hook([this](auto& object, object_operation_t operation) {
            subscribers.notify(object, operation, dispatcher.last_event_sender());
        });
        logging::set_all_levels(logging::level_t::debug);
    }
    ~SubscribersTest() override { logging::set_all_levels(logging::level_t::info); }

    /// The server takes an event, as its main loop does.
    template <queues::event_t N>
    void take(uint32_t uid, queues::record_t<N> record, queue_t from = queue_t::main) {
        queues::devent<N> received(from, uid, std::move(record));
        dispatcher.dispatch(received);
        subscribers.tqlPeriodicUpdate(from, queues::event_name(&received));
    }
    void subscribe(uint32_t uid, uint32_t flags, const std::string& pattern = "Domain* > Node",
                   uint64_t interval_s = 0, queue_t from = queue_t::main) {
        take<queues::TQL_SELECT>(
            uid, {{{0, 1}, {9, 9}}, tql::parse_pattern(pattern), flags, interval_s}, from);
    }
    void update(const NodeId& id, queue_t from = queue_t::wapi) {
        const tql::id_t object = tql::id_t::from_node_id(id);
        const auto version = store.engine->get(object)->tqlVersion();
        take<queues::TQL_UPDATE>(queues::kNoReply,
                                 {object,
                                  version,
                                  {dbcache_test::text(prop::comment, fmt::format("{}", ++writes))},
                                  0,
                                  {}},
                                 from);
    }
    void acknowledge(uint32_t request = kRequest) {
        take<queues::TQL_ACKNOWLEDGE>(queues::kNoReply, {request});
    }
    void forget(uint32_t request = kRequest, queue_t from = queue_t::main) {
        take<queues::TQL_FORGET>(7, {request}, from);
    }

    /// Puts a stored object elsewhere as nothing but damage can.
    void put_below(const NodeId& id, const NodeId& above) {
        const auto place = store.indexes->unique_find(mdb::node_id_index, id).value();
        store.store->cache().cache_remove(place, true);
        dbcache::StoreTransaction transaction(*store.store);
        mdb::dobj image = store.objects->begin_object_update(place);
        store.objects->update_property(image, mdb::PropertyNodeId(prop::parentId, above), false,
                                       false);
        static_cast<void>(store.objects->commit_object_update(image));
        transaction.commit(true);
        store.store->advance_tree_epoch();
    }
    /// How the writes and reads fail that have to do with the place of this object.
    std::vector<std::string> failures_at(const NodeId& id) {
        const std::function<void()> requests[] = {
            [&] { store.update(id, {dbcache_test::text(prop::comment, "x")}); },
            [&] { store.remove(id); },
            [&] { store.domain(id, "new"); },
            [&] { store.update(node, {dbcache_test::object(prop::parentId, id)}); },
            [&] { static_cast<void>(store.values(id)); },
            // Who holds the object already climbs from there.
            [&] { (void)store.store->resolver().find_stored(id)->tqlOrigin(); },
        };
        std::vector<std::string> failures;
        for (const auto& request : requests) failures.push_back(dbcache_test::failure(request));
        return failures;
    }

    /// All that the main process has been told since.
    std::string heard() {
        settle();
        std::string text;
        for (; main.front().isReady(); settle())
            if (const auto received = main.read())
                text += (text.empty() ? "" : "; ") + told_by(*received);
        return text;
    }
    [[nodiscard]] bool logged(std::string_view text) const {
        return log.find(text) != std::string::npos;
    }

    const NodeId branch =
        store.create(tql::id_t(0, 1), cls::Domain, {dbcache_test::text(prop::name, "b")});
    const NodeId node = store.create(tql::id_t::from_node_id(branch), cls::Node,
                                     {dbcache_test::text(prop::name, "n")});
    SlowResolver slow{store.clock};
    Dispatcher dispatcher{services, make_event_table(), trace, [this] {
                              return Leftovers{store.database->journal().transaction_active(),
                                               store.store->referenced_handlers()};
                          }};
    size_t writes = 0;
    std::string log;
    logging::OutletScope outlet{
        [this](logging::level_t, std::string_view line) { log += fmt::format("{}\n", line); }};
};

TEST_F(SubscribersTest, OneThatNeverForgetsIsRefusedAtLast) {
    constexpr auto kMost = static_cast<uint32_t>(Subscribers::kMostPerSibling);
    for (uint32_t n = 0; n < kMost; ++n) {
        subscribers.subscribe(queue_t::main, n, {{{9, 9}}, tql::pattern_t(cls::Node), kPlain, 0});
        subscribers.subscribe_simply(queue_t::main, kMost + n, {});
        if (n % 64 == 0) (void)heard();
    }
    (void)heard();
    subscribe(kMost, kPlain);
    EXPECT_EQ(heard(), fmt::format("83/{} status 12", kMost));
    EXPECT_TRUE(logged("main has 20000 subscriptions already, the most that are kept"));
    EXPECT_THROW(subscribers.subscribe_simply(queue_t::main, 3 * kMost, {}), errors::db_anomaly);
    // The others go on; one in the place of another, after a forget, or of somebody else is kept.
    subscribe(1, kPlain);
    forget(2);
    forget(kMost + 2);
    subscribe(kMost, kPlain);
    subscribers.subscribe_simply(queue_t::main, 3 * kMost, {});
    subscribe(1, kPlain, "Domain* > Node", 0, queue_t::wapi);
    EXPECT_EQ(subscribers.size(), kMost + 1);
    subscribers.lose(queue_t::main);
    subscribers.drop_lost();
    EXPECT_EQ(subscribers.size(), 1U);
}

TEST_F(SubscribersTest, GoThroughTheirStates) {
    const std::string full =
        fmt::format("83/50 0.1>{}>{}", tql::id_t::from_node_id(branch).to_string(),
                    tql::id_t::from_node_id(node).to_string());
    const std::string patch = fmt::format(
        "84/50 {} 0.1>{}>{}", tql::id_t::from_node_id(node).to_string(),
        tql::id_t::from_node_id(branch).to_string(), tql::id_t::from_node_id(node).to_string());
    struct Case {
        const char* what;
        uint32_t flags;
        uint64_t interval_s;
        uint64_t select_takes_us;
        /// s subscribe, w write, a acknowledge, f forget, 1 to 9: seconds go by, then the timer.
        /// Behind it what goes out: "!" an answer, "p" a patch, nothing.
        const char* steps;
    };
    const Case cases[] = {
        {"at once", kPlain, 0, 0, "s! w! w! f w"},
        {"after the acknowledge", kAcknowledged, 0, 0, "s! w w a! w a! a w! f w"},
        {"not too often", kPlain, 10, 0, "s! w w 9 1! w 9 1! 9 1 w! f"},
        {"pending, then too early", kAcknowledged, 10, 0, "s! w 3 a 6 1! w a 9 1! 9 9 a a w! f"},
        {"the timer doesn't wait for an acknowledge", kAcknowledged, 5, 0, "s! a w 5! w 5 5 a! f"},
        {"the dearer, the rarer", kPlain, 1, 800'000, "s! w 3 1! w 1 2 1! f"},
        {"forgotten while deferred", kPlain, 5, 0, "s! w f 9"},
        {"forgotten while pending", kAcknowledged, 0, 0, "s! w f a w"},
        {"patches wait for nothing", kPatchable | kAcknowledged, 100, 0, "s! wp wp a wp f w"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        slow.takes_us = one.select_takes_us;
        std::string done;
        for (const char* step = one.steps; *step; ++step) {
            done += *step;
            SCOPED_TRACE(done);
            if (*step == ' ') continue;
            std::string expected;
            if (*step == 's') subscribe(kRequest, one.flags, "Domain* > Node", one.interval_s);
            if (*step == 'w') update(node);
            if (*step == 'a') acknowledge();
            if (*step == 'f') forget();
            if (*step == 'f') expected = "114/7 50 status 0";
            if (*step >= '1' && *step <= '9') {
                store.clock.advance_s(static_cast<uint64_t>(*step - '0'));
                subscribers.run_deferred();
            }
            if (step[1] == '!') expected = full;
            if (step[1] == 'p' && *step == 'w') expected = patch;
            if (step[1] == '!' || step[1] == 'p') ++step;
            ASSERT_EQ(heard(), expected);
            ASSERT_EQ(store.store->referenced_handlers(), 0U);
        }
        EXPECT_EQ(subscribers.size(), 0U);
        EXPECT_EQ(store.engine->subscriptions().watched(), 0U);
        EXPECT_FALSE(subscribers.next_deferred_us());
    }
}

TEST_F(SubscribersTest, AreNamedByTheirRequests) {
    forget();
    EXPECT_EQ(heard(), "exception 7 Attempting to forget unknown subscription");
    acknowledge();
    for (const uint32_t request : {1U, 2U, 3U}) subscribe(request, kPatchable, "Check");
    EXPECT_TRUE(logged("[debug] New TQL subscribtion got id 3")) << log;
    forget(2);
    subscribe(4, kPatchable, "Check");
    EXPECT_TRUE(logged("got id 4"));
    // One that comes again takes the place of the first.
    subscribe(4, kPlain, "Domain");
    EXPECT_TRUE(logged("got id 5"));
    for (const uint32_t request : {1U, 3U, 4U}) forget(request);
    EXPECT_EQ(subscribers.size(), 0U);
    log.clear();
    subscribe(1, kPlain | tqlengine::kSelectAcknowledge, "Domain");
    EXPECT_TRUE(logged("got id 1\n")) << log;
    acknowledge(1);
    acknowledge(1);
    EXPECT_TRUE(logged("Not waiting for acknowledge, ignoring\n")) << log;
    EXPECT_TRUE(logged("No update right now")) << log;
    (void)heard();
    // Another sibling's subscription isn't its own.
    forget(1, queue_t::wapi);
    EXPECT_EQ(subscribers.size(), 1U);
}

TEST_F(SubscribersTest, AFailingSelectIsAnsweredAndStays) {
    subscribe(1, kPlain, "Domain{id > \"1.1\"}");
    subscribe(2, kPatchable, "Domain > Domain{id > \"1.1\"}");
    subscribe(3, kPlain, "Domain > Domain");
    EXPECT_EQ(heard(), "83/1 status 11; 83/2 status 11; 83/3 0.1>" +
                           tql::id_t::from_node_id(branch).to_string());
    // Neither the write nor the others suffer from them; a patch that can't be made becomes an
    // answer. The first one's only step can't reach what has changed.
    update(branch);
    EXPECT_EQ(heard(), "83/2 status 11; 83/3 0.1>" + tql::id_t::from_node_id(branch).to_string());
    EXPECT_EQ(subscribers.size(), 3U);
}

TEST_F(SubscribersTest, ADeadOneLeavesNothingBehind) {
    subscribe(1, kPlain, "Domain* > Node", 0, queue_t::alrm);
    take<queues::TQL_SIMPLE_SUBSCRIBE>(2, {{0, 1}, {cls::Any}, {1}, false}, queue_t::alrm);
    subscribe(3, kPatchable);
    settle();  // the parent runs no such sibling
    (void)heard();
    EXPECT_EQ(subscribers.size(), 2U);
    update(node);
    EXPECT_EQ(heard().substr(0, 4), "84/3");
    EXPECT_EQ(subscribers.size(), 1U);
    EXPECT_TRUE(logged("Ended 2 subscriptions of alrm, which is gone")) << log;
    log.clear();
    update(node);
    EXPECT_EQ(heard().substr(0, 4), "84/3");
    EXPECT_FALSE(logged("Lost peer")) << log;
    subscribers.lose(queue_t::main);
    update(node);
    EXPECT_EQ(heard(), "");
    EXPECT_EQ(store.engine->subscriptions().watched(), 0U);
}

TEST_F(SubscribersTest, SimpleOnesAreToldAtOnceOfWhatTheyAskedFor) {
    const tql::id_t b = tql::id_t::from_node_id(branch);
    const tql::id_t n = tql::id_t::from_node_id(node);
    const auto ask = [&](uint32_t request, const tql::id_t& root, std::set<uint32_t> classes,
                         std::set<uint32_t> operations, bool own) {
        take<queues::TQL_SIMPLE_SUBSCRIBE>(request,
                                           {root, std::move(classes), std::move(operations), own});
    };
    ask(1, {0, 1}, {cls::Any}, {0, 1, 2}, false);
    ask(2, b, {cls::Node}, {1, 2}, true);
    ask(3, n, {cls::Node}, {3}, true);
    ask(4, {5, 5}, {cls::Any}, {0, 1, 2, 3}, true);
    EXPECT_EQ(heard(), "");
    const std::string way = fmt::format("{}:4 {}:3 0.1:3", n.to_string(), b.to_string());
    update(node);
    EXPECT_EQ(heard(), fmt::format("93/1 op1 {0}; 93/2 op1 {0}", way));
    update(node, queue_t::main);
    EXPECT_EQ(heard(), "93/2 op1 " + way);
    update(branch);
    EXPECT_EQ(heard(), fmt::format("93/1 op1 {}:3 0.1:3", b.to_string()));
    store.engine->notify(*store.engine->get(n), object_operation_t::data_changed);
    EXPECT_EQ(heard(), "93/3 op3 " + way);
    const tql::version_t version = store.engine->get(n)->tqlVersion();
    take<queues::TQL_DELETE>(queues::kNoReply, {n, version, {}, false}, queue_t::wapi);
    EXPECT_EQ(heard(), fmt::format("93/1 op2 {0}; 93/2 op2 {0}", way));

    ask(1, b, {cls::Any}, {1}, true);
    EXPECT_TRUE(logged("Database anomaly: Duplicate simple subscription")) << log;
    forget(1);
    EXPECT_EQ(heard(), "114/7 1 status 0");
    subscribers.shut_down();
    store.engine->notify(*store.engine->get(b), object_operation_t::data_changed);
    EXPECT_EQ(heard(), "");
}

// What an operator goes by when a client is slow: who asked what, and where the time went.
TEST_F(SubscribersTest, WhatTakesLongIsLoggedWithItsCost) {
    const std::string n = tql::id_t::from_node_id(node).to_string();
    const auto cost = [](const char* level, const char* seconds) {
        return fmt::format(
            "[{0}] Select for main: [0.1, 9.9] Domain* > Node\n"
            "[{0}] Obj's considered: 6, included: 6, doublets: 0, results: 3\n"
            "[{0}] objectMatches immediate: 6, lengthy: 0\n"
            "[{0}] Time (sel, prep, send): ({1}, 0, 0)\n",
            level, seconds);
    };
    const auto lines = [this](std::initializer_list<const char*> texts) {
        std::string found;
        std::istringstream all(std::exchange(log, {}));
        for (std::string line; std::getline(all, line);)
            if (std::any_of(texts.begin(), texts.end(),
                            [&](const char* text) { return line.find(text) != line.npos; }))
                found += line.substr(line.find("] [") + 2) + "\n";
        return found;
    };
    const auto cost_lines = [&] {
        return lines({"Select for", "considered", "objectMatches", "Time ("});
    };
    (void)cost_lines();
    slow.takes_us = 10'000;
    subscribe(1, kPlain);
    EXPECT_EQ(cost_lines(), "");
    slow.takes_us = 20'000;
    subscribe(1, kPlain);
    EXPECT_EQ(cost_lines(), cost("debug", "0.02"));
    slow.takes_us = 3'500'000;
    subscribe(1, kPatchable);
    EXPECT_EQ(cost_lines(), cost("warning", "3.5"));

    take<queues::TQL_SIMPLE_SUBSCRIBE>(2, {{0, 1}, {cls::Node}, {1, 2}, false});
    update(node);
    EXPECT_EQ(lines({"atch", "Notifying", "Object "}),
              fmt::format("[debug] Queueing a patch to {0}\n"
                          "[debug]  Notifying main because of op1 on object {0} from wapi\n"
                          "[debug] Queueing a patch to {0}\n"
                          "[debug] Giving main a patch to {0}\n",
                          n));
    const tql::version_t version = store.get(node)->tqlVersion();
    take<queues::TQL_DELETE>(queues::kNoReply, {tql::id_t::from_node_id(node), version, {}, false},
                             queue_t::wapi);
    EXPECT_EQ(lines({"atch", "Notifying", "Object "}),
              fmt::format("[debug] Queueing a patch to {0}\n"
                          "[debug]  Notifying main because of op2 on object {0} from wapi\n"
                          "[warning] Patch for main: [0.1, 9.9] Domain* > Node\n"
                          "[warning] Object {0} took 3.5, caused by TQL_DELETE\n"
                          "[debug] Giving main a patch to {0}\n",
                          n));
}

// What only a damaged file holds: an object that stands below itself. Nothing that climbs may go
// round for ever, what is asked of the ring fails, and all else goes on.
TEST_F(SubscribersTest, ARingOfParentsFailsThoseWhoComeToIt) {
    const std::string all = "83/1 0.1>" + tql::id_t::from_node_id(branch).to_string() + ">" +
                            tql::id_t::from_node_id(node).to_string();
    for (const int length : {1, 2, 7}) {
        SCOPED_TRACE(length);
        std::vector<NodeId> ring{store.domain(branch, "ring")};
        while (static_cast<int>(ring.size()) < length)
            ring.push_back(store.domain(ring.back(), "r"));
        const NodeId below =
            store.create(store.domain(store.domain(ring.back(), "a"), "b"), cls::Domain,
                         {dbcache_test::text(prop::name, "c"),
                          dbcache_test::object(prop::masterId, NodeId{5, 50})});
        const NodeId apart = store.domain(branch, "apart");
        subscribe(1, kPlain);
        subscribe(2, kPatchable, "Domain*");
        take<queues::TQL_SIMPLE_SUBSCRIBE>(3,
                                           {tql::id_t::from_node_id(below), {cls::Any}, {1}, true});
        (void)heard();
        put_below(ring.front(), ring.back());

        for (const NodeId& id : {ring.front(), ring.back(), below}) {
            const tql::id_t object = tql::id_t::from_node_id(id);
            for (const std::string& failed : failures_at(id))
                EXPECT_TRUE(std::any_of(ring.begin(), ring.end(), [&](const NodeId& one) {
                    return failed == "14 Object " + one.to_string() + " is its own ancestor";
                })) << failed;
            EXPECT_EQ(dbcache::object_path(*store.store, id), id.to_string());
            take<queues::TSDB_GET_DATA>(8, {.id = object});
            EXPECT_TRUE(logged("[warning] Object ")) << "the answer's text";
            subscribers.tqlPeriodicUpdate(queue_t::wapi, "the move");
            (void)heard();
            for (const char* pattern : {"Domain", "Domain*", ".* > Node", "Domain* > Domain"}) {
                take<queues::TQL_SELECT>(9, {{object}, tql::parse_pattern(pattern), 0, 0});
                EXPECT_EQ(heard(), "83/9 status 14") << pattern;
            }
            subscribe(4, kPlain, fmt::format(".* > .{{id = \"{}\"}}", object.to_string()));
            EXPECT_EQ(heard(), "83/4 status 14");
            forget(4);
            (void)heard();
            take<queues::TQL_SELECT>(
                9, {{{0, 1}}, tql::parse_pattern("Domain* > Domain{masterId = \"5.50\"}"), 0, 0});
            EXPECT_EQ(heard(), "83/9") << "not below the root, though the index has it";
            // A change that is told of all the same reaches all who may see it.
            tqlengine::TqlUpdateWatcher(*store.engine, store.store->resolver().find_stored(id),
                                        tqlengine::watch_t::existing);
            subscribers.tqlPeriodicUpdate(queue_t::wapi, "a test");
            const std::string told = heard();
            EXPECT_NE(told.find(all), told.npos) << told;
            EXPECT_EQ(told.find("93/3 op1 " + object.to_string()) != told.npos, id == below);
            EXPECT_EQ(store.fault(), "");
            // The next round meets it while the background delete has work.
            if (store.find(apart)) store.remove(apart);
        }
        const std::string line = "Object " + ring.front().to_string() + " is its own ancestor; ";
        ASSERT_TRUE(length > 1 || logged(line)) << log;
        EXPECT_EQ(log.find(line, log.find(line) + 1), log.npos) << "one line is enough";
        put_below(ring.front(), branch);
        store.remove(ring.front());
        while (store.store->resolver().has_work()) store.store->resolver().doWork();
        for (const uint32_t request : {1U, 2U, 3U}) forget(request);
        (void)heard();
    }
}

}  // namespace
}  // namespace dbms
