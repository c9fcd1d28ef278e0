// The queue over real messengers: a parent and its children, all in this process. What a peer is to
// answer is sent before the question, since nobody else runs while the question waits.
#include "queues/childqueue.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "io/exception.h"
#include "io/parent_messenger.h"
#include "io/sibling_messenger.h"
#include "queues/dialogs.h"
#include "queues/log_outlet.h"
#include "queues/records/alarms.h"
#include "queues/records/control.h"
#include "queues/records/tsdb_requests.h"
#include "queues/wire_error.h"
#include "support/fake_clock.h"
#include "support/temp_dir.h"

namespace queues_test {
namespace {

using namespace queues;

constexpr std::uint64_t kPoolBytes = 1 << 20;
constexpr std::uint32_t kAreaBytes = 1 << 16;

struct Policy final : io::ParentPolicy {
    std::uint32_t sliceSize(std::uint32_t) override { return kAreaBytes; }
    bool requestPeer(std::uint32_t, std::uint32_t) override { return false; }
};

/// The parent, this server, the store of series and the alarm sibling.
class Queues : public testing::Test {
  protected:
    struct Child {
        Child(queue_t id, const io::PoolAccess& access, const platform::Clock& clock)
            : messenger(static_cast<std::uint32_t>(id), access), queue(messenger, clock) {}
        io::ChildMessenger messenger;
        childqueue queue;
    };

    Queues()
        : parent(dir.file("fifo"), kPoolBytes, policy),
          main(parent, clock),
          dbms(queue_t::dbms, parent.access(), clock) {
        settle();
        tsdb = std::make_unique<Child>(queue_t::tsdb, parent.access(), clock);
        settle();
        alrm = std::make_unique<Child>(queue_t::alrm, parent.access(), clock);
        settle();
    }

    /// Lets every messenger look after its signals until nothing moves any more.
    void settle() {
        constexpr int kRounds = 4;
        for (int i = 0; i < kRounds; ++i) {
            serve(parent);
            serve(dbms.messenger);
            if (tsdb) serve(tsdb->messenger);
            if (alrm) serve(alrm->messenger);
        }
    }
    static void serve(io::SiblingMessenger& messenger) {
        io::BareSelector selector;
        selector.add(messenger.someSibling());
        try {
            (void)selector.select(io::wait_t::non_blocking);
        } catch (const io::ENotReady&) {
        }
        selector.remove(messenger.someSibling());
    }

    /// After its end was told.
    void restart_tsdb() {
        tsdb.reset();
        settle();
        // The others take note of the end as well; until then nothing else reaches them.
        for (childqueue* queue : {&main, &dbms.queue, &alrm->queue})
            while (queue->front().isReady()) EXPECT_EQ(next(*queue), -1);
        settle();
        tsdb = std::make_unique<Child>(queue_t::tsdb, parent.access(), clock);
        settle();
    }

    /// The number of the next event, or -1 for an end of stream.
    static int next(childqueue& queue) {
        const std::unique_ptr<event> received = queue.read();
        return received ? received->number() : -1;
    }

    void answer(Child& from, std::uint32_t uid, std::uint32_t index) {
        from.queue.send(devent<RETURN_CREATE_TIMESERIES>(queue_t::dbms, uid, index));
    }

    support::TempDir dir;
    support::FakeClock clock;
    Policy policy;
    io::ParentMessenger parent;
    childqueue main;
    Child dbms;
    std::unique_ptr<Child> tsdb;
    std::unique_ptr<Child> alrm;
};

TEST_F(Queues, BringEventsInOrderAndNameTheirSender) {
    dbms.queue.send(devent<IMMEDIATE_STATE>(queue_t::alrm, 0, {tql::id_t(1, 2), 3}));
    tsdb->queue.send(devent<DELETE_TIMESERIES>(queue_t::alrm, 9, 77));
    dbms.queue.send(devent<CHECKIN>(queue_t::alrm, 0, {tql::id_t(1, 2), 4}));

    const std::unique_ptr<event> first = alrm->queue.read();
    EXPECT_EQ(first->peer, queue_t::dbms);
    EXPECT_EQ(data<IMMEDIATE_STATE>(*first).state, 3U);
    const std::unique_ptr<event> second = alrm->queue.read();
    EXPECT_EQ(second->peer, queue_t::tsdb);
    EXPECT_EQ(second->uid, 9U);
    EXPECT_EQ(next(alrm->queue), CHECKIN);
}

TEST_F(Queues, DialogKeepsThirdPartyEventsInOrder) {
    alrm->queue.send(devent<SET_STATUS>(queue_t::dbms));
    tsdb->queue.send(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, 0));
    main.send(devent<LIST_METRICS>(queue_t::dbms, 1));
    tsdb->queue.send(devent<RETURN_PUT_DATA_ALLOC>(queue_t::dbms, 0));
    answer(*tsdb, 2, 4711);
    alrm->queue.send(devent<ALARM_NOTIFY>(queue_t::dbms));

