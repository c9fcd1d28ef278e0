// The order in which selectors hand things out, timers, descriptors and stacks.
#include "io/selector.h"

#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "io/exception.h"
#include "io/pipe_stream.h"
#include "io/stack.h"
#include "io/stream.h"
#include "io/system_handle.h"
#include "io/timer.h"
#include "platform/span_clock.h"
#include "support/fake_clock.h"

namespace {

using io::wait_t;

class Flag : public io::Selectable {
  public:
    explicit Flag(std::string name, bool is_ready = false)
        : ready(is_ready), name_(std::move(name)) {}
    void name(std::string& out) const override { out += name_; }
    [[nodiscard]] bool isReady() const override { return ready; }
    bool ready;

  private:
    std::string name_;
};

struct Pipe {
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) std::abort();
        out = platform::Fd(fds[0]);
        in = platform::Fd(fds[1]);
    }
    void put(const std::string& bytes) {
        ASSERT_EQ(::write(in.get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }
    platform::Fd in, out;
};

TEST(Selector, ReadyMembersTakeTurnsInOrderOfAdding) {
    io::Selector<int> selector;
    Flag a("a", true), b("b"), c("c", true);
    selector.add(a, 1);
    selector.add(b, 2);
    selector.add(c, 3);
    EXPECT_EQ(&selector.select(wait_t::blocking), &a);
    b.ready = true;
    EXPECT_EQ(&selector.select(wait_t::blocking), &c);
    EXPECT_EQ(&selector.select(wait_t::blocking), &a);
    EXPECT_EQ(&selector.select(wait_t::blocking), &b);
    // Found before, but not ready any more when its turn comes.
    c.ready = false;
    EXPECT_EQ(&selector.select(wait_t::non_blocking), &a);
    a.ready = b.ready = false;
    EXPECT_THROW(selector.select(wait_t::non_blocking), io::ENotReady);
    EXPECT_EQ(selector.value(b), 2);
    for (Flag* flag : {&a, &b, &c}) selector.remove(*flag);
}

TEST(Selector, TimersFireInTurnAndNeverBeforeTheirTime) {
    support::FakeClock clock;
    const Time now = Time::now(clock);
    io::BareSelector selector;
    io::Timer first(clock), second(clock), never(clock);
    for (io::Timer* timer : {&first, &second, &never}) selector.add(*timer);
    EXPECT_THROW(selector.select(wait_t::non_blocking), io::ENotReady);
    first.set_expiry(now + Time(5));
    second.set_expiry(now + Time(5));
    EXPECT_THROW(selector.select(wait_t::non_blocking), io::ENotReady);
    first.set_expiry(now);
    second.set_expiry(now);
    const io::Selectable& one = selector.select(wait_t::blocking);
    const io::Selectable& other = selector.select(wait_t::blocking);
    EXPECT_EQ(&one, &first);
    EXPECT_EQ(&other, &second);
    for (io::Timer* timer : {&first, &second, &never}) selector.remove(*timer);
}

TEST(Selector, ATimerOfASpanCaresForNoTimeOfDay) {
    support::FakeClock clock;
    const platform::SpanClock spans(clock);
    io::Timer timer(spans);
    timer.set_expiry(Time::now(spans) + Time(5));
    clock.set_wall(0);
    clock.advance_s(4);
    EXPECT_FALSE(timer.isReady());
    clock.advance_s(1);
    EXPECT_TRUE(timer.isReady());
}

TEST(Selector, ABlockingSelectSleepsUntilTheLowestDeadline) {
    const platform::SystemClock clock;
    io::BareSelector selector;
    io::Timer near(clock), far(clock), never(clock);
    Pipe pipe;
    io::FdSelectable fd(pipe.out.get(), "quiet");
    near.set_expiry(Time::now(clock) + Time(0, 30000));
    far.set_expiry(Time::now(clock) + Time(3600));
    for (io::Selectable* member : std::initializer_list<io::Selectable*>{&never, &far, &near, &fd})
        selector.add(*member);
    EXPECT_EQ(&selector.select(wait_t::blocking), &near);
    EXPECT_TRUE(near.isReady());
    for (io::Selectable* member : std::initializer_list<io::Selectable*>{&never, &far, &near, &fd})
        selector.remove(*member);
}

TEST(Selector, DescriptorsComeAfterReadyMembersButAreNotStarved) {
    io::BareSelector selector;
    Flag busy("busy", true);
    Pipe pipe;
    io::FdSelectable fd(pipe.out.get(), "pipe");
    selector.add(busy);
    selector.add(fd);
    pipe.put("x");
    EXPECT_EQ(&selector.select(wait_t::blocking), &busy);
    unsigned selects = 1;
    while (&selector.select(wait_t::blocking) != &fd)
        ASSERT_LE(++selects, io::SelectorBase::kSelectsInARow);
    busy.ready = false;
    EXPECT_EQ(&selector.select(wait_t::blocking), &fd) << "level triggered";
    char byte = 0;
    ASSERT_EQ(::read(pipe.out.get(), &byte, 1), 1);
    EXPECT_THROW(selector.select(wait_t::non_blocking), io::ENotReady);
    selector.remove(busy);
    selector.remove(fd);
}

TEST(Selector, MisuseIsFatal) {
    Flag a("alpha", true);
    EXPECT_DEATH(
        {
            io::BareSelector selector;
            selector.add(a);
            selector.add(a);
        },
        "Assertion failed: alpha added twice to Selector");
    EXPECT_DEATH(
        {
            io::Selector<int> selector;
            selector.add(a, 1);
            selector.add(a, 2);
        },
        "Assertion failed: Added selectable alpha twice");
    EXPECT_DEATH(
        {
            io::BareSelector selector;
            selector.remove(a);
        },
        "Assertion failed: Unknown alpha removed twice from Selector");
    EXPECT_DEATH(
        {
            io::BareSelector selector;
            selector.add(a);
        },
        "Assertion failed: avail not empty in ~SelectorBase");
}

/// A stack that turns bytes of a pipe into letters to be taken one by one.
class Letters : public io::StackedSelectableBack {
  public:
    class Front : public io::StackedSelectableFront, public io::IStream {
      public:
        Front(Letters& letters, char first, char last)
            : StackedSelectableFront(letters), letters_(letters), first_(first), last_(last) {}
        void name(std::string& out) const override { out += "Front"; }
        [[nodiscard]] bool isReady() const override {
            return !letters_.queue.empty() && letters_.queue.front() >= first_ &&
                   letters_.queue.front() <= last_;
        }
        size_t readBegin(const uint8_t*& out) override {
            out = reinterpret_cast<const uint8_t*>(&letters_.queue.front());
            return 1;
        }
        void readCommit(size_t) override { letters_.queue.pop_front(); }
        void closeRead() override {}

      private:
        Letters& letters_;
        char first_, last_;
    };

    explicit Letters(platform::Fd fd)
        : pipe(std::move(fd), "letters"), small(*this, 'a', 'z'), large(*this, 'A', 'Z') {
        setWatch(&pipe, true);
    }
    void underlyingIsReady(io::Selectable& underlying) override {
        EXPECT_EQ(&underlying, static_cast<io::Selectable*>(&pipe));
        const uint8_t* bytes = nullptr;
        const size_t count = pipe.readBegin(bytes);
        queue.insert(queue.end(), bytes, bytes + count);
        pipe.readCommit(count);
    }

    io::PipeIStream pipe;
    std::deque<char> queue;
    Front small, large;
};

TEST(Stack, LowLevelWorkRunsInTheWaitForAFront) {
    Pipe pipe;
    Letters letters(std::move(pipe.out));
    io::BareSelector selector;
    selector.add(letters.small);
    selector.add(letters.large);
    pipe.put("aB");
    EXPECT_EQ(&selector.select(wait_t::blocking), static_cast<io::Selectable*>(&letters.small));
    letters.small.readCommit(1);
    EXPECT_EQ(&selector.select(wait_t::blocking), static_cast<io::Selectable*>(&letters.large));
    // Waiting for one front inside the work of another: what that one wanted waits for the main
    // selector.
    letters.large.readCommit(1);
    pipe.put("X");
    io::waitReady(letters.large);
    letters.large.readCommit(1);
    pipe.put("q");
    io::waitReady(letters.small);
    EXPECT_EQ(&selector.select(wait_t::non_blocking), static_cast<io::Selectable*>(&letters.small));
    // Without a watch nothing is read, though the pipe has bytes.
    letters.small.readCommit(1);
    letters.setWatch(&letters.pipe, false);
    pipe.put("r");
    EXPECT_THROW(selector.select(wait_t::non_blocking), io::ENotReady);
    letters.setWatch(&letters.pipe, true);
    EXPECT_EQ(&selector.select(wait_t::non_blocking), static_cast<io::Selectable*>(&letters.small));
    selector.remove(letters.small);
    selector.remove(letters.large);
    EXPECT_FALSE(selector.isMember(letters.pipe));
    EXPECT_DEATH(letters.setWatch(nullptr, true),
                 "StackedSelectableBack underlying pointer is null");
}

/// Low-level work that fails.
class Broken : public io::StackedSelectableBack {
  public:
    class Front : public io::StackedSelectableFront {
      public:
        using StackedSelectableFront::StackedSelectableFront;
        void name(std::string& out) const override { out += "broken"; }
        [[nodiscard]] bool isReady() const override { return false; }
    };
    explicit Broken(int fd) : low_(fd, "low") { watch(true); }
    void underlyingIsReady(io::Selectable&) override { throw error::EFatal("out of order"); }
    void watch(bool on) { setWatch(&low_, on); }

  private:
    io::FdSelectable low_;
};

TEST(Stack, AWaitThatFailsLeavesNoTraceOfItsSelector) {
    Pipe pipe;
    Broken broken(pipe.out.get());
    Broken::Front front(broken);
    pipe.put("x");
    EXPECT_THROW(io::waitReady(front), error::EFatal);
    broken.watch(false);  // an abort if the selector of the wait were still known
    broken.watch(true);
    EXPECT_THROW(io::waitReady(front), error::EFatal);
}

TEST(PipeStream, EndsWhenTheWriterGoes) {
    Pipe pipe;
    io::PipeIStream in(std::move(pipe.out), "end");
    pipe.put("ab");
    pipe.in.reset();
    io::waitReady(in);
    const uint8_t* bytes = nullptr;
    ASSERT_EQ(in.readBegin(bytes), 2u);
    in.readCommit(2);
    EXPECT_THROW(in.readBegin(bytes), io::ENotReady);
    io::waitReady(in);
    try {
        in.readBegin(bytes);
        FAIL();
    } catch (const io::EEndOfStream& end) {
        EXPECT_EQ(end.text(), "EOS from PipeIStream(end)");
    }
    EXPECT_DEATH(in.readCommit(1), "Overcommit in PipeIStream end is 1 bytes past end of buffer");
}

TEST(PipeStream, KeepsWhatAFullPipeDoesNotTake) {
    platform::ignore_broken_pipe_signal();
    Pipe pipe;
    io::PipeOStream out(std::move(pipe.in), "full");
    uint8_t* room = nullptr;
    size_t written = 0;
    while (!out.hasPendingData()) {
        const size_t size = out.writeBegin(room);
        std::memset(room, 'x', size);
        out.writeCommit(size);
        written += size;
    }
    EXPECT_FALSE(out.isReady());
    std::vector<char> sink(written);
    size_t taken = 0;
    taken += static_cast<size_t>(::read(pipe.out.get(), sink.data(), sink.size()));
    EXPECT_LT(taken, written);
    io::waitReady(out);
    taken += static_cast<size_t>(::read(pipe.out.get(), sink.data(), sink.size()));
    EXPECT_EQ(taken, written);
    // A reader that is gone: the write itself is silent, the next one says so.
    pipe.out.reset();
    out.writeBegin(room);
    out.writeCommit(8);
    EXPECT_TRUE(out.hasFailed());
    EXPECT_THROW(out.writeBegin(room), io::EEndOfStream);
}

}  // namespace
