// Live requests over the real HTTP server.
#include "wapi/live_streams.h"

#include <deque>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

#include "http_client.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tql/query_text.h"

namespace {

using http_test::Client;
using nlohmann::json;
using queues::queue_t;
using wapi::LiveStreams;
using wapi::token_t;

const tql::id_t kRoot{0, 1};

/// The events of a stream, as far as they have come.
struct Event {
    std::string name;
    json data;
};
std::vector<Event> events_of(const Client& client) {
    // Every event lies in a chunk or two of its own; the sizes between them are no part of a line
    // that begins like ours.
    std::vector<Event> events;
    std::string text = client.received();
    const size_t head = text.find("\r\n\r\n");
    if (head == text.npos) return events;
    std::string body;
    for (size_t at = head + 4; at < text.size();) {
        const size_t line_end = text.find("\r\n", at);
        if (line_end == text.npos) break;
        const size_t size = std::stoul(text.substr(at, line_end - at), nullptr, 16);
        body += text.substr(line_end + 2, size);
        at = line_end + 2 + size + 2;
    }
    for (size_t at = 0, end = 0; (end = body.find("\n\n", at)) != body.npos; at = end + 2) {
        const std::string block = body.substr(at, end - at);
        const size_t name = block.find("event: ");
        const size_t data = block.find("\ndata: ");
        if (name == block.npos || data == block.npos) continue;
        events.push_back({block.substr(name + 7, data - name - 7),
                          json::parse(block.substr(data + 7), nullptr, false)});
    }
    return events;
}
std::string names_of(const Client& client) {
    std::string names;
    for (const Event& event : events_of(client)) names += event.name + " ";
    return names;
}

class LiveTest : public http_test::Bench {
  protected:
    ~LiveTest() override { streams.stop(); }

    std::unique_ptr<Client> client(const std::string& path) {
        auto made = std::make_unique<Client>(http.port());
        made->get(path);
        return made;
    }

    using Bench::run_until;
    bool run_until(Client& one, const std::function<bool()>& done) {
        return run_until(std::vector<Client*>{&one}, done);
    }
    bool has_come(Client& one, const std::string& names) {
        const bool came = run_until(one, [&] { return names_of(one) == names; });
        EXPECT_TRUE(came) << "wanted " << names << "has " << names_of(one) << one.received();
        return came;
    }
    bool was_asked(Client& one, size_t count) {
        return run_until(one, [&] { return sent.size() == count; });
    }

    /// A stream whose first result has come.
    std::unique_ptr<Client> opened(const std::string& path) {
        const size_t before = sent.size();
        auto made = client(path);
        EXPECT_TRUE(was_asked(*made, before + 1));
        reply(*sent.back(), {});
        EXPECT_TRUE(has_come(*made, "result "));
        return made;
    }

    void reply(const queues::event& asked, dbms::Return_Tql_Select_Data result) {
        EXPECT_TRUE(streams.take_event(
            queues::devent<queues::RETURN_TQL_SELECT>(queue_t::dbms, asked.uid, result)));
    }
    void patch(uint32_t uid, const tql::id_t& id, size_t weight = 1) {
        dbms::Return_Tql_Select_Patch_Data told;
        told.id = id;
        told.patch.id = kRoot;
        told.patch.class_ = cls::Domain;
        told.patch.tags = {7, tql::kNoTag};
        told.patch.children.resize(1);
        told.patch.children[0].id = id;
        told.patch.children[0].class_ = cls::Node;
        told.patch.children[0].tags = {tql::kNoTag};
        tql::add<tql::property_string_t>(told.patch.children[0].properties, prop::label,
                                         std::string(weight, 'x'));
        EXPECT_TRUE(streams.take_event(
            queues::devent<queues::RETURN_TQL_SELECT_PATCH>(queue_t::dbms, uid, told)));
    }
    /// How many of this number were sent.
    [[nodiscard]] size_t count(queues::event_t number) const {
        return static_cast<size_t>(std::count_if(
            sent.begin(), sent.end(), [&](const auto& each) { return each->number() == number; }));
    }

