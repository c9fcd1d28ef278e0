// Parent and children in one process: introductions, order, death, coming back, shutdown.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "family.h"

namespace {

using io_test::Family;
using io_test::hear;
using io_test::say;

TEST(Messenger, SiblingsMeetAndTalkInOrderOfPublishing) {
    Family family;
    family.start(2);
    family.start(5);
    EXPECT_EQ(family.parent().newSiblings().take(), 2u);
    EXPECT_EQ(family.parent().newSiblings().take(), 5u);
    EXPECT_EQ(family.parent().newSiblings().take(), std::nullopt);

    ASSERT_TRUE(say(family.at(5), 2, "a"));
    ASSERT_TRUE(say(family.parent(), 2, "b"));
    family.settle();
    ASSERT_TRUE(say(family.at(5), 2, "c"));
    ASSERT_TRUE(say(family.at(2), 2, "self"));
    // Arrival: what the parent and 5 wrote before the settling is in either order, but 5's own
    // order holds.
    const std::string heard = family.heard(2);
    EXPECT_TRUE(heard == "5:a 0:b 5:c 2:self" || heard == "0:b 5:a 5:c 2:self") << heard;
    ASSERT_TRUE(say(family.at(2), 0, "x"));
    ASSERT_TRUE(say(family.at(2), 5, "y"));
    EXPECT_EQ(family.heard(0), "2:x");
    EXPECT_EQ(family.heard(5), "2:y");
    family.settle();
    for (auto& [id, member] : family.members) {
        EXPECT_EQ(member->messenger->unacknowledgedCount(), 0u) << id;
        EXPECT_EQ(member->messenger->check_area(), "") << id;
    }
}

TEST(Messenger, FifosAreTheOwnersAloneWhateverTheUmask) {
    for (const mode_t mask : {mode_t{0}, mode_t{0777}, mode_t{0277}}) {
        const mode_t before = ::umask(0022);
        Family family;
        ::umask(mask);
        family.start(3);
        ::umask(before);
        struct stat status {};
        ASSERT_EQ(::stat(family.dir.file("fifo.3").c_str(), &status), 0);
        EXPECT_TRUE(S_ISFIFO(status.st_mode));
        EXPECT_EQ(status.st_mode & 0777, 0600u) << mask;
        ASSERT_EQ(::fstat(family.parent().access().map_fd, &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
    }
}

TEST(Messenger, AMessageIsAcknowledgedOnceAfterItsLastByte) {
    Family family;
    family.start(2);
    ASSERT_TRUE(say(family.parent(), 2, "abcdef"));
    family.settle();
    auto from_parent = family.at(2).sibling(0);
    for (int i = 0; i < 6; ++i) {
        const uint8_t* bytes = nullptr;
        ASSERT_EQ(from_parent->in().readBegin(bytes), static_cast<size_t>(6 - i));
        EXPECT_EQ(*bytes, "abcdef"[i]);
        EXPECT_EQ(family.parent().unacknowledgedCount(), 1u);
        from_parent->in().readCommit(1);
        family.settle();
    }
    EXPECT_EQ(family.parent().unacknowledgedCount(), 0u);
    const uint8_t* bytes = nullptr;
    EXPECT_THROW(from_parent->in().readBegin(bytes), io::ENotReady);
}

TEST(Messenger, AMessageWaitsForItsReceiverToComeUp) {
    Family family;
    family.policy.granted = {7};
    family.start(2);
    ASSERT_TRUE(say(family.at(2), 7, "early"));
    ASSERT_TRUE(say(family.at(2), 7, "bird"));
    family.settle();
    ASSERT_EQ(family.policy.requests.size(), 1u);
    EXPECT_EQ(family.policy.requests[0], std::make_pair(2u, 7u));
    EXPECT_EQ(family.at(2).unacknowledgedCount(), 2u);
    family.start(7);
    EXPECT_EQ(family.heard(7), "2:early 2:bird");
    family.settle();
    EXPECT_EQ(family.at(2).unacknowledgedCount(), 0u);
}

TEST(Messenger, ARefusedPeerShowsAsEnded) {
    Family family;
    family.start(2);
    for (const uint32_t asker : {2u, 0u}) {
        ASSERT_TRUE(say(family.at(asker), 9, "anybody?"));
        family.settle();
        EXPECT_EQ(family.at(asker).unacknowledgedCount(), 0u);
        EXPECT_EQ(family.at(asker).check_area(), "");
        EXPECT_THROW(say(family.at(asker), 9, "again"), io::EEndOfStream);
        EXPECT_EQ(family.heard(asker), "9!");
        EXPECT_THROW(say(family.at(asker), 9, "and again"), io::EEndOfStream);
    }
}

TEST(Messenger, BlocksLentToADeadSiblingComeBack) {
    Family family;
    family.start(2);
    family.start(3);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(say(family.at(2), 3, "for the dead"));
        ASSERT_TRUE(say(family.at(2), 0, "for the living"));
    }
    ASSERT_TRUE(say(family.at(3), 2, "last words"));
    family.settle();
    family.kill(3);
    EXPECT_EQ(family.at(2).unacknowledgedCount(), 5u);
    EXPECT_EQ(family.at(2).check_area(), "");
    EXPECT_THROW(say(family.at(2), 3, "x"), io::EEndOfStream);
    EXPECT_EQ(family.heard(2), "3:last words 3!");
    const uint8_t* bytes = nullptr;
    try {
        family.at(2).sibling(3)->in().readBegin(bytes);
        FAIL();
    } catch (const io::EEndOfStream& end) {
        EXPECT_EQ(end.reason(), "readBegin had empty queue and process error");
        EXPECT_EQ(end.text().find("EOS from SiblingIStream[3]"), 0u);
    }
}

// The area of the dead stays taken as long as somebody reads it, and the newcomer is met only when
// its former end was read.
TEST(Messenger, ASiblingComesBackUnderItsId) {
    Family family;
    family.start(2);
    family.start(3);
    const uint64_t bytes_before = family.parent().bytesInAreas();
    ASSERT_TRUE(say(family.at(3), 2, "old"));
    ASSERT_TRUE(say(family.at(3), 0, "old"));
    family.settle();
    family.kill(3);
    EXPECT_EQ(family.parent().bytesInAreas(), bytes_before);
    EXPECT_EQ(family.heard(0), "3:old 3!");
    EXPECT_EQ(family.parent().bytesInAreas(), bytes_before) << "2 still reads the area";

    family.start(3);
    EXPECT_EQ(family.parent().bytesInAreas(), bytes_before + 4096);
    ASSERT_TRUE(say(family.at(3), 2, "new"));
    family.settle();
    EXPECT_THROW(say(family.at(2), 3, "x"), io::EEndOfStream);
    EXPECT_EQ(hear(family.at(2)), "3:old");
    family.settle();
    EXPECT_EQ(family.parent().bytesInAreas(), bytes_before);
    EXPECT_EQ(family.heard(2), "3! 3:new");
    ASSERT_TRUE(say(family.at(2), 3, "welcome"));
    EXPECT_EQ(family.heard(3), "2:welcome");
    family.settle();
    EXPECT_EQ(family.at(3).unacknowledgedCount(), 0u);
    EXPECT_EQ(family.at(2).unacknowledgedCount(), 0u);
}

TEST(Messenger, SeveralLivesPassWhileNobodyReads) {
    Family family;
    family.start(2);
    for (int life = 0; life < 4; ++life) {
        family.start(3);
        ASSERT_TRUE(say(family.at(3), 2, std::to_string(life)));
        ASSERT_TRUE(say(family.at(3), 2, "more"));
        family.settle();
        family.kill(3);
        EXPECT_EQ(family.heard(0), "3!");
    }
    family.start(3);
    ASSERT_TRUE(say(family.at(3), 2, "here"));
    EXPECT_EQ(family.heard(2), "3:0 3:more 3! 3:1 3:more 3! 3:2 3:more 3! 3:3 3:more 3! 3:here");
    family.settle();
    EXPECT_EQ(family.parent().bytesInAreas(), 3 * 4096u);
    EXPECT_EQ(family.at(3).unacknowledgedCount(), 0u);
}

// The pool has room for three areas, so the second life waits until the first one's area is free.
TEST(Messenger, ComingBackWaitsForRoom) {
    Family family(4096 * 4, 4096);
    family.start(2);
    family.start(3);
    ASSERT_TRUE(say(family.at(3), 2, "old"));
    family.settle();
    family.kill(3);
    EXPECT_EQ(family.heard(0), "3!");
    family.start(3);
    EXPECT_FALSE(family.parent().isUp(3));
    EXPECT_EQ(family.heard(2), "3:old 3!");
    family.settle();
    EXPECT_TRUE(family.parent().isUp(3));
    ASSERT_TRUE(say(family.at(2), 3, "hello"));
    EXPECT_EQ(family.heard(3), "2:hello");
}

TEST(Messenger, AFullAreaStopsTheWriterUntilARead) {
    Family family(1 << 20, 128);
    family.start(2);
    int written = 0;
    while (say(family.at(2), 0, std::string(20, 'x'))) ++written;
    EXPECT_GE(written, 2);
    auto parent = family.at(2).sibling(0);
    uint8_t* room = nullptr;
    // The last free block may be too small for another text, but not for its beginning.
    while (parent->out().isReady()) {
        const size_t size = parent->out().writeBegin(room);
        parent->out().writeCommit(size);
    }
    EXPECT_THROW(parent->out().writeBegin(room), io::ENotReady);
    family.settle();
    EXPECT_FALSE(parent->out().isReady());
    hear(family.parent());
    family.settle();
    EXPECT_TRUE(parent->out().isReady());
    EXPECT_EQ(family.at(2).check_area(), "");
}

TEST(Messenger, AFullFifoIsToldOf) {
    Family family(1 << 22, 1 << 20);
    family.start(2);
    family.start(3);
    EXPECT_EQ(family.parent().lentBytes(2), 0u);
    constexpr int kMoreThanAFifoTakes = 9000;
    for (int i = 0; i < kMoreThanAFifoTakes; ++i) ASSERT_TRUE(say(family.parent(), 2, "12345"));
    family.parent().flush();
    EXPECT_EQ(family.parent().lentBytes(2), 5u * kMoreThanAFifoTakes);
    EXPECT_TRUE(family.parent().holdsUpOthersSince_us(2));
    EXPECT_FALSE(family.parent().holdsUpOthersSince_us(3));
    family.settle();
    EXPECT_FALSE(family.parent().holdsUpOthersSince_us(2));
    EXPECT_EQ(family.parent().lentBytes(3), 0u);
}

TEST(Messenger, ShutdownInThreeSteps) {
    Family family;
    family.start(2);
    family.start(3);
    ASSERT_TRUE(say(family.at(2), 3, "outgoing"));
    ASSERT_TRUE(say(family.at(3), 2, "incoming"));
    family.settle();
    family.child(2).initiateShutdown();
    family.settle();
    // 3 holds a message of 2 and has one with it: no consent yet. The parent can still be answered.
    EXPECT_THROW(say(family.at(2), 3, "late"), io::EEndOfStream);
    ASSERT_TRUE(say(family.at(2), 0, "reply"));
    EXPECT_EQ(hear(family.at(3)), "2:outgoing");
    family.settle();
    ASSERT_TRUE(say(family.at(2), 0, "still allowed"));
    EXPECT_EQ(hear(family.at(2)), "3:incoming");
    family.settle();
    EXPECT_THROW(say(family.at(2), 0, "too late"), io::EEndOfStream);
    EXPECT_FALSE(family.members[2]->hasMessage()) << "the parent has not read all yet";
    EXPECT_EQ(family.heard(0), "2:reply 2:still allowed");
    EXPECT_EQ(family.heard(2), "0! 2! 3!");
    family.child(2).completeShutdown();
    family.settle();
    EXPECT_TRUE(family.parent().isGone(2));
    EXPECT_EQ(family.heard(3), "2!");
    EXPECT_EQ(family.heard(0), "2!");
    EXPECT_EQ(family.parent().bytesInAreas(), 2 * 4096u);
    family.members.erase(2);
    family.parent().siblingGone(2);
    family.start(2);
    ASSERT_TRUE(say(family.at(3), 2, "again"));
    EXPECT_EQ(family.heard(2), "3:again");
}

TEST(Messenger, ADeathEndsTheWaitOfAShutdown) {
    Family family;
    family.start(2);
    family.start(3);
    ASSERT_TRUE(say(family.at(2), 3, "unread"));
    family.settle();
    family.child(2).initiateShutdown();
    family.settle();
    EXPECT_FALSE(family.members[2]->hasMessage());
    family.kill(3);
    EXPECT_EQ(family.heard(2), "3! 0! 2!");
}

TEST(Messenger, TwoStopAtOnce) {
    Family family;
    family.start(2);
    family.start(3);
    family.child(2).initiateShutdown();
    family.child(3).initiateShutdown();
    EXPECT_EQ(family.heard(2), "0! 2! 3!");
    EXPECT_EQ(family.heard(3), "0! 2! 3!");
    family.child(2).completeShutdown();
    family.child(3).completeShutdown();
    family.settle();
    EXPECT_TRUE(family.parent().isGone(2));
    EXPECT_TRUE(family.parent().isGone(3));
    family.heard(0);
    EXPECT_EQ(family.parent().bytesInAreas(), 4096u);
}

/// Puts raw words into the FIFO of `id`, as a broken sibling 5 would, and has it read them.
void inject(Family& family, uint32_t id, const std::vector<uint32_t>& words, uint32_t sender = 5) {
    const platform::Fd fd =
        platform::open_fifo_for_writing(family.dir.file("fifo." + std::to_string(id)), "open");
    for (const uint32_t word : words) {
        const uint32_t signal[] = {word, sender};
        ASSERT_EQ(::write(fd.get(), signal, sizeof signal), 8);
    }
    family.members.at(id)->serveSignals();
}

TEST(Messenger, NonsenseSignalsEndTheProcessWithTheirText) {
    struct Row {
        uint32_t receiver;
        std::vector<uint32_t> words;
        const char* text;
    };
    const Row rows[] = {
        {2, {7}, "Assertion failed: Got MT_Undefined"},
        {2, {8}, "Assertion failed: Got MT_Undefined"},
        {2, {0xFFFFFFFF}, "Assertion failed: Got MT_Undefined"},
        {2, {(200 << 8) | 56}, "Assertion failed: Got MT_Undefined"},
        {2, {(5 << 8) | 0}, "Assertion failed: Got RequestPeer but we're a child"},
        {2, {(5 << 8) | 16}, "Assertion failed: Got IAmUp but we're a child"},
        {2, {(2 << 8) | 40}, "Assertion failed: Protocol violation; got AckShutdown unexpectedly"},
        {2, {4096 | 3, (5 << 8) | 24}, "Assertion failed: Stack size is 1 on SiblingAt"},
        {2, {4096 | 4, 4096 | 3, (5 << 8) | 24}, "Assertion failed: No ExtraOffset on SiblingAt"},
        {2, {4096 | 3, 4096 | 3, (5 << 8) | 24}, "Assertion failed: No ExtraSize on SiblingAt"},
        {2,
         {4096 | 3, 8 | 4, (5 << 8) | 48},
         "Too big a stack: ExtraOffset\\(4096\\) \\[from:5\\]"},
        {2,
         {4096 | 2},
         "Assertion failed: Not one of my messages: AckMessageAt\\(4096\\) \\[from:5\\]"},
        {2, {(1u << 30) | 1}, "Assertion failed: Offset out of range: 1073741824 !< 1048576"},
        {2, {((1u << 20) - 8) | 1}, "Assertion failed: Offset out of range"},
        {0, {(5 << 8) | 56}, "Assertion failed: MT_SiblingDied not valid to parent"},
    };
    Family family;
    family.start(2);
    for (const Row& row : rows) EXPECT_DEATH(inject(family, row.receiver, row.words), row.text);
    EXPECT_DEATH(inject(family, 2, {4096 | 1}, 4711), "Got MT_Undefined");
    EXPECT_DEATH(
        {
            const platform::Fd fd =
                platform::open_fifo_for_writing(family.dir.file("fifo.2"), "open");
            ASSERT_EQ(::write(fd.get(), "abc", 3), 3);
            family.members.at(2)->serveSignals();
        },
        "Assertion failed: Read 3 bytes on input FIFO");
}

TEST(Messenger, AStrangerGetsNoAreaAndIsNotHeard) {
    Family family;
    family.start(2);
    family.policy.strangers = {7};
    family.start(7);
    EXPECT_TRUE(family.parent().isGone(7));
    EXPECT_EQ(family.parent().bytesInAreas(), 2 * 4096u);
    EXPECT_FALSE(family.at(7).sibling(2)->out().isReady());
    ASSERT_TRUE(say(family.at(2), 0, "not the stranger's"));
    inject(family, 2, {8192 | 1}, 7);
    inject(family, 0, {8192 | 1}, 7);
    EXPECT_EQ(family.heard(2), "");
    EXPECT_EQ(family.heard(0), "2:not the stranger's");
}

TEST(Messenger, MisuseOfTheShutdownIsFatal) {
    Family family;
    family.start(2);
    EXPECT_DEATH(family.child(2).completeShutdown(),
                 "Protocol violation; premature completeShutdown");
    family.child(2).initiateShutdown();
    EXPECT_DEATH(family.child(2).initiateShutdown(), "Shutdown already in progress...");
    family.settle();
    family.child(2).completeShutdown();
    EXPECT_DEATH(family.child(2).completeShutdown(),
                 "Protocol violation; duplicate completeShutdown");
}

// A dead sibling's acknowledge that was on its way changes nothing.
TEST(Messenger, ALateAcknowledgeOfTheDeadIsDropped) {
    Family family;
    family.start(2);
    family.start(5);
    ASSERT_TRUE(say(family.at(2), 5, "for the dead"));
    family.settle();
    family.kill(5);
    const auto start = static_cast<uint32_t>(4096 + 4096);
    inject(family, 2, {start | 2});
    EXPECT_EQ(family.at(2).check_area(), "");
    EXPECT_EQ(family.heard(2), "5!");
}

TEST(Pool, AChildRefusesWhatIsNoPool) {
    Family family;
    io::PoolAccess access = family.parent().access();
    access.map_size += 4096;
    EXPECT_THROW(io::SharedMemory::attach(access), error::ESystemError);
    const uint32_t zero = 0;
    ASSERT_EQ(::pwrite(access.map_fd, &zero, sizeof zero, 0), 4);
    EXPECT_DEATH(io::SharedMemory::attach(family.parent().access()),
                 "Wrong header of shared memory pool");
    EXPECT_NE(::ftruncate(access.map_fd, 4096), 0) << "sealed";

    for (const auto& [name, value] : family.parent().access().toEnvironment("t"))
        ::setenv(name.c_str(), value.c_str(), 1);
    EXPECT_EQ(io::PoolAccess::fromEnvironment("t").map_size, family.parent().access().map_size);
    ::setenv("t::mapsize", "many", 1);
    EXPECT_THROW(io::PoolAccess::fromEnvironment("t"), error::Exception);
    ::unsetenv("t::mapfile");
    try {
        io::PoolAccess::fromEnvironment("t");
        FAIL();
    } catch (const error::EFatal& missing) {
        EXPECT_EQ(missing.text(), "No mapfile passed in environment");
    }
}

}  // namespace
