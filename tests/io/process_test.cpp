// Real processes: back pressure, death, coming back, the parent's end, and starting programs.
#include "platform/process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "family.h"
#include "io/timer.h"
#include "support/rng.h"

namespace {

using io_test::hear;
using io_test::Member;
using io_test::say;

/// Runs `work` in a forked process that exits with its result; ended at the latest with the object.
class Forked {
  public:
    template <class Work>
    explicit Forked(Work work) {
        child_.pid = ::fork();
        if (child_.pid == 0) {
            int code = 99;
            try {
                code = work();
            } catch (const error::Exception& failure) {
                std::fprintf(stderr, "child: %s\n", failure.what());
            }
            ::_exit(testing::Test::HasFailure() ? 98 : code);
        }
        child_.pidfd = platform::open_pidfd(child_.pid);
    }
    ~Forked() {
        if (child_.pid < 0) return;
        kill();
        wait();
    }
    [[nodiscard]] int pidfd() const { return child_.pidfd.get(); }
    void kill() const { ::kill(child_.pid, SIGKILL); }
    platform::ExitStatus wait() {
        const platform::ExitStatus status = platform::wait_for_end(child_);
        child_.pid = -1;
        return status;
    }

  private:
    platform::ChildProcess child_;
};

/// The parent's loop: serves until all given processes ended or a minute passed, and reports each
/// end to the messenger.
class Watcher {
  public:
    explicit Watcher(io::ParentMessenger& parent) : parent_(parent), timer_(clock_) {
        selector_.add(parent.someSibling(), 0);
        timer_.set_expiry(Time::now(clock_) + Time(60));
        selector_.add(timer_, 1);
        selector_.add(parent.newSiblings(), 2);
    }
    ~Watcher() {
        selector_.remove(parent_.someSibling());
        selector_.remove(timer_);
        selector_.remove(parent_.newSiblings());
    }

    /// Serves until `done`; false if it took too long. Messages heard go to `heard`.
    template <class Done>
    bool serveUntil(Done done) {
        while (!done()) {
            io::Selectable& ready = selector_.select(io::wait_t::blocking);
            if (&ready == &timer_) return false;
            note(ready);
        }
        return true;
    }
    bool serveUntilEnd(Forked& process, uint32_t sibling_id) {
        io::FdSelectable end(process.pidfd(), "process");
        selector_.add(end, 3);
        bool ended = false;
        while (!ended) {
            io::Selectable& ready = selector_.select(io::wait_t::blocking);
            if (&ready == &timer_) break;
            ended = &ready == static_cast<io::Selectable*>(&end);
            if (!ended) note(ready);
        }
        selector_.remove(end);
        if (ended) parent_.siblingGone(sibling_id);
        return ended;
    }
    std::vector<std::string> heard;

  private:
    void note(io::Selectable& ready) {
        if (&ready == static_cast<io::Selectable*>(&parent_.newSiblings()))
            parent_.newSiblings().take();
        else
            heard.push_back(hear(parent_));
    }