    io::BareSelector selector;
    selector.add(dbms.queue.front());
    EXPECT_EQ(create_time_series(&dbms.queue, {}), 4711U);
    EXPECT_EQ(next(tsdb->queue), CREATE_TIMESERIES);
    EXPECT_EQ(dbms.queue.waiting(), 4U);

    std::vector<int> numbers;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(&selector.select(io::wait_t::blocking), &dbms.queue.front());
        numbers.push_back(next(dbms.queue));
    }
    EXPECT_EQ(numbers, (std::vector<int>{SET_STATUS, RETURN_PUT_DATA_ALLOC, LIST_METRICS,
                                         RETURN_PUT_DATA_ALLOC, ALARM_NOTIFY}));
    EXPECT_THROW((void)selector.select(io::wait_t::non_blocking), io::ENotReady);
    selector.remove(dbms.queue.front());
}

TEST_F(Queues, NestedDialogsFindRepliesInReverseOrder) {
    const std::uint32_t outer = dbms.queue.new_uid();
    const std::uint32_t inner = dbms.queue.new_uid();
    answer(*tsdb, outer, 1);
    answer(*alrm, inner, 2);  // the right uid, but of another peer
    answer(*tsdb, inner, 3);
    const auto inner_reply = dbms.queue.await(inner, queue_t::tsdb);
    EXPECT_EQ(data<RETURN_CREATE_TIMESERIES>(*inner_reply), 3U);
    const auto outer_reply = dbms.queue.await(outer, queue_t::tsdb);
    EXPECT_EQ(data<RETURN_CREATE_TIMESERIES>(*outer_reply), 1U);
    EXPECT_EQ(data<RETURN_CREATE_TIMESERIES>(*dbms.queue.read()), 2U);
    EXPECT_EQ(dbms.queue.waiting(), 0U);
}

TEST_F(Queues, ExceptionsForAnAnswerAreThrown) {
    tsdb->queue.send(exevent(queue_t::dbms, 2, "disk full"));
    try {
        (void)create_time_series(&dbms.queue, {});
        ADD_FAILURE() << "no exception";
    } catch (const errors::remote_error& error) {
        EXPECT_EQ(error.text(), "disk full");
    }
}

TEST_F(Queues, EndOfAThirdPeerDoesNotEndADialog) {
    parent.siblingGone(static_cast<std::uint32_t>(queue_t::alrm));
    serve(dbms.messenger);
    answer(*tsdb, 2, 5);
    EXPECT_EQ(create_time_series(&dbms.queue, {}), 5U);
    EXPECT_TRUE(dbms.queue.lost_peers().test(queue_t::alrm));
    EXPECT_FALSE(dbms.queue.lost_peers().test(queue_t::tsdb));
}

TEST_F(Queues, EndOfThePeerEndsTheDialogAndAnyOtherWithIt) {
    alrm->queue.send(devent<SET_STATUS>(queue_t::dbms));
    parent.siblingGone(static_cast<std::uint32_t>(queue_t::tsdb));
    const std::uint32_t uid = dbms.queue.new_uid();
    EXPECT_EQ(dbms.queue.await(uid, queue_t::tsdb), nullptr);
    EXPECT_TRUE(dbms.queue.lost_peers().test(queue_t::tsdb));
    EXPECT_EQ(dbms.queue.await(uid, queue_t::tsdb), nullptr);
    EXPECT_EQ(next(dbms.queue), SET_STATUS);
    EXPECT_THROW(dbms.queue.send(devent<DELETE_TIMESERIES>(queue_t::tsdb, 1, 2)), io::EEndOfStream);
}

TEST_F(Queues, APeerThatCameBackIsNotLost) {
    parent.siblingGone(static_cast<std::uint32_t>(queue_t::tsdb));
    EXPECT_EQ(next(dbms.queue), -1);
    restart_tsdb();
    answer(*tsdb, 0, 6);
    EXPECT_EQ(next(dbms.queue), RETURN_CREATE_TIMESERIES);
    EXPECT_FALSE(dbms.queue.lost_peers().test(queue_t::tsdb));
    dbms.queue.send(devent<DELETE_TIMESERIES>(queue_t::tsdb, 1, 2));
    EXPECT_EQ(next(tsdb->queue), DELETE_TIMESERIES);
}

