// The real HTTP server on an ephemeral loopback port, driven by hand, with clients of plain
// sockets.
#include "wapi/http_server.h"

#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "http_client.h"
#include "queues/records/dbms_tql.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "wapi/gateway.h"

namespace {

using http_test::Client;
using nlohmann::json;
using wapi::Gateway;
using wapi::token_t;

class HttpTest : public http_test::Bench {
  protected:
    std::unique_ptr<Client> client() { return std::make_unique<Client>(http.port()); }
    int status_of(Client& one) {
        return run_until({&one}, [&] { return one.status() != 0; }) ? one.status() : -1;
    }
    void reply_names(uint32_t uid, const std::string& name) {
        (void)gateway.take_event(queues::devent<queues::RETURN_TQL_CLASS_NAMES>(
            queues::queue_t::dbms, uid, {.names = {name}}));
    }

    Gateway gateway{*this, clock};

  private:
    void check_deadlines() override { gateway.check_deadlines(); }
    void take_request(token_t token, const wapi::Request& request) override {
        gateway.take_request(token, request);
    }
};

TEST_F(HttpTest, ManyInFlightAnsweredInReverseOrder) {
    constexpr size_t kCount = 40;
    std::vector<std::unique_ptr<Client>> owned;
    std::vector<Client*> clients;
    for (size_t i = 0; i < kCount; ++i) {
        owned.push_back(client());
        clients.push_back(owned.back().get());
        clients.back()->get("/api/v1/classes");
        ASSERT_TRUE(run_until(clients, [&] { return sent.size() == i + 1; }));
    }
    for (size_t i = kCount; i-- > 0;) reply_names(sent[i]->uid, "class" + std::to_string(i));
    for (size_t i = 0; i < kCount; ++i) {
        ASSERT_EQ(status_of(*clients[i]), 200) << i;
        EXPECT_EQ(clients[i]->body()["classes"][0]["name"], "class" + std::to_string(i));
    }
    // The connections live on.
    clients[3]->next();
    clients[3]->get("/healthz");
    ASSERT_TRUE(run_until(clients, [&] { return sent.size() == kCount + 1; }));
    reply_names(sent.back()->uid, "a");
    EXPECT_EQ(status_of(*clients[3]), 200);
    EXPECT_EQ(http.open_exchanges(), 0U);
}

TEST_F(HttpTest, ServerThatEndsLeavesNobodyWaiting) {
    const auto first = client();
    const auto second = client();
    first->get("/api/v1/classes");
    second->post("/api/v1/select", R"({"pattern": "Node"})");
    ASSERT_TRUE(run_until({first.get(), second.get()}, [&] { return sent.size() == 2; }));
    server_up = false;
    gateway.peer_lost(queues::queue_t::dbms);
    EXPECT_EQ(status_of(*first), 503);
    EXPECT_EQ(status_of(*second), 503);
    // While it is away, at once; when it is back, without any ado.
    first->next();
    first->get("/healthz");
    EXPECT_EQ(status_of(*first), 503);
    EXPECT_EQ(first->body()["error"]["name"], "UNAVAILABLE");
    reply_names(sent[0]->uid, "late");  // what still comes of the former life harms nobody
    server_up = true;
    first->next();
    first->get("/healthz");
    ASSERT_TRUE(run_until({first.get()}, [&] { return sent.size() == 3; }));
    reply_names(sent.back()->uid, "a");
    EXPECT_EQ(status_of(*first), 200);
}

TEST_F(HttpTest, AnAnswerThatNeverComesIsGivenUp) {
    const auto one = client();
    one->get("/api/v1/properties");
    ASSERT_TRUE(run_until({one.get()}, [&] { return sent.size() == 1; }));
    clock.advance_us(Gateway::kAnswerLimit_us - 1);
    gateway.check_deadlines();
    EXPECT_TRUE(gateway.next_deadline_us().has_value());
    clock.advance_us(1);
    EXPECT_EQ(status_of(*one), 504);
    EXPECT_FALSE(gateway.next_deadline_us().has_value());
    reply_names(sent[0]->uid, "late");
}

TEST_F(HttpTest, HugeBodyIsRefusedAndNotKept) {
    const auto one = client();
    one->post("/api/v1/select", std::string(100U << 20, 'x'));
    EXPECT_EQ(status_of(*one), 413);
    EXPECT_TRUE(sent.empty());
    // A client that asks first is told before it sends anything.
    const auto polite = client();
    polite->raw(
        "POST /api/v1/select HTTP/1.1\r\nHost: localhost\r\nContent-Length: 104857600\r\n"
        "Expect: 100-continue\r\n\r\n");
    EXPECT_EQ(status_of(*polite), 413);
    // Without a length the size shows only on the way.
    const auto chunked = client();
    chunked->raw(
        "POST /api/v1/select HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (int i = 0; i < 9; ++i) chunked->raw("100000\r\n" + std::string(0x100000, 'x') + "\r\n");
    chunked->raw("0\r\n\r\n");
    EXPECT_EQ(status_of(*chunked), 413);
    // The server is as good as before.
    const auto next = client();
    next->post("/api/v1/select", "{}");
    EXPECT_EQ(status_of(*next), 400);
}

TEST_F(HttpTest, WrongRequestsAreAnsweredAtOnce) {
    struct Wrong {
        std::function<void(Client&)> send;
        int status;
        const char* name;
    };
    const Wrong rows[] = {
        {[](Client& c) { c.post("/api/v1/select", "{\"pattern\": "); }, 400, "BAD_REQUEST"},
        {[](Client& c) { c.post("/api/v1/select", R"({"pattern": "Dmain"})"); }, 400,
         "BAD_PATTERN"},
        {[](Client& c) {
             c.post("/api/v1/create",
                    R"({"parent": "0.1", "class": "Node", "properties": {"colour": 1}})");
         },
         400, "ERR_NO_SUCH_PROPERTY"},
        {[](Client& c) { c.get("/api/v1/select"); }, 405, "METHOD_NOT_ALLOWED"},
        {[](Client& c) { c.get("/nothing"); }, 404, "NOT_FOUND"},
        {[](Client& c) { c.get("/healthz", "Host: evil.example\r\n"); }, 403, "FOREIGN_ORIGIN"},
        {[](Client& c) { c.get("/healthz", "Host: localhost\r\nOrigin: http://evil.example\r\n"); },
         403, "FOREIGN_ORIGIN"},
    };
    for (const Wrong& row : rows) {
        SCOPED_TRACE(row.name);
        const auto one = client();
        row.send(*one);
        EXPECT_EQ(status_of(*one), row.status);
        EXPECT_EQ(one->body()["error"]["name"], row.name);
    }
    EXPECT_TRUE(sent.empty());
    EXPECT_TRUE(wapi::comes_from_here("127.0.0.1:8740", "http://127.0.0.1:8740"));
    EXPECT_TRUE(wapi::comes_from_here("[::1]", ""));
    EXPECT_FALSE(wapi::comes_from_here("localhost:8740", "http://localhost:9999"));
    EXPECT_FALSE(wapi::comes_from_here("localhost:8740", "null"));
}

TEST_F(HttpTest, AChangeWithoutVersionAsksForItFirst) {
    const auto one = client();
    one->post("/api/v1/update", R"({"id": "1.17", "properties": {"label": "new"}})");
    ASSERT_TRUE(run_until({one.get()}, [&] { return sent.size() == 1; }));
    const auto& asked = queues::data<queues::TQL_SELECT>(*sent[0]);
    EXPECT_EQ(asked.root_ids, std::list<tql::id_t>({{1, 17}}));
    EXPECT_EQ(asked.pattern.class_, 13U);
    dbms::Return_Tql_Select_Data found;
    found.res.resize(1);
    found.res[0].id = {1, 17};
    found.res[0].version = {5, 6};
    (void)gateway.take_event(
        queues::devent<queues::RETURN_TQL_SELECT>(queues::queue_t::dbms, sent[0]->uid, found));
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(queues::data<queues::TQL_UPDATE>(*sent[1]).version, (tql::version_t{5, 6}));
    dbms::Return_Tql_Update_Data returned;
    returned.status = errors::ERR_VERSION;
    returned.details = {{3, "Someone else was faster"}};
    (void)gateway.take_event(
        queues::devent<queues::RETURN_TQL_UPDATE>(queues::queue_t::dbms, sent[1]->uid, returned));
    EXPECT_EQ(status_of(*one), 409);
    EXPECT_EQ(one->body()["error"]["code"], 3);
    EXPECT_EQ(one->body()["error"]["text"], "Someone else was faster");

    one->next();
    // Neither an ordinary object nor a template.
    one->post("/api/v1/delete", R"({"id": "1.18"})");
    ASSERT_TRUE(run_until({one.get()}, [&] { return sent.size() == 3; }));
    (void)gateway.take_event(
        queues::devent<queues::RETURN_TQL_SELECT>(queues::queue_t::dbms, sent[2]->uid));
    ASSERT_EQ(sent.size(), 4U);
    EXPECT_EQ(queues::data<queues::TQL_SELECT>(*sent[3]).pattern.flags, tql::kPatternTemplates);
    (void)gateway.take_event(
        queues::devent<queues::RETURN_TQL_SELECT>(queues::queue_t::dbms, sent[3]->uid));
    EXPECT_EQ(status_of(*one), 404);
    EXPECT_EQ(one->body()["error"]["text"], "1.18 not found");

    one->next();
    one->post("/api/v1/delete", R"({"id": "1.18", "version": "1.2"})");
    ASSERT_TRUE(run_until({one.get()}, [&] { return sent.size() == 5; }));
    (void)gateway.take_event(queues::exevent(queues::queue_t::dbms, sent[4]->uid, "Broken"));
    EXPECT_EQ(status_of(*one), 500);
    EXPECT_EQ(one->body()["error"]["text"], "Broken");
}

TEST_F(HttpTest, LargeRequestsGoAloneAndSmallOnesFollow) {
    const std::string large = R"({"id": "1.2", "version": "1.1", "properties": {"comment": ")" +
                              std::string(Gateway::kWindowBytes, 'x') + "\"}}";
    const auto first = client();
    const auto second = client();
    first->get("/api/v1/classes");
    ASSERT_TRUE(run_until({first.get()}, [&] { return sent.size() == 1; }));
    second->post("/api/v1/update", large);
    ASSERT_TRUE(run_until({second.get()}, [&] { return gateway.open_calls() == 2; }));
    const auto third = client();
    third->get("/api/v1/classes");
    ASSERT_TRUE(run_until({third.get()}, [&] { return gateway.open_calls() == 3; }));
    EXPECT_EQ(sent.size(), 1U);
    reply_names(sent[0]->uid, "a");
    ASSERT_TRUE(run_until({first.get(), second.get()}, [&] { return sent.size() >= 2; }));
    ASSERT_EQ(sent.size(), 2U);
    (void)gateway.take_event(
        queues::devent<queues::RETURN_TQL_UPDATE>(queues::queue_t::dbms, sent[1]->uid));
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(status_of(*second), 200);
    // The test ends with the third one waiting: the server takes itself down in order.
}

TEST_F(HttpTest, StoppingAnswersEveryone) {
    const auto waiting = client();
    waiting->get("/api/v1/classes");
    ASSERT_TRUE(run_until({waiting.get()}, [&] { return sent.size() == 1; }));
    gateway.stop();
    http.stop_listening();
    EXPECT_EQ(status_of(*waiting), 503);
    ASSERT_TRUE(run_until({waiting.get()}, [&] { return http.open_exchanges() == 0; }));
    waiting->next();
    waiting->get("/api/v1/classes");
    EXPECT_EQ(status_of(*waiting), 503);
    EXPECT_EQ(sent.size(), 1U);
}

}  // namespace
