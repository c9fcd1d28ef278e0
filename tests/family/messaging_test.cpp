// What siblings may rely on of each other, with one process for each: events, dialogs, death and
// coming back, back pressure, and the orderly end.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "io/exception.h"
#include "queues/dialogs.h"
#include "queues/records/control.h"
#include "queues/records/tsdb_requests.h"
#include "scripted_family.h"
#include "support/rng.h"

namespace family {
namespace {

using namespace queues;

/// An event that carries nothing but a text.
devent<SYSTEM_LOG_REQUEST> text_event(queue_t to, std::string text, uint32_t uid = 0) {
    return devent<SYSTEM_LOG_REQUEST>(to, uid, {.msg = std::move(text), .log_type = 0});
}

std::string text_of(const event& received) {
    return received.number() == SYSTEM_LOG_REQUEST ? data<SYSTEM_LOG_REQUEST>(received).msg
                                                   : event_name(&received);
}

/// A received event as "sender:text", or the end of some peer as "end".
std::string heard(const std::unique_ptr<event>& received) {
    if (!received) return "end";
    return fmt::format("{}:{}", queue_name(received->peer), text_of(*received));
}

std::string long_text(uint64_t seed, size_t length) {
    support::Rng rng(seed);
    std::string text(length, '\0');
    for (char& sign : text) sign = static_cast<char>('a' + rng.below(26));
    return text;
}

// Nobody is left who would tell of the peer's end, so a dialog with a peer that lives and keeps
// silent must not go on for ever.
TEST(Messaging, TheParentsEndEndsADialog) {
    const support::TempDir dir;  // for what the killed parent leaves
    int result[2];
    ASSERT_EQ(::pipe(result), 0);
    const pid_t parent = ::fork();
    if (parent == 0) {
        ::setenv("TMPDIR", dir.path().c_str(), 1);
        ScriptedFamily family;
        family.start(queue_t::tsdb, [](Actor&) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::pause();
        });
        family.start(queue_t::dbms, [&](Actor& me) {
            const uint32_t uid = me.queue.new_uid();
            me.queue.send(devent<CREATE_TIMESERIES>(queue_t::tsdb, uid));
            me.report("asked");
            const std::string_view text = me.queue.await(uid, queue_t::tsdb) ? "answer" : "end";
            [[maybe_unused]] const ssize_t count = ::write(result[1], text.data(), text.size());
        });
        (void)family.next_report(queue_t::dbms);
        ::raise(SIGKILL);
    }
    ::waitpid(parent, nullptr, 0);
    pollfd told{.fd = result[0], .events = POLLIN, .revents = 0};
    ASSERT_EQ(::poll(&told, 1, 10'000), 1) << "the dialog goes on";
    char text[10] = {};
    EXPECT_GT(::read(result[0], text, sizeof text - 1), 0);
    EXPECT_STREQ(text, "end");
    ::close(result[0]);
    ::close(result[1]);
}

// The server has lent blocks to the alarm sibling, which dies; the gateway still holds unread what
// the dead one sent.
TEST(Messaging, AKilledSiblingGivesBackWhatItWasLentAndComesBack) {
    constexpr uint32_t kSlice = 1U << 16;
    ScriptedFamily family(kSlice);
    const auto state = [](Actor& me, const std::unique_ptr<event>& received) {
        return fmt::format("{}, {} lent, alrm lost {}, area \"{}\"", heard(received),
                           me.messenger.unacknowledgedCount(),
                           me.queue.lost_peers().test(queue_t::alrm), me.messenger.check_area());
    };
    const auto on_order = [state](Actor& me) {
        for (std::string line = me.order(); line != "stop"; line = me.order()) {
            if (line == "read") {
                const auto received = me.next();
                me.report(state(me, received));
            } else {
                me.queue.send(text_event(queue_t::alrm, line));
                me.report("sent");
            }
        }
    };
    family.start(queue_t::wapi, on_order);
    family.start(queue_t::dbms, on_order);
    family.start(queue_t::alrm, [](Actor& me) {
        me.queue.send(text_event(queue_t::wapi, "last words"));
        me.report("said");
        ::pause();
    });
    EXPECT_EQ(family.next_report(queue_t::alrm), "said");
    const auto tell = [&](queue_t id, const std::string& line) {
        family.order(id, line);
        return family.next_report(id);
    };
    for (int i = 0; i < 5; ++i) EXPECT_EQ(tell(queue_t::dbms, long_text(1, 9000)), "sent");
    const uint64_t bytes_before = family.messenger().bytesInAreas();
    EXPECT_TRUE(family.kill(queue_t::alrm).by_signal);
    EXPECT_EQ(tell(queue_t::dbms, "read"), "end, 0 lent, alrm lost true, area \"\"");
    EXPECT_EQ(family.messenger().bytesInAreas(), bytes_before);

    family.start(queue_t::alrm, [](Actor& me) {
        me.queue.send(text_event(queue_t::wapi, "back again"));
        const auto received = me.next();
        me.queue.send(text_event(received->peer, "hello " + text_of(*received)));
        me.report("said");
        (void)me.order();
    });
    EXPECT_EQ(family.messenger().bytesInAreas(), bytes_before + kSlice)
        << "the gateway still reads in the dead one's area";
    // By what the parent says after it introduced the newcomer, the server knows it.
    family.queue().send(text_event(queue_t::dbms, "look"));
    EXPECT_EQ(tell(queue_t::dbms, "read"), "main:look, 0 lent, alrm lost true, area \"\"");
    EXPECT_EQ(tell(queue_t::dbms, "server"), "sent");
    EXPECT_EQ(tell(queue_t::dbms, "read"), "alrm:hello server, 0 lent, alrm lost false, area \"\"");

    EXPECT_EQ(tell(queue_t::wapi, "read"), "alrm:last words, 0 lent, alrm lost false, area \"\"");
    EXPECT_EQ(tell(queue_t::wapi, "read"), "end, 0 lent, alrm lost true, area \"\"");
    EXPECT_EQ(tell(queue_t::wapi, "read"), "alrm:back again, 0 lent, alrm lost false, area \"\"");
    family.serve_until([&] { return family.messenger().bytesInAreas() == bytes_before; });
}

/// Returns when all messages of `me` were read, which nothing but a look at the signals tells.
void wait_until_all_is_read(Actor& me) {
    const platform::SystemClock clock;
    io::Timer timer(clock);
    io::BareSelector selector;
    selector.add(me.messenger.someSibling());
    selector.add(timer);
    while (me.messenger.unacknowledgedCount() != 0) {
        timer.set_expiry(Time::now(clock) + Time(0, 1000));
        selector.select(io::wait_t::blocking);
    }
    selector.remove(timer);
    selector.remove(me.messenger.someSibling());
}

// A record whose writer dies in its middle is no record, and the reader, who waits for its rest, is
// told. When that is the parent, its loop doesn't run, and nobody else would notice the death.
TEST(Messaging, ARecordCutOffByDeathHoldsUpNobody) {
    for (const queue_t reader : {queue_t::main, queue_t::dbms}) {
        SCOPED_TRACE(queue_name(reader));
        ScriptedFamily family;
        family.start(queue_t::dbms, [](Actor& me) {
            me.report(heard(me.next()));
            me.report(heard(me.next()));
        });
        family.start(queue_t::wapi, [reader](Actor& me) {
            me.queue.send(text_event(reader, "whole"));
            auto peer = me.messenger.sibling(static_cast<uint32_t>(reader));
            uint8_t* room = nullptr;
            (void)peer->out().writeBegin(room);
            const uint32_t half_a_header[] = {SYSTEM_LOG_REQUEST, 0};
            std::memcpy(room, half_a_header, sizeof half_a_header);
            peer->out().writeCommit(sizeof half_a_header);
            wait_until_all_is_read(me);
            ::raise(SIGKILL);
        });
        EXPECT_TRUE(family.wait_for_end(queue_t::wapi).by_signal);
        if (reader == queue_t::dbms) {
            EXPECT_EQ(family.next_report(reader), "wapi:whole");
            EXPECT_EQ(family.next_report(reader), "end");
            continue;
        }
        EXPECT_EQ(heard(family.next_event()), "wapi:whole");
        family.start(queue_t::wapi,
                     [](Actor& me) { me.queue.send(text_event(queue_t::main, "anew")); });
        EXPECT_EQ(heard(family.next_event()), "wapi:anew");
    }
}

// What a process said just before its death is heard, however much it was and whatever the parent
// learns first.
TEST(Messaging, LastWordsAreHeard) {
    constexpr int kWords = 1000;
    ScriptedFamily family;
    family.start(queue_t::wapi, [](Actor& me) {
        (void)me.order();
        for (int i = 0; i < kWords; ++i)
            me.queue.send(text_event(queue_t::main, std::to_string(i)));
        me.messenger.flush();
        ::raise(SIGKILL);
    });
    family.order(queue_t::wapi, "go");
    // All signals and the death are there before the parent looks.
    siginfo_t ended{};
    ASSERT_EQ(
        ::waitid(P_PID, static_cast<id_t>(family.pid(queue_t::wapi)), &ended, WEXITED | WNOWAIT),
        0);
    for (int i = 0; i < kWords; ++i) {
        const auto received = family.next_event();
        ASSERT_TRUE(received) << i;
        ASSERT_EQ(heard(received), fmt::format("wapi:{}", i));
    }
}

// Each sends, before it reads anything, ten times what both areas hold, in records that no area can
// hold as a whole.
TEST(Messaging, TwoThatFloodEachOtherWithLargeRecordsGoOn) {
    constexpr int kRecords = 8;
    constexpr size_t kBytes = 100'000;
    ScriptedFamily family(1U << 14);
    const auto flood = [](Actor& me, queue_t self, queue_t other) {
        const auto record = [](queue_t from, int number) {
            const auto seed = static_cast<uint64_t>(from) * 1000 + static_cast<uint64_t>(number);
            return long_text(seed, kBytes + seed % 17);
        };
        (void)me.order();
        for (int i = 0; i < kRecords; ++i) me.queue.send(text_event(other, record(self, i)));
        for (int i = 0; i < kRecords; ++i) {
            const auto received = me.next();
            ASSERT_TRUE(received);
            ASSERT_EQ(received->peer, other);
            ASSERT_TRUE(text_of(*received) == record(other, i)) << i;
        }
        me.report("all there");
        me.stop_in_order();
        EXPECT_EQ(me.messenger.check_area(), "");
    };
    constexpr queue_t kOne = queue_t::dbms, kTwo = queue_t::tsdb;
    family.start(kOne, [&](Actor& me) { flood(me, kOne, kTwo); });
    family.start(kTwo, [&](Actor& me) { flood(me, kTwo, kOne); });
    for (const queue_t id : {kOne, kTwo}) family.order(id, "go");
    for (const queue_t id : {kOne, kTwo}) {
        EXPECT_EQ(family.next_report(id), "all there");
        EXPECT_EQ(family.wait_for_end(id).code, 0) << family.errors(id);
    }
}

TEST(Messaging, AnAnswerOfTheWrongClassEndsTheAskerAlone) {
    ScriptedFamily family;
    family.start(queue_t::tsdb, [](Actor& me) {
        const auto request = me.next();
        me.queue.send(devent<RETURN_DELETE_TIMESERIES>(request->peer, request->uid, 0));
        me.report(heard(me.next()));
    });
    family.start(queue_t::dbms, [](Actor& me) { (void)create_time_series(&me.queue, {}); });
    const platform::ExitStatus status = family.wait_for_end(queue_t::dbms);
    EXPECT_TRUE(status.by_signal);
    EXPECT_EQ(status.code, SIGABRT);
    EXPECT_EQ(family.errors(queue_t::dbms),
              "Assertion failed: Dialog to tsdb, sent CREATE_TIMESERIES expected "
              "RETURN_CREATE_TIMESERIES got RETURN_DELETE_TIMESERIES uid=2\n");
    EXPECT_EQ(family.next_report(queue_t::tsdb), "end");
    EXPECT_EQ(family.wait_for_end(queue_t::tsdb).code, 0);
}

}  // namespace
}  // namespace family