// What was asked before the end gets no answer any more, and what is asked afterwards does, though
// the peer has said nothing of its own accord.
TEST_F(Queues, APeerThatCameBackAnswersWhatItIsAskedThen) {
    const std::uint32_t before = dbms.queue.new_uid();
    dbms.queue.send(devent<CREATE_TIMESERIES>(queue_t::tsdb, before));
    parent.siblingGone(static_cast<std::uint32_t>(queue_t::tsdb));
    EXPECT_EQ(next(dbms.queue), -1);
    const std::uint32_t between = dbms.queue.new_uid();
    EXPECT_EQ(dbms.queue.await(between, queue_t::tsdb), nullptr);
    restart_tsdb();
    const std::uint32_t after = dbms.queue.new_uid();
    dbms.queue.send(devent<CREATE_TIMESERIES>(queue_t::tsdb, after));
    alrm->queue.send(devent<SET_STATUS>(queue_t::dbms));
    answer(*tsdb, after, 8);
    EXPECT_EQ(dbms.queue.await(before, queue_t::tsdb), nullptr);
    const auto reply = dbms.queue.await(after, queue_t::tsdb);
    ASSERT_TRUE(reply);
    EXPECT_EQ(data<RETURN_CREATE_TIMESERIES>(*reply), 8U);
    EXPECT_FALSE(dbms.queue.lost_peers().test(queue_t::tsdb));
    EXPECT_EQ(dbms.queue.await(before, queue_t::tsdb), nullptr);
    EXPECT_EQ(next(dbms.queue), SET_STATUS);
}

/// Publishes `words` for the main process as one message.
void say_words(io::SiblingMessenger& from, const std::vector<std::uint32_t>& words) {
    const auto to = from.sibling(static_cast<std::uint32_t>(queue_t::main));
    std::uint8_t* room = nullptr;
    ASSERT_GE(to->out().writeBegin(room), words.size() * sizeof words[0]);
    std::memcpy(room, words.data(), words.size() * sizeof words[0]);
    to->out().writeCommit(words.size() * sizeof words[0]);
}

TEST_F(Queues, AReaderThatNeverWaitsGoesOnInTheMiddleOfARecord) {
    main.never_wait_for_rest();
    EXPECT_EQ(main.waits_for_rest_since_us(queue_t::tsdb), std::nullopt);
    const std::uint32_t header[] = {RETURN_PSEUDO_RANDOM, 0, 77, 0};
    for (const std::uint32_t word : header) {
        clock.advance_us(5);
        say_words(tsdb->messenger, {word});
        alrm->queue.send(devent<SET_STATUS>(queue_t::main));
        settle();
        EXPECT_EQ(main.read(), nullptr);
        EXPECT_EQ(main.waits_for_rest_since_us(queue_t::tsdb), clock.monotonic_us());
        EXPECT_EQ(next(main), SET_STATUS);
    }
    EXPECT_EQ(main.waits_for_rest_since_us(queue_t::alrm), std::nullopt);
    say_words(tsdb->messenger, {4, 0, 0x61626364});
    settle();
    const auto received = main.read();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->peer, queue_t::tsdb);
    EXPECT_EQ(received->uid, 77U);
    EXPECT_EQ(data<RETURN_PSEUDO_RANDOM>(*received), "dcba");
    EXPECT_EQ(main.waits_for_rest_since_us(queue_t::tsdb), std::nullopt);

    // What was begun ends with its sender.
    say_words(tsdb->messenger, {RETURN_PSEUDO_RANDOM, 0});
    settle();
    EXPECT_EQ(main.read(), nullptr);
    parent.siblingGone(static_cast<std::uint32_t>(queue_t::tsdb));
    EXPECT_FALSE(main.lost_peers().test(queue_t::tsdb));
    EXPECT_EQ(main.read(), nullptr);
    EXPECT_TRUE(main.lost_peers().test(queue_t::tsdb));
    EXPECT_EQ(main.waits_for_rest_since_us(queue_t::tsdb), std::nullopt);
}

TEST_F(Queues, AReaderThatNeverWaitsSurvivesWhatIsNoRecord) {
    const std::vector<std::uint32_t> nonsense[] = {
        {206},                                 // no event
        {0},                                   //
        {MESSAGE_EXCEPTION, 0, 1, 0},          // an exception without its mark
        {LIST_METRICS, 0, 1, 0, 1, 2},         // more than the record has
        {SET_LOG_LEVEL, 0, 1, 0, 0xFFFFFFFF},  // a list of 2^32 - 1
    };
    main.never_wait_for_rest();
    for (const auto& words : nonsense) {
        SCOPED_TRACE(words[0]);
        say_words(tsdb->messenger, words);
        say_words(tsdb->messenger, {LIST_METRICS, 0, 1, 0, 0});
        alrm->queue.send(devent<SET_STATUS>(queue_t::main));
        settle();
        EXPECT_THROW((void)main.read(), EMalformedRecord);
        EXPECT_EQ(main.read(), nullptr) << "its place in the stream is lost";
        EXPECT_EQ(next(main), SET_STATUS);
        parent.siblingGone(static_cast<std::uint32_t>(queue_t::tsdb));
        EXPECT_EQ(main.read(), nullptr);
        restart_tsdb();
    }
}

