// The end of the whole process `wapi` but for its main(), in a real family: a real pool and real
// FIFOs, with the test as main process and as server.
#include "wapi/service.h"

#include <future>
#include <thread>

#include "http_client.h"
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

TEST(ServiceTest, StopsInOrderAndLeavesNobodyWaiting) {
    const support::TempDir dir;
    const platform::SystemClock clock;
    Policy policy;
    io::ParentMessenger parent{dir.file("fifo"), 16U << 20, policy};
    queues::childqueue main_queue{parent, clock};
    io::ChildMessenger server(kServerId, parent.access());
    queues::childqueue server_queue(server, clock);
    io::BareSelector selector;
    selector.add(main_queue.front());
    selector.add(server_queue.front());

    std::promise<uint16_t> port;
    std::thread thread([&] {
        const platform::SystemClock own_clock;
        io::ChildMessenger messenger(kWapiId, parent.access());
        queues::childqueue queue(messenger, own_clock);
        {
            wapi::Service service(messenger, queue, own_clock, 0);
            port.set_value(service.port());
            service.run();
        }
        messenger.completeShutdown();
    });
    http_test::Client client(port.get_future().get());
    client.get("/api/v1/classes");

    std::optional<std::set<queue_t>> depend_on;
    bool asked = false;
    const auto run_until = [&](const std::function<bool()>& done) {
        const uint64_t limit_us = clock.monotonic_us() + 10'000'000;
        while (!done()) {
            if (clock.monotonic_us() > limit_us) return false;
            client.step();
            parent.flush();
            server.flush();
            try {
                if (&selector.select(io::wait_t::non_blocking) == &server_queue.front()) {
                    asked = server_queue.read() != nullptr || asked;
                } else if (const auto received = main_queue.read();
                           received && received->number() == queues::INIT_OK) {
                    depend_on = queues::data<queues::INIT_OK>(*received).depend_on;
                }
            } catch (const io::ENotReady&) {
                std::this_thread::yield();
            }
        }
        return true;
    };
    EXPECT_TRUE(run_until([&] { return depend_on && asked; }));
    EXPECT_EQ(depend_on, std::set<queue_t>{queue_t::dbms});
    const uint64_t told_us = clock.monotonic_us();
    main_queue.send(queues::devent<queues::SYS_EXIT>(queue_t::wapi));
    EXPECT_TRUE(run_until([&] { return client.status() != 0; }));
    EXPECT_EQ(client.status(), 503);
    EXPECT_LT(clock.monotonic_us(), told_us + 1'500'000);  // not only when its patience ends
    EXPECT_TRUE(run_until([&] { return parent.isGone(kWapiId); }));
    thread.join();
    selector.remove(server_queue.front());
    selector.remove(main_queue.front());
}

}  // namespace
