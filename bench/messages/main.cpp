// bench_messages: messages of two processes, real events through our queues beside a unix socket
// and a bare pool. iceoryx is no package of Debian and is left out.

#include <CLI/CLI.hpp>
#include <exception>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/report.h"
#include "error/exception.h"
#include "messages/channel.h"

namespace {

using bench::better_t;
using bench::message_t;

struct Sizes {
    uint32_t dialogs = 50'000;
    uint32_t in_flight = 500'000;
    uint32_t large = 50'000;
};

constexpr uint32_t kInFlight = 16;
constexpr double kGigabyte = 1e9;

const std::vector<bench::Row> kRows = {
    {"one", "request and reply of 256 bytes, 1/s", better_t::more, {{"socket", 1}}},
    {"many", "the same, 16 in flight, 1/s", better_t::more, {{"socket", 2}}},
    {"large", "one-way messages of 64 KiB, GB/s", better_t::more, {{"", 8}}, 1},
};

/// The other process: answers requests until it is told to stop.
void serve(bench::Channel& channel) {
    for (;;) {
        const message_t message = channel.receive();
        if (message == message_t::stop) return;
        if (message == message_t::request) channel.send(message_t::reply);
    }
}

void expect_reply(bench::Channel& channel) {
    if (channel.receive() != message_t::reply) throw std::runtime_error("not a reply");
}

bench::Figures measure(bench::Channel& channel, const Sizes& sizes) {
    bench::Figures figures;
    const auto dialog = [&] {
        channel.send(message_t::request);
        expect_reply(channel);
    };
    for (int i = 0; i < 100; ++i) dialog();
    figures["one"] = sizes.dialogs / bench::seconds_of([&] {
                         for (uint32_t i = 0; i < sizes.dialogs; ++i) dialog();
                     });
    figures["many"] = sizes.in_flight / bench::seconds_of([&] {
                          for (uint32_t sent = 0; sent < sizes.in_flight + kInFlight; ++sent) {
                              if (sent >= kInFlight) expect_reply(channel);
                              if (sent < sizes.in_flight) channel.send(message_t::request);
                          }
                      });
    const double seconds = bench::seconds_of([&] {
        for (uint32_t i = 0; i < sizes.large; ++i) channel.send(message_t::large);
        dialog();
    });
    figures["large"] = sizes.large * double{bench::kLargeBytes} / seconds / kGigabyte;
    channel.send(message_t::stop);
    channel.flush();
    return figures;
}

/// Runs the two processes, both apart from this one.
bench::Figures measure_road(std::unique_ptr<bench::Road> (*make)(), const Sizes& sizes) {
    return bench::run_in_child([&] {
        const auto road = make();
        const pid_t far = ::fork();
        if (far < 0) throw std::runtime_error("fork failed");
        if (far == 0) {
            int status = 1;
            try {
                serve(*road->far_end());
                status = 0;
            } catch (const error::Exception& failure) {
                fmt::print(stderr, "bench: {}\n", failure.text());
            } catch (const std::exception& failure) {
                fmt::print(stderr, "bench: {}\n", failure.what());
            }
            ::_exit(status);
        }
        const auto channel = road->near_end();
        bench::Figures figures = measure(*channel, sizes);
        int status = 0;
        if (::waitpid(far, &status, 0) != far || status != 0)
            throw std::runtime_error("the answering process failed");
        return figures;
    });
}

struct Subject {
    const char* name;
    std::unique_ptr<bench::Road> (*make)();
};

const std::vector<Subject> kRoads = {{"tarmik", bench::make_tarmik_road},
                                     {"socket", bench::make_socket_road},
                                     {"bare pool", bench::make_pool_road}};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures messages of two processes beside a unix socket and a bare pool");
    Sizes sizes;
    uint32_t rounds = 5;
    std::string only;
    bool quick = false;
    app.add_option("--rounds", rounds, "Rounds, of which the medians are taken")
        ->check(CLI::PositiveNumber);
    app.add_option("--only", only, "Just this road");
    app.add_flag("--quick", quick, "A short run: few messages, one round");
    CLI11_PARSE(app, argc, argv);
    if (quick) {
        rounds = 1;
        sizes = {5'000, 50'000, 5'000};
    }

    std::vector<std::string> names;
    for (const Subject& road : kRoads)
        if (only.empty() || only == road.name) names.emplace_back(road.name);
    bench::Report report(names);
    fmt::print("Messages of two processes, {} rounds; {}\n", rounds, bench::machine_line());
    for (uint32_t round = 0; round < rounds; ++round)
        for (const Subject& road : kRoads)
            if (only.empty() || only == road.name)
                report.add(road.name, measure_road(road.make, sizes));
    fmt::print("{}iceoryx is no package of Debian and is left out; {}\n", report.table(kRows),
               bench::machine_line());
    return 0;
}