    LiveStreams streams{*this, clock};

  private:
    void check_deadlines() override { streams.check_deadlines(); }
    void take_request(token_t token, const wapi::Request& request) override {
        streams.take_request(token, request);
    }
    void stream_taken(token_t token) override { streams.stream_taken(token); }
    void stream_ended(token_t token) override { streams.stream_ended(token); }
};

TEST_F(LiveTest, PatchesComeInOrderAndOnlyTheWayIsMarked) {
    const auto one = client("/api/v1/subscribe?pattern=Domain*%20%3E%20Node%5Blabel%5D&patches=1");
    ASSERT_TRUE(was_asked(*one, 1));
    const auto& asked = queues::data<queues::TQL_SELECT>(*sent[0]);
    EXPECT_EQ(asked.flags, 1U + 16U);
    EXPECT_EQ(asked.root_ids, std::list<tql::id_t>{kRoot});
    EXPECT_EQ(tql::pattern_text(asked.pattern), "Domain* > Node[label]");
    const uint32_t uid = sent[0]->uid;
    reply(*sent[0], {});
    patch(uid, {1, 17});
    patch(uid, {1, 18});
    EXPECT_TRUE(streams.take_event(queues::devent<queues::RETURN_TQL_SELECT_DELETE_PATCH>(
        queue_t::dbms, uid, {.id = {1, 17}})));
    ASSERT_TRUE(has_come(*one, "result patch patch delete "));
    const auto events = events_of(*one);
    EXPECT_EQ(events[0].data, json::parse(R"({"results": [], "kept_by": {"Domain":
                                              ["Domain", "Node"]}})"));
    EXPECT_EQ(events[1].data, json::parse(R"({"id": "1.17", "patch":
        {"id": "0.1", "class": "Domain", "version": "0.0", "on_path": true, "tags": [7],
         "properties": {}, "children": [
            {"id": "1.17", "class": "Node", "version": "0.0", "properties": {"label": "x"}}]}})"));
    EXPECT_EQ(events[3].data, json::parse(R"({"id": "1.17"})"));
    // Patches are not waited for, so nothing is acknowledged.
    EXPECT_EQ(sent.size(), 1U);
    EXPECT_NE(one->received().find("id: 4\nevent: delete\n"), std::string::npos);
}

TEST_F(LiveTest, AResultIsAcknowledgedWhenItHasLeft) {
    const auto one = client("/api/v1/subscribe?pattern=Node&interval=5");
    ASSERT_TRUE(was_asked(*one, 1));
    EXPECT_EQ(queues::data<queues::TQL_SELECT>(*sent[0]).flags, 1U + 4U);
    EXPECT_EQ(queues::data<queues::TQL_SELECT>(*sent[0]).min_eval_interval, 5U);
    one->pause(true);
    dbms::Return_Tql_Select_Data large;
    large.res.resize(1);
    large.res[0].id = kRoot;
    tql::add<tql::property_string_t>(large.res[0].properties, prop::comment,
                                     std::string(7U << 20, 'x'));
    reply(*sent[0], large);
    clock.advance_us(1);
    EXPECT_FALSE(
        run_until({}, [&, turns = 0]() mutable { return ++turns > 200 || sent.size() > 1; }) &&
        sent.size() > 1)
        << "acknowledged before it left";
    one->pause(false);
    ASSERT_TRUE(run_until(*one, [&] { return one->received().ends_with("\n\n\r\n"); }));
    ASSERT_TRUE(was_asked(*one, 2));
    EXPECT_EQ(queues::data<queues::TQL_ACKNOWLEDGE>(*sent[1]).req_id_to_ack, sent[0]->uid);
    // A select that fails later is told, and goes on.
    const size_t before = one->received().size();
    const auto has = [&](const char* text) {
        return run_until(*one,
                         [&] { return one->received().find(text, before) != std::string::npos; });
    };
    reply(*sent[0], {.status = errors::ERR_INCOMPARABLE, .details = {{3, "Not like this"}}});
    ASSERT_TRUE(has("event: error\ndata: {\"error\""));
    ASSERT_TRUE(was_asked(*one, 3));
    reply(*sent[0], {});
    EXPECT_TRUE(has("event: result\ndata: {\"results\":[]}"));
}

