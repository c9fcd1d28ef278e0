// The whole process `wapi` but for its main(), in a real family: a real pool and real FIFOs, with
// the test as main process and as server. The service runs in a thread of its own; nothing but the
// pool, the FIFOs and the loopback connection lies between the two.
#include "wapi/service.h"

#include <arpa/inet.h>
#include <future>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "io/exception.h"
#include "io/parent_messenger.h"
#include "queues/records/control.h"
#include "support/temp_dir.h"

namespace {

using queues::queue_t;

constexpr uint32_t kServerId = static_cast<uint32_t>(queue_t::dbms);
constexpr uint32_t kWapiId = static_cast<uint32_t>(queue_t::wapi);

class Policy final : public io::ParentPolicy {
  public:
    uint32_t sliceSize(uint32_t) override { return 1U << 20; }
    bool requestPeer(uint32_t, uint32_t) override { return false; }
};

/// One member of the family that the test plays.
struct Server {
    explicit Server(const io::PoolAccess& access, const platform::Clock& clock)
        : messenger(kServerId, access), queue(messenger, clock) {}
    io::ChildMessenger messenger;
    queues::childqueue queue;
};

class ServiceTest : public testing::Test {
  protected:
    ServiceTest() {
        selector.add(main_queue.front());
        start_server();
        std::promise<uint16_t> promised;
        std::future<uint16_t> told = promised.get_future();
        thread = std::thread([this, &promised] {
            const platform::SystemClock own_clock;
            io::ChildMessenger messenger(kWapiId, parent.access());
            queues::childqueue queue(messenger, own_clock);
            {
                wapi::Service service(messenger, queue, own_clock, 0);
                promised.set_value(service.port());
                service.run();
            }
            messenger.completeShutdown();
        });
        port = told.get();
        EXPECT_TRUE(run_until([&] { return wapi_is_up; }));
    }

    ~ServiceTest() override {
        stop_wapi();
        stop_server();
        selector.remove(main_queue.front());
    }

    void start_server() {
        server = std::make_unique<Server>(parent.access(), clock);
        selector.add(server->queue.front());
    }
    void stop_server() {
        if (!server) return;
        selector.remove(server->queue.front());
        server.reset();
    }
    void kill_server() {
        stop_server();
        parent.siblingGone(kServerId);
    }

    void stop_wapi() {
        if (!thread.joinable()) return;
        main_queue.send(queues::devent<queues::SYS_EXIT>(queue_t::wapi));
        EXPECT_TRUE(run_until([&] { return parent.isGone(kWapiId); }));
        thread.join();
    }

    /// Serves main process and server until `done`, at most ten seconds.
    bool run_until(const std::function<bool()>& done) {
        const uint64_t limit_us = clock.monotonic_us() + 10'000'000;
        while (!done()) {
            if (clock.monotonic_us() > limit_us) return false;
            parent.flush();
            if (server) server->messenger.flush();
            try {
                take(selector.select(io::wait_t::non_blocking));
            } catch (const io::ENotReady&) {
                std::this_thread::yield();
            }
        }
        return true;
    }

    void take(io::Selectable& ready) {
        if (&ready == &main_queue.front()) {
            const auto received = main_queue.read();
            if (received && received->number() == queues::INIT_OK) {
                depend_on = queues::data<queues::INIT_OK>(*received).depend_on;
                wapi_is_up = true;
            }
        } else if (auto received = server->queue.read()) {
            asked.push_back(std::move(received));
        }
    }

    void reply(size_t i, const std::string& name) {
        server->queue.send(queues::devent<queues::RETURN_TQL_CLASS_NAMES>(
            queue_t::wapi, asked[i]->uid, {.names = {name}}));
    }

    /// Sends a request on a new connection.
    int ask(const std::string& path) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const std::string text =
            "GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
        EXPECT_EQ(::send(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        return fd;
    }
    /// The whole answer, up to the end of the connection.
    std::string answer(int fd) {
        std::string text;
        char buffer[4096];
        bool ended = false;
        EXPECT_TRUE(run_until([&] {
            const ssize_t got = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got > 0) text.append(buffer, static_cast<size_t>(got));
            ended = got == 0;
            return ended;
        }));
        ::close(fd);
        return text;
    }

    support::TempDir dir;
    platform::SystemClock clock;
    Policy policy;
    io::ParentMessenger parent{dir.file("fifo"), 16U << 20, policy};
    queues::childqueue main_queue{parent, clock};
    io::BareSelector selector;
    std::unique_ptr<Server> server;
    std::vector<std::unique_ptr<queues::event>> asked;
    std::set<queue_t> depend_on;
    bool wapi_is_up = false;
    uint16_t port = 0;
    std::thread thread;
};

TEST_F(ServiceTest, LivesThroughTheDeathOfTheServer) {
    EXPECT_EQ(depend_on, std::set<queue_t>{queue_t::dbms});
    const int first = ask("/api/v1/classes");
    ASSERT_TRUE(run_until([&] { return asked.size() == 1; }));
    const int second = ask("/api/v1/classes");
    ASSERT_TRUE(run_until([&] { return asked.size() == 2; }));
    reply(1, "second");
    EXPECT_NE(answer(second).find("\"second\""), std::string::npos);
    // It dies while one request waits.
    kill_server();
    EXPECT_TRUE(answer(first).starts_with("HTTP/1.1 503"));
    EXPECT_TRUE(answer(ask("/healthz")).starts_with("HTTP/1.1 503"));
    // It comes back, and the same gateway goes on.
    start_server();
    ASSERT_TRUE(run_until([&] { return parent.isUp(kServerId); }));
    std::string text;
    for (int i = 0; i < 200 && !text.starts_with("HTTP/1.1 200"); ++i) {
        const size_t before = asked.size();
        const int fd = ask("/healthz");
        char first_byte = 0;
        ASSERT_TRUE(run_until([&] {
            return asked.size() > before || ::recv(fd, &first_byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0;
        }));
        if (asked.size() > before) reply(before, "a");
        text = answer(fd);
    }
    EXPECT_TRUE(text.starts_with("HTTP/1.1 200")) << text;
    // A second death finds it as ready as the first.
    const size_t before = asked.size();
    const int last = ask("/api/v1/classes");
    ASSERT_TRUE(run_until([&] { return asked.size() == before + 1; }));
    kill_server();
    EXPECT_TRUE(answer(last).starts_with("HTTP/1.1 503"));
}

TEST_F(ServiceTest, StopsInOrderAndLeavesNobodyWaiting) {
    const int waiting = ask("/api/v1/classes");
    ASSERT_TRUE(run_until([&] { return asked.size() == 1; }));
    main_queue.send(queues::devent<queues::SYS_EXIT>(queue_t::wapi));
    EXPECT_TRUE(answer(waiting).starts_with("HTTP/1.1 503"));
    EXPECT_TRUE(run_until([&] { return parent.isGone(kWapiId); }));
    thread.join();
}

}  // namespace
