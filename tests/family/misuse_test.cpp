// A running family under clients and siblings that do everything wrong, and processes killed one by
// one: nobody who did no wrong suffers, and what was acknowledged stays.
#include <arpa/inet.h>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "io/exception.h"
#include "mdb/database.h"
#include "processes.h"
#include "queues/event_types.h"
#include "running_family.h"
#include "scripted_family.h"

namespace family {
namespace {

using nlohmann::json;

/// Creates a domain below the root; its id, empty if it was refused.
std::string create_domain(const RunningFamily& family, const std::string& name) {
    cli::ApiClient api(family.url());
    const Outcome outcome = post(api, "/api/v1/create",
                                 {{"parent", "0.1"},
                                  {"class", "Domain"},
                                  {"properties", {{"name", name}, {"label", name}}}});
    return outcome.ok() ? (*outcome.answer)["id"].get<std::string>() : "";
}

bool has_domain(const RunningFamily& family, const std::string& id) {
    cli::ApiClient api(family.url());
    const Outcome outcome =
        post(api, "/api/v1/select", {{"roots", {id}}, {"pattern", "Domain[name]"}});
    return outcome.ok() && (*outcome.answer)["results"].size() == 1;
}

/// Waits until another process than `former` runs under this name and the family is healthy.
bool is_replaced(const RunningFamily& family, const std::string& name, pid_t former) {
    return wait_for([&] {
               const pid_t now = family.child_pid(name);
               return now > 0 && now != former;
           }) &&
           family.wait_healthy();
}

/// A connection to the gateway; none if it doesn't listen.
platform::Fd connect_to(const RunningFamily& family) {
    platform::Fd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port =
        htons(static_cast<uint16_t>(std::stoul(family.url().substr(family.url().rfind(':') + 1))));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience{.tv_sec = 30, .tv_usec = 0};
    ::setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(client.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        client.reset();
    return client;
}

/// Sends bytes as they are over a connection of its own and gives the status of the answer, 0 for
/// none. `count` more signs 'x' follow.
int raw_request(const RunningFamily& family, const std::string& bytes, size_t count = 0) {
    const platform::Fd client = connect_to(family);
    ssize_t sent = ::send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    const std::string chunk(1U << 16, 'x');
    for (size_t left = count; left > 0 && sent > 0; left -= static_cast<size_t>(sent))
        sent = ::send(client.get(), chunk.data(), std::min(left, chunk.size()), MSG_NOSIGNAL);
    std::string answer(12, '\0');
    size_t got = 0;
    while (got < answer.size()) {
        const ssize_t more = ::recv(client.get(), answer.data() + got, answer.size() - got, 0);
        if (more <= 0) return 0;
        got += static_cast<size_t>(more);
    }
    return std::stoi(answer.substr(9));
}

std::string post_text(const std::string& path, const std::string& body) {
    return fmt::format("POST {} HTTP/1.1\r\nHost: localhost\r\nContent-Length: {}\r\n\r\n{}", path,
                       body.size(), body);
}

/// The most memory that a process ever had, in KiB.
long peak_memory_KiB(pid_t pid) {
    const std::string status = read_file(fmt::format("/proc/{}/status", pid));
    const size_t at = status.find("VmHWM:");
    return at == status.npos ? -1 : std::stol(status.substr(at + 6));
}

TEST(Misuse, ClientsThatSendNonsenseGetAnErrorAndHarmNobody) {
    RunningFamily family;
    const pid_t gateway = family.child_pid("wapi");
    const pid_t server = family.child_pid("dbms");
    const std::string domain = create_domain(family, "kept");
    ASSERT_FALSE(domain.empty());

    std::string deep = "Domain";
    for (int i = 0; i < 10'000; ++i) deep += " > Domain";
    std::string nested = "Domain";
    for (int i = 0; i < 10'000; ++i) nested += " > (Domain";
    const auto select = [](const std::string& pattern) {
        return post_text("/api/v1/select", json{{"roots", {"0.1"}}, {"pattern", pattern}}.dump());
    };
    const std::pair<const char*, std::string> requests[] = {
        {"deep pattern", select(deep)},
        {"nested pattern", select(nested)},
        {"deep JSON", post_text("/api/v1/select", std::string(100'000, '['))},
        {"garbage", post_text("/api/v1/create", "\x01\x02{]\xff")},
        {"nothing", post_text("/api/v1/update", "")},
        {"another type", post_text("/api/v1/delete", "[1,2,3]")},
    };
    for (const auto& [what, request] : requests) {
        const int status = raw_request(family, request);
        EXPECT_GE(status, 400) << what;
        EXPECT_LT(status, 500) << what;
    }
    const long before_KiB = peak_memory_KiB(gateway);
    constexpr size_t kHuge = 100U << 20;
    EXPECT_EQ(raw_request(family,
                          fmt::format("POST /api/v1/create HTTP/1.1\r\nHost: localhost\r\n"
                                      "Content-Length: {}\r\n\r\n",
                                      kHuge),
                          kHuge),
              413);
    EXPECT_LT(peak_memory_KiB(gateway), before_KiB + 16 * 1024);
    EXPECT_EQ(raw_request(family, "no HTTP at all\r\n\r\n"), 400);

    EXPECT_EQ(family.child_pid("wapi"), gateway);
    EXPECT_EQ(family.child_pid("dbms"), server);
    EXPECT_TRUE(has_domain(family, domain));
    EXPECT_EQ(family.stop().code, 0);
}

/// One that nobody started is not let in, neither under an id of its own nor under the server's.
void expect_strangers_stay_out(const RunningFamily& family, const io::PoolAccess& access) {
    for (const auto id : {queues::queue_t::esxi, queues::queue_t::dbms}) {
        const platform::Fd fifo = platform::open_fifo_for_writing(access.fifo_prefix + ".0", "");
        const uint32_t i_am_up[] = {(static_cast<uint32_t>(id) << 8) | 16,
                                    static_cast<uint32_t>(id)};
        EXPECT_EQ(::write(fifo.get(), i_am_up, sizeof i_am_up), 8);
        EXPECT_TRUE(family.logs(
            fmt::format("none of ours says that it is sibling {}", static_cast<uint32_t>(id))));
    }
}

// The server ends, as it must when it cannot trust its peers any more, and comes back with
// everything it had acknowledged.
TEST(Misuse, ASiblingThatSendsNonsenseCostsNoData) {
    constexpr uint32_t kServer = 2, kSelect = queues::TQL_SELECT;
    constexpr queues::queue_t kRogue = queues::queue_t::extra;
    const auto send_words = [](const io::PoolAccess& access, const std::vector<uint32_t>& words) {
        Actor rogue(kRogue, access, -1, -1);
        auto server = rogue.messenger.sibling(kServer);
        io::waitReady(server->out());
        uint8_t* room = nullptr;
        (void)server->out().writeBegin(room);
        std::memcpy(room, words.data(), words.size() * sizeof(uint32_t));
        server->out().writeCommit(words.size() * sizeof(uint32_t));
        rogue.stop_in_order();
    };
    struct Case {
        std::function<void(const io::PoolAccess&)> act;
        std::string text;
    };
    const Case cases[] = {
        {[](const io::PoolAccess& access) {
             const platform::Fd fifo =
                 platform::open_fifo_for_writing(access.fifo_prefix + ".2", "");
             const uint32_t nonsense[] = {0xFFFFFFFF, 23};
             EXPECT_EQ(::write(fifo.get(), nonsense, sizeof nonsense), 8);
         },
         "Assertion failed: Got MT_Undefined"},
        {[&](const io::PoolAccess& access) {
             send_words(access, {206, kServer, 1, 0});
         },
         "Assertion failed: fdio >> event: unknown type index: 206"},
        // A list of 2^32 - 1 roots.
        {[&](const io::PoolAccess& access) {
             send_words(access, {kSelect, kServer, 1, 0, 0xFFFFFFFF});
         },
         "Caught: Malformed record in TQL_SELECT"},
    };
    // The rogue takes the place of a sibling that is started and never comes up.
    const support::TempDir programs;
    RunningFamily family(4U << 20, sleeping_sibling(programs, "extra"));
    ASSERT_TRUE(family.logs("Started extra"));
    platform::Fd pool;
    const io::PoolAccess access = family.pool_access(pool);
    const pid_t gateway = family.child_pid("wapi");
    std::vector<std::string> domains;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        domains.push_back(create_domain(family, fmt::format("domain {}", domains.size())));
        ASSERT_FALSE(domains.back().empty());
        const pid_t server = family.child_pid("dbms");
        c.act(access);
        ASSERT_TRUE(is_replaced(family, "dbms", server)) << family.log_text();
        EXPECT_NE(family.errors_text().find(c.text), std::string::npos) << family.errors_text();
        for (const std::string& domain : domains) EXPECT_TRUE(has_domain(family, domain));
    }
    // A record that ends with its sender is dropped, and nothing else happens.
    const pid_t server = family.child_pid("dbms");
    send_words(access, {kSelect, kServer, 1, 0, 5});
    for (const std::string& domain : domains) EXPECT_TRUE(has_domain(family, domain));
    EXPECT_EQ(family.child_pid("dbms"), server);
    EXPECT_EQ(family.child_pid("wapi"), gateway);
    expect_strangers_stay_out(family, access);
    for (const std::string& domain : domains) EXPECT_TRUE(has_domain(family, domain));
    EXPECT_EQ(family.child_pid("dbms"), server);
    EXPECT_EQ(family.stop().code, 0);
}

TEST(Misuse, ThoseKilledComeBackAndTheOthersStay) {
    RunningFamily family;
    const std::string domain = create_domain(family, "kept");
    const pid_t server = family.child_pid("dbms");
    const pid_t gateway = family.child_pid("wapi");
    ::kill(gateway, SIGKILL);
    ASSERT_TRUE(is_replaced(family, "wapi", gateway)) << family.log_text();
    EXPECT_EQ(family.child_pid("dbms"), server);
    EXPECT_TRUE(has_domain(family, domain));

    // Without their parent the children end, and the next family finds everything.
    std::vector<platform::Fd> ends;
    for (const char* name : {"dbms", "wapi"})
        ends.push_back(platform::open_pidfd(family.child_pid(name)));
    const std::string last = create_domain(family, "last");
    family.kill_main();
    for (const platform::Fd& end : ends) EXPECT_TRUE(ends_within(end.get(), 30));
    family.start();
    EXPECT_TRUE(has_domain(family, domain));
    EXPECT_TRUE(has_domain(family, last));

    // An orderly stop with a connection open and a request half sent.
    cli::ApiClient idle(family.url());
    (void)idle.get("/healthz");
    const platform::Fd half_way = connect_to(family);
    const std::string begin =
        "POST /api/v1/create HTTP/1.1\r\nHost: x\r\nContent-Length: 99\r\n\r\n{";
    ASSERT_EQ(::send(half_way.get(), begin.data(), begin.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(begin.size()));
    const platform::ExitStatus status = family.stop();
    EXPECT_FALSE(status.by_signal);
    EXPECT_EQ(status.code, 0);
    EXPECT_EQ(family.log_text().find("by force"), std::string::npos) << family.log_text();
    platform::SystemFiles files;
    const platform::SystemClock clock;
    EXPECT_NO_THROW(mdb::Database(
        {.database_path = family.database_path(), .journal_path = family.journal_path()}, files,
        clock));
}

TEST(Misuse, ASecondFamilyWithTheSameFifosIsRefused) {
    RunningFamily family;
    const std::string domain = create_domain(family, "taken");
    const std::string errors = family.dir().file("said");
    const pid_t server = family.child_pid("dbms");
    const platform::ExitStatus second = platform::wait_for_end(
        spawn_into_files({.program = RunningFamily::program("tarmik"),
                          .arguments = {"run", "--config", family.dir().file("tarmik.toml")}},
                         family.dir().file("output"), errors));
    EXPECT_FALSE(second.by_signal);
    EXPECT_EQ(second.code, 1);
    EXPECT_NE(read_file(errors).find("Caught: Another family is running with the FIFOs"),
              std::string::npos)
        << read_file(errors);
    EXPECT_EQ(family.child_pid("dbms"), server);
    EXPECT_TRUE(has_domain(family, domain));
    EXPECT_EQ(family.stop().code, 0);
}

TEST(Misuse, FilesAreTheOwnersAloneWhateverTheUmask) {
    const mode_t before = ::umask(0);
    RunningFamily family;
    ::umask(before);
    const auto mode = [&](const std::string& path) {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 0777;
    };
    EXPECT_EQ(mode(family.database_path()), 0600U);
    EXPECT_EQ(mode(family.journal_path()), 0600U);
    EXPECT_EQ(mode(family.dir().file("world.tsdb")), 0600U);
    EXPECT_EQ(mode(family.dir().file("run")), 0700U);
    for (const char* id : {"0", "2", "23"})
        EXPECT_EQ(mode(family.dir().file(fmt::format("run/fifo.{}", id))), 0600U) << id;
    EXPECT_EQ(family.stop().code, 0);
}

}  // namespace
}  // namespace family