TEST_F(LiveTest, ASlowReaderGetsAFullResultInPlaceOfPatches) {
    const auto slow = opened("/api/v1/subscribe?pattern=Node&patches=1");
    const auto fast = opened("/api/v1/subscribe?pattern=Node&patches=1");
    const uint32_t slow_uid = sent[0]->uid;
    const uint32_t fast_uid = sent[1]->uid;
    slow->pause(true);
    size_t patches = 0;
    std::string fast_names = "result ";
    while (count(queues::TQL_FORGET) == 0) {
        ASSERT_LT(++patches, 5000U);
        patch(slow_uid, {1, 17}, 50'000);
        patch(fast_uid, {1, 17});
        fast_names += "patch ";
        if (patches % 10 != 0) continue;
        ASSERT_TRUE(
            run_until({slow.get(), fast.get()}, [&] { return names_of(*fast) == fast_names; }));
    }
    EXPECT_EQ(queues::data<queues::TQL_FORGET>(*sent.back()).req_id_to_forget, slow_uid);
    const uint32_t dialog = sent.back()->uid;
    patch(slow_uid, {1, 18});  // was under way already
    EXPECT_TRUE(streams.take_event(queues::devent<queues::RETURN_TQL_FORGET>(
        queue_t::dbms, dialog, {.forgotten_req_id = slow_uid})));
    ASSERT_TRUE(has_come(*fast, fast_names));
    slow->pause(false);
    ASSERT_TRUE(was_asked(*slow, 4));
    ASSERT_EQ(sent[3]->number(), queues::TQL_SELECT);
    reply(*sent[3], {});
    patch(sent[3]->uid, {1, 19});
    std::string names;
    ASSERT_TRUE(run_until(*slow, [&] {
        names = names_of(*slow);
        return names.ends_with("result patch ") && names.size() > 13;
    }));
    // What stands before the result came in order and is only a begin of what was sent.
    EXPECT_LT(events_of(*slow).size(), patches);
    EXPECT_EQ(events_of(*slow).back().data["id"], "1.19");
}

TEST_F(LiveTest, WhoGoesAwayIsForgottenAndLeavesNoDescriptor) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    for (size_t round = 0; round < 200; ++round) {
        sent.clear();
        auto one = opened(round % 2 == 0 ? "/api/v1/subscribe?pattern=Node&patches=1"
                                         : "/api/v1/subscribe?pattern=Node");
        const uint32_t uid = sent[0]->uid;
        one.reset();
        ASSERT_TRUE(run_until({}, [&] { return count(queues::TQL_FORGET) == 1; })) << round;
        EXPECT_EQ(queues::data<queues::TQL_FORGET>(*sent.back()).req_id_to_forget, uid);
        EXPECT_TRUE(streams.take_event(
            queues::devent<queues::RETURN_TQL_FORGET>(queue_t::dbms, sent.back()->uid)));
    }
    EXPECT_EQ(streams.open_streams(), 0U);
    EXPECT_TRUE(run_until({}, [&] { return descriptors() == before; })) << descriptors();
    EXPECT_EQ(http.open_exchanges(), 0U);
}