    platform::SystemClock clock_;
    io::ParentMessenger& parent_;
    io::Selector<int> selector_;
    io::Timer timer_;
};

struct Scene {
    explicit Scene(uint32_t slice_bytes) {
        policy.slice_bytes = slice_bytes;
        policy.granted = {2, 3, 4};
    }
    support::TempDir dir;
    io_test::Policy policy;
    io::ParentMessenger parent{dir.file("fifo"), 1 << 22, policy};
};

std::string numbered(uint64_t number, size_t length) {
    std::string text = std::to_string(number) + ":";
    text.resize(std::max(length, text.size()), static_cast<char>('a' + number % 26));
    return text;
}

/// Writes all of `text` as one or more messages, waiting for room as a queue does.
void write_blocking(io::SiblingMessenger& from, uint32_t to, const std::string& text) {
    auto peer = from.sibling(to);
    for (size_t written = 0; written < text.size();) {
        io::waitReady(peer->out());
        uint8_t* room = nullptr;
        const size_t count = std::min(peer->out().writeBegin(room), text.size() - written);
        std::memcpy(room, text.data() + written, count);
        peer->out().writeCommit(count);
        written += count;
    }
}

std::string read_blocking(io::SiblingMessenger& to, uint32_t from, size_t length) {
    auto peer = to.sibling(from);
    std::string text;
    while (text.size() < length) {
        io::waitReady(peer->in());
        const uint8_t* bytes = nullptr;
        const size_t count = std::min(peer->in().readBegin(bytes), length - text.size());
        text.append(reinterpret_cast<const char*>(bytes), count);
        peer->in().readCommit(count);
    }
    return text;
}

void stop_in_order(io::ChildMessenger& me, uint32_t answer_to_wait_for = 0) {
    io::BareSelector selector;
    selector.add(me.someSibling());
    me.initiateShutdown();
    std::string heard;
    do {
        selector.select(io::wait_t::blocking);
        heard = hear(me);
    } while (heard != std::to_string(answer_to_wait_for) + "!");
    selector.remove(me.someSibling());
    me.completeShutdown();
}

// Each writes far more than both areas hold before it reads a byte, in pieces that span many
// blocks.
TEST(Processes, TwoThatFloodEachOtherDoNotStop) {
    constexpr uint64_t kCount = 3000;
    Scene scene(4096);
    const auto flood = [&](uint32_t self, uint32_t other) {
        io::ChildMessenger me(self, scene.parent.access());
        support::Rng mine(self), theirs(other);
        const auto length = [](support::Rng& rng) {
            return rng.chance(2) ? 20000 : 8 + rng.below(300);
        };
        for (uint64_t i = 0; i < kCount; ++i) write_blocking(me, other, numbered(i, length(mine)));
        for (uint64_t i = 0; i < kCount; ++i) {
            const std::string expected = numbered(i, length(theirs));
            EXPECT_EQ(read_blocking(me, other, expected.size()), expected);
        }
        EXPECT_EQ(me.check_area(), "");
        stop_in_order(me);
        return 0;
    };
    Forked three([&] { return flood(3, 4); });
    Forked four([&] { return flood(4, 3); });
    Watcher watcher(scene.parent);
    ASSERT_TRUE(watcher.serveUntilEnd(three, 3));
    ASSERT_TRUE(watcher.serveUntilEnd(four, 4));
    EXPECT_EQ(three.wait().code, 0);
    EXPECT_EQ(four.wait().code, 0);
    EXPECT_EQ(scene.parent.bytesInAreas(), 4096u);
}

TEST(Processes, AKilledSiblingReturnsWhatWasLentAndComesBack) {
    Scene scene(8192);
    const auto echo = [&] {
        io::ChildMessenger me(3, scene.parent.access());
        io::BareSelector selector;
        selector.add(me.someSibling());
        for (;;) {
            selector.select(io::wait_t::blocking);
            const std::string text = hear(me);
            if (text == "0:hang") ::pause();
            write_blocking(me, 0, "echo " + text);
        }
        return 0;
    };
    const uint64_t own_bytes = scene.parent.bytesInAreas();
    Watcher watcher(scene.parent);
    for (int life = 0; life < 5; ++life) {
        Forked process(echo);
        ASSERT_TRUE(watcher.serveUntil([&] { return scene.parent.isUp(3); }));
        ASSERT_TRUE(say(scene.parent, 3, "hello"));
        ASSERT_TRUE(watcher.serveUntil([&] { return !watcher.heard.empty(); }));
        EXPECT_EQ(watcher.heard, std::vector<std::string>{"3:echo 0:hello"});
        ASSERT_TRUE(say(scene.parent, 3, "hang"));
        // Fills the parent's area with messages that the dead will never read.
        while (say(scene.parent, 3, std::string(300, 'x'))) continue;
        process.kill();
        ASSERT_TRUE(watcher.serveUntilEnd(process, 3));
        EXPECT_TRUE(process.wait().by_signal);
        EXPECT_EQ(scene.parent.unacknowledgedCount(), 0u);
        EXPECT_EQ(scene.parent.check_area(), "");
        ASSERT_TRUE(watcher.serveUntil([&] { return watcher.heard.back() == "3!"; }));
        watcher.heard.clear();
        EXPECT_EQ(scene.parent.bytesInAreas(), own_bytes);
    }
}

// It must not live to meet the next family of its parent's name.
TEST(Processes, AChildThatIsNotUpEndsWithItsParent) {
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const Forked parent_process([&] {
        const platform::ChildProcess child = platform::spawn(
            {.program = "/bin/sleep", .arguments = {"600"}, .ends_with_parent = true});
        EXPECT_EQ(::write(report[1], &child.pid, sizeof child.pid),
                  static_cast<ssize_t>(sizeof child.pid));
        ::pause();
        return 0;
    });
    pid_t pid = -1;
    ASSERT_EQ(::read(report[0], &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
    const platform::Fd child_end = platform::open_pidfd(pid);
    parent_process.kill();
    pollfd end{.fd = child_end.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&end, 1, 10'000), 1);
    ::kill(pid, SIGKILL);
    ::close(report[0]);
    ::close(report[1]);
}

TEST(Processes, AChildLearnsOfItsParentsEnd) {
    int report[2], looks_after_itself[2];
    ASSERT_EQ(::pipe(report), 0);
    ASSERT_EQ(::pipe(looks_after_itself), 0);
    Forked parent_process([&] {
        Scene scene(4096);
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // as one that was started with ends_with_parent
            std::string result;
            io::ChildMessenger me(2, scene.parent.access());
            EXPECT_EQ(::write(looks_after_itself[1], "!", 1), 1);
            io::BareSelector selector;
            selector.add(me.someSibling());
            do {
                selector.select(io::wait_t::blocking);
                result = hear(me);
            } while (result == "0:go on");
            EXPECT_THROW(say(me, 0, "x"), io::EEndOfStream);
            me.completeShutdown();
            [[maybe_unused]] const ssize_t count = ::write(report[1], result.data(), result.size());
            ::_exit(0);
        }
        Watcher watcher(scene.parent);
        watcher.serveUntil([&] { return scene.parent.isUp(2); });
        // Until then the child would end with its parent.
        char sign;
        EXPECT_EQ(::read(looks_after_itself[0], &sign, 1), 1);
        return 0;
    });
    EXPECT_EQ(parent_process.wait().code, 0);
    for (const int end : {report[1], looks_after_itself[0], looks_after_itself[1]}) ::close(end);
    char text[16] = {};
    const ssize_t count = ::read(report[0], text, sizeof text);
    EXPECT_GT(count, 0);
    EXPECT_STREQ(text, "0!");
    ::close(report[0]);
}

TEST(Processes, SpawnPassesEnvironmentAndDescriptors) {
    const int memfd = ::memfd_create("test", MFD_CLOEXEC);
    platform::SpawnRequest request;
    request.program = "/bin/sh";
    request.arguments = {
        "-c", "test \"$TARMIK_A\" = b && echo x >&" + std::to_string(memfd) + " && exit 7"};
    request.environment = {{"TARMIK_A", "b"}};
    request.inherited_fds = {memfd};
    const platform::ChildProcess child = platform::spawn(request);
    io::FdSelectable end(child.pidfd.get(), "end");
    io::waitReady(end);
    const platform::ExitStatus status = platform::wait_for_end(child);
    EXPECT_FALSE(status.by_signal);
    EXPECT_EQ(status.code, 7);
    char written[2] = {};
    EXPECT_EQ(::pread(memfd, written, 2, 0), 2);
    ::close(memfd);

    request.program = "/nowhere/at/all";
    EXPECT_THROW(static_cast<void>(platform::spawn(request)), error::ESystemError);
}

}  // namespace