TEST_F(Queues, WaitsCanBeLimited) {
    dbms.queue.limit_await(childqueue::kUsualAwaitLimit_s);
    struct Late final : platform::Clock {
        platform::WallTime wall() const override { return {}; }
        std::uint64_t monotonic_us() const override { return now += 301'000'000; }
        mutable std::uint64_t now = 0;
    } late;
    childqueue impatient(dbms.messenger, late);
    impatient.limit_await(childqueue::kUsualAwaitLimit_s);
    alrm->queue.send(devent<SET_STATUS>(queue_t::dbms));
    try {
        (void)impatient.await(99, queue_t::tsdb);
        ADD_FAILURE() << "no timeout";
    } catch (const errors::queue_await_timeout& timeout) {
        EXPECT_EQ(timeout.text(), "SET_STATUS");
    }
    EXPECT_EQ(next(impatient), SET_STATUS);
}

using QueuesDeathTest = Queues;

TEST_F(QueuesDeathTest, AnotherClassThanExpectedEndsTheProcess) {
    tsdb->queue.send(devent<RETURN_DELETE_TIMESERIES>(queue_t::dbms, 2, 0));
    EXPECT_DEATH((void)create_time_series(&dbms.queue, {}),
                 "Dialog to tsdb, sent CREATE_TIMESERIES expected RETURN_CREATE_TIMESERIES got "
                 "RETURN_DELETE_TIMESERIES uid=2");
}

TEST(DialogDeathTest, NeedsAQueue) {
    EXPECT_DEATH((void)server_configuration(nullptr), "Assertion failed: No cqueue for qdialog");
}

/// Text of a temporary file that the outlet falls back to.
class Fallback {
  public:
    ~Fallback() { (void)std::fclose(file_); }
    [[nodiscard]] std::FILE* file() const { return file_; }
    [[nodiscard]] std::string text() const {
        std::rewind(file_);
        std::string text(4096, '\0');
        text.resize(std::fread(text.data(), 1, text.size(), file_));
        return text;
    }

  private:
    std::FILE* file_ = std::tmpfile();
};

/// An event that has something to log while it is being written.
class Talkative final : public event {
  public:
    explicit Talkative(log_outlet& outlet)
        : event(LIST_METRICS, queue_t::main, 1, false, nullptr), outlet_(outlet) {}
    [[nodiscard]] std::unique_ptr<event> clone() const override { return nullptr; }
    void write_record(protocol::ioprim& out) const override {
        outlet_.write(logging::level_t::info, "during");
        out.put32(0);
    }
    void print(std::ostream&) const override {}

  private:
    log_outlet& outlet_;
};

TEST_F(Queues, LogLinesReachTheMainProcessAndWaitForASendToEnd) {
    const Fallback fallback;
    log_outlet outlet(dbms.queue, fallback.file());
    outlet.write(logging::level_t::info, "before");
    dbms.queue.send(Talkative(outlet));

    const auto line = [this] {
        const std::unique_ptr<event> received = main.read();
        EXPECT_EQ(received->number(), SYSTEM_LOG_REQUEST);
        EXPECT_EQ(received->peer, queue_t::dbms);
        EXPECT_TRUE(wants_reply(received->uid));
        return data<SYSTEM_LOG_REQUEST>(*received).msg;
    };
    EXPECT_EQ(line(), "before");
    EXPECT_EQ(next(main), LIST_METRICS);
    EXPECT_EQ(line(), "during");
    EXPECT_EQ(fallback.text(), "");
}

TEST_F(Queues, LogLinesGoToTheErrorStreamOnceTheRoadIsClosed) {
    const Fallback fallback;
    {
        log_outlet outlet(dbms.queue, fallback.file());
        dbms.messenger.initiateShutdown();
        outlet.write(logging::level_t::info, "stopping");
        settle();
        EXPECT_EQ(next(main), SYSTEM_LOG_REQUEST);
        settle();
        outlet.write(logging::level_t::info, "stopped");
    }
    EXPECT_EQ(fallback.text(), "Log: stopped\n");
}

}  // namespace
}  // namespace queues_test