TEST_F(LiveTest, ARestartOfTheServerIsToldAndGivesAFullResult) {
    const auto patched = opened("/api/v1/subscribe?pattern=Node&patches=1");
    const auto full = opened("/api/v1/subscribe?pattern=Node");
    const auto simple = client("/api/v1/events?class=Node&operation=deleted");
    ASSERT_TRUE(run_until({full.get(), simple.get()},
                          [&] { return count(queues::TQL_SIMPLE_SUBSCRIBE) == 1; }));
    const auto waiting = client("/api/v1/subscribe?pattern=Domain");
    ASSERT_TRUE(
        run_until({full.get(), waiting.get()}, [&] { return count(queues::TQL_SELECT) == 3; }));
    sent.clear();
    server_up = false;
    streams.peer_lost(queue_t::dbms);
    ASSERT_TRUE(run_until(*waiting, [&] { return waiting->status() == 503; }));
    const auto late = client("/api/v1/subscribe?pattern=Domain");
    ASSERT_TRUE(run_until(*late, [&] { return late->status() == 503; }));
    ASSERT_TRUE(has_come(*simple, "ready away "));
    for (int i = 0; i < 3; ++i) {
        clock.advance_us(LiveStreams::kRetry_us);
        streams.check_deadlines();
    }
    EXPECT_TRUE(sent.empty());
    server_up = true;
    clock.advance_us(LiveStreams::kRetry_us);
    streams.check_deadlines();
    ASSERT_EQ(sent.size(), 3U);
    reply(*sent[0], {});
    reply(*sent[1], {});
    EXPECT_TRUE(has_come(*patched, "result away result "));
    EXPECT_TRUE(has_come(*full, "result away result "));
    EXPECT_TRUE(has_come(*simple, "ready away ready "));
    patch(sent[0]->uid, {1, 17});
    EXPECT_TRUE(has_come(*patched, "result away result patch "));
}

TEST_F(LiveTest, OperationsAreToldAndWhatDidNotFitIsCounted) {
    const auto one =
        client("/api/v1/events?root=1.5&class=Node&class=Domain&operation=created&own=0");
    ASSERT_TRUE(was_asked(*one, 1));
    dbms::Return_Tql_Select_Data its_root;
    its_root.res.resize(1);
    its_root.res[0].id = {1, 5};
    reply(*std::exchange(sent, {})[0], its_root);
    ASSERT_TRUE(was_asked(*one, 1));
    const auto& asked = queues::data<queues::TQL_SIMPLE_SUBSCRIBE>(*sent[0]);
    EXPECT_EQ(asked.root, tql::id_t(1, 5));
    EXPECT_EQ(asked.classes, (std::set<uint32_t>{cls::Node, cls::Domain}));
    EXPECT_EQ(asked.operations, std::set<uint32_t>{0});
    EXPECT_FALSE(asked.include_own_operations);
    const auto tell = [&] {
        dbms::Return_Tql_Simple_Subscribe_Data told;
        told.operation = 0;
        told.obj_path = {{{1, 17}, cls::Node}, {{1, 5}, cls::Domain}};
        EXPECT_TRUE(streams.take_event(queues::devent<queues::RETURN_TQL_SIMPLE_SUBSCRIBE>(
            queue_t::dbms, sent[0]->uid, told)));
    };
    tell();
    ASSERT_TRUE(has_come(*one, "ready operation "));
    EXPECT_EQ(events_of(*one)[1].data,
              json::parse(R"({"operation": "created", "id": "1.17", "class": "Node", "path":
                  [{"id": "1.17", "class": "Node"}, {"id": "1.5", "class": "Domain"}]})"));
    // All in one go, before the network can take anything.
    for (size_t i = 0; i < LiveStreams::kMaxQueuedEvents + 8; ++i) tell();
    ASSERT_TRUE(run_until(*one, [&] { return names_of(*one).ends_with("missed "); }));
    const auto events = events_of(*one);
    const auto missed = events.back().data["count"].get<size_t>();
    EXPECT_GT(missed, 0U);
    EXPECT_EQ(events.size() - 3 + missed, LiveStreams::kMaxQueuedEvents + 8);

    const auto everything = client("/api/v1/events");
    ASSERT_TRUE(was_asked(*everything, 2));
    const auto& all = queues::data<queues::TQL_SIMPLE_SUBSCRIBE>(*sent[1]);
    EXPECT_EQ(all.root, kRoot);
    EXPECT_EQ(all.classes, std::set<uint32_t>{13});
    EXPECT_EQ(all.operations, (std::set<uint32_t>{0, 1, 2, 3, 4}));
    EXPECT_TRUE(all.include_own_operations);
}

TEST_F(LiveTest, WrongRequestsAreAnsweredLikeAllOthers) {
    struct Wrong {
        const char* path;
        int status;
        const char* text;
    };
    const Wrong rows[] = {
        {"/api/v1/subscribe", 400, "Parameter \"pattern\" is missing"},
        {"/api/v1/subscribe?pattern=Nod", 400,
         "line 1, column 1: expected the name or number of a class, found \"Nod\""},
        {"/api/v1/subscribe?pattern=Node%00.", 400, nullptr},
        {"/api/v1/subscribe?pattern=.&pattern=.", 400, "Parameter \"pattern\" is given twice"},
        {"/api/v1/subscribe?pattern=.&root=x", 400,
         "Parameter \"root\": \"x\" is no id, expected one like 1.4294960001"},
        {"/api/v1/subscribe?pattern=.&patches=yes", 400,
         "Parameter \"patches\": \"yes\" is neither 0 nor 1"},
        {"/api/v1/subscribe?pattern=.&interval=-1", 400,
         "Parameter \"interval\": \"-1\" is no number of seconds up to 86400"},
        {"/api/v1/subscribe?pattern=.&wait=1", 400, "Unknown parameter \"wait\""},
        {"/api/v1/events?operation=moved", 400,
         "Parameter \"operation\": \"moved\" is none of created, updated, deleted, data, checkin"},
        {"/api/v1/events?class=Nod", 400, nullptr},
    };
    for (const Wrong& row : rows) {
        SCOPED_TRACE(row.path);
        const auto one = client(row.path);
        ASSERT_TRUE(run_until(*one, [&] { return one->status() != 0; }));
        EXPECT_EQ(one->status(), row.status);
        if (row.text != nullptr) {
            EXPECT_EQ(one->body()["error"]["text"], row.text);
        }
    }
    EXPECT_TRUE(sent.empty());

    // What only the server knows: a root, and whether values can be compared.
    const auto lost = client("/api/v1/subscribe?pattern=.&root=1.5&root=1.6");
    ASSERT_TRUE(was_asked(*lost, 1));
    dbms::Return_Tql_Select_Data found;
    found.res.resize(1);
    found.res[0].id = {1, 5};
    reply(*sent[0], found);
    ASSERT_TRUE(run_until(*lost, [&] { return lost->status() == 404; }));
    EXPECT_EQ(lost->body()["error"]["text"], "1.6 not found");
    const auto deaf = client("/api/v1/events?root=1.6");
    ASSERT_TRUE(was_asked(*deaf, 2));
    reply(*sent[1], found);
    ASSERT_TRUE(run_until(*deaf, [&] { return deaf->status() == 404; }));
    EXPECT_EQ(deaf->body()["error"]["text"], "1.6 not found");
    const auto incomparable = client("/api/v1/subscribe?pattern=Node&root=1.5");
    ASSERT_TRUE(was_asked(*incomparable, 3));
    reply(*sent[2], found);
    ASSERT_TRUE(was_asked(*incomparable, 4));
    reply(*sent[3], {.status = errors::ERR_INCOMPARABLE, .details = {{3, "Not like this"}}});
    ASSERT_TRUE(run_until(*incomparable, [&] { return incomparable->status() == 400; }));
    EXPECT_EQ(count(queues::TQL_FORGET), 1U);
    EXPECT_EQ(streams.open_streams(), 0U);
}

TEST_F(LiveTest, NobodyWaitsForeverAndTheNumberIsBounded) {
    const auto silent = client("/api/v1/subscribe?pattern=Node");
    ASSERT_TRUE(was_asked(*silent, 1));
    clock.advance_us(LiveStreams::kAnswerLimit_us);
    ASSERT_TRUE(run_until(*silent, [&] { return silent->status() == 504; }));
    std::vector<std::unique_ptr<Client>> many;
    std::vector<Client*> all;
    for (size_t i = 0; i <= LiveStreams::kMaxStreams; ++i) {
        many.push_back(client("/api/v1/events"));
        all.push_back(many.back().get());
        const size_t before = sent.size();
        ASSERT_TRUE(
            run_until(all, [&] { return sent.size() > before || all.back()->status() == 503; }));
    }
    EXPECT_EQ(all.back()->body()["error"]["name"], "TOO_MANY_STREAMS");
    EXPECT_NE(all.back()->received().find("Connection: close"), std::string::npos);
    // Stopping ends them all, in order.
    streams.stop();
    ASSERT_TRUE(run_until(all, [&] { return all.front()->received().ends_with("\r\n0\r\n\r\n"); }))
        << all.front()->received();
    ASSERT_TRUE(run_until(all, [&] { return http.open_exchanges() == 0; }));
}

TEST_F(LiveTest, SilenceIsBrokenByComments) {
    const auto one = opened("/api/v1/subscribe?pattern=Node&patches=1");
    EXPECT_EQ(one->received().find("\n:\n\n"), std::string::npos);
    clock.advance_us(LiveStreams::kHeartbeat_us);
    EXPECT_TRUE(
        run_until(*one, [&] { return one->received().find(":\n\n") != std::string::npos; }));
    // Notices for a subscription that nobody has, as of a gateway that was killed, end it.
    EXPECT_TRUE(streams.take_event(queues::devent<queues::RETURN_TQL_SELECT_DELETE_PATCH>(
        queue_t::dbms, 77, {.id = {1, 17}})));
    EXPECT_EQ(queues::data<queues::TQL_FORGET>(*sent.back()).req_id_to_forget, 77U);
}

TEST(PatchPlan, OnlyWherePatchesSayItAll) {
    struct Row {
        const char* pattern;
        size_t roots;
        const char* plan;  ///< null: none
    };
    const Row rows[] = {
        {"Domain*[name]", 1, ""},
        {"Domain*[name]", 2, nullptr},
        {"Domain* > Node", 1, "3<3,4 "},
        {"Domain*$ > Node[name]", 1, ""},
        {"Domain > ( Node : View )", 1, "3<4 "},
        {"Domain*{active = true} > Node > .", 1, nullptr},  // any class: the step isn't told
        {"Domain* > Node* > Check", 1, "3<1,3,4 4<1,4 "},   // a check may follow without a node
        {"Domain > Domain > Node", 1, nullptr},
        {"Domain$ > Domain$ > Node", 1, ""},
        {".*!", 1, ""},
        {"Domain* > Node#!", 1, nullptr},
        {"Domain^ > Node", 1, nullptr},
        {"Domain* > ( Node : View )", 1, nullptr},
        {"Domain*$ > View > Node", 1, nullptr},
        {"Domain > ( Node[name] : Node )", 1, nullptr},  // one node is found in both ways
        {"Domain > ( Node : . )", 1, nullptr},
        {"Plan > ( MonthPlanner*$ > WeekPlanner : WeekPlanner )", 1, nullptr},
    };
    const auto text = [](const char* pattern, size_t roots) -> std::optional<std::string> {
        const auto plan = wapi::make_patch_plan(tql::parse_pattern(pattern), roots);
        if (!plan) return std::nullopt;
        std::string all;
        for (const auto& [class_number, keepers] : plan->kept_by)
            all += fmt::format("{}<{} ", class_number, fmt::join(keepers, ","));
        return all;
    };
    EXPECT_EQ(cls::Domain, 3U);
    for (const Row& row : rows) {
        const auto found = text(row.pattern, row.roots);
        EXPECT_EQ(found.value_or("none"), row.plan == nullptr ? "none" : row.plan) << row.pattern;
    }
}

}  // namespace
