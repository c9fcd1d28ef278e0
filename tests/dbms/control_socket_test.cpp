// The control socket with askers of every kind: the server goes on, whatever they do.
#include "dbms/control_socket.h"

#include <array>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "io/exception.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/snapshot_receiver.h"
#include "platform/local_socket.h"
#include "support/fake_clock.h"
#include "support/temp_dir.h"

namespace dbms {
namespace {

/// Enough blocks that a copy doesn't fit into the buffers of a socket.
constexpr uint32_t kLastBlock = 2000;

std::unique_ptr<mdb::Database> make_database(const std::string& path, platform::FileSystem& files,
                                             const platform::Clock& clock) {
    mdb::FormatOptions options;
    options.database_path = path;
    options.journal_path = path + "j";
    options.block_size = 1024;
    options.journal_size_bytes = 64 * 1024;
    options.capacity_bytes = 4 << 20;
    mdb::format_database(files, options);
    auto database =
        std::make_unique<mdb::Database>(mdb::Settings{path, options.journal_path, 8}, files, clock);
    database->store().ensure_block(kLastBlock);
    return database;
}

/// Somebody at the other end, who takes what there is without waiting.
class Asker {
  public:
    explicit Asker(const std::string& path) : connection_(platform::connect_local(path)) {
        EXPECT_TRUE(connection_) << path;
    }
    void say(const std::string& text) {
        EXPECT_EQ(::send(connection_.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    /// Takes what has come; false at the end of the stream.
    bool take(std::vector<std::byte>& bytes) {
        std::array<std::byte, 64 * 1024> part;
        const ssize_t got = ::recv(connection_.get(), part.data(), part.size(), MSG_DONTWAIT);
        if (got > 0) bytes.insert(bytes.end(), part.begin(), part.begin() + got);
        return got > 0 || (got < 0 && errno == EAGAIN);
    }
    void leave() { connection_.reset(); }

  private:
    platform::Fd connection_;
};

class ControlSocketTest : public testing::Test {
  protected:
    ~ControlSocketTest() override {
        if (control) control->leave();
    }

    void serve(const ControlSocket::Limits& limits = {}) {
        control.emplace(*database, clock, limits);
        control->join(selector);
    }
    /// What the main loop does while nothing else comes, until there is nothing to do.
    void settle() {
        for (;;) {
            try {
                EXPECT_TRUE(control->handle(selector.select(io::wait_t::non_blocking)));
            } catch (const io::ENotReady&) {
                if (!control->has_work()) return;
                control->doWork();
            }
        }
    }
    /// All that the asker is given, with the server at work, until the end of the connection.
    std::vector<std::byte> answer_to(Asker& asker) {
        std::vector<std::byte> bytes;
        settle();
        while (asker.take(bytes)) settle();
        return bytes;
    }
    /// The text of an answer that is a failure; empty for a whole copy.
    std::string outcome(Asker& asker) {
        const std::vector<std::byte> bytes = answer_to(asker);
        try {
            mdb::SnapshotReceiver receiver(files, dir.file("copy"), dir.file("copyj"));
            receiver.take(bytes);
            return receiver.received() ? "" : "cut short";
        } catch (const mdb::error_generic& failure) {
            return failure.text();
        }
    }
    void commit(uint32_t block, char fill) {
        const std::string text(1024, fill);
        mdb::Transaction transaction(database->journal());
        database->journal().journal_update(text.data(), text.size(), uint64_t{block} * 1024);
        transaction.commit(false);
    }

    logging::OutletScope quiet{[](logging::level_t, std::string_view) {}};
    support::TempDir dir;
    support::FakeClock clock;
    platform::SystemFiles files;
    std::unique_ptr<mdb::Database> database = make_database(dir.file("db"), files, clock);
    io::Selector<int> selector;
    std::optional<ControlSocket> control;
    const std::string path = ControlSocket::path_for(dir.file("db"));
};

TEST_F(ControlSocketTest, GivesACopyToWhoAsks) {
    serve();
    Asker first(path);
    first.say("back");
    settle();
    first.say("up 1\n");
    EXPECT_EQ(outcome(first), "");
    Asker second(path);
    second.say("backup 1\n");
    EXPECT_EQ(outcome(second), "") << "the next one";
    EXPECT_FALSE(database->store().observed());
}

TEST_F(ControlSocketTest, BelongsToItsOwnerAloneAndReplacesALeftOne) {
    const mode_t old_mask = ::umask(0);
    serve();
    ::umask(0777);
    control->leave();
    control.reset();
    EXPECT_FALSE(std::filesystem::exists(path)) << "an orderly end takes the socket along";
    // A killed server leaves a socket at which nobody listens.
    { const platform::Fd left = platform::listen_local(path); }
    ASSERT_TRUE(std::filesystem::exists(path));
    EXPECT_FALSE(platform::connect_local(path));
    serve();
    ::umask(old_mask);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    Asker asker(path);
    asker.say("backup 1\n");
    EXPECT_EQ(outcome(asker), "");
}

TEST_F(ControlSocketTest, TakesNoOtherFileAway) {
    { const auto other = files.create(path); }
    EXPECT_THROW(serve(), error::ESystemError);
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
}

TEST_F(ControlSocketTest, ServesPathsThatAreTooLongForASocket) {
    const std::string folder = dir.file(std::string(120, 'd'));
    std::filesystem::create_directory(folder);
    database = make_database(folder + "/db", files, clock);
    serve();
    Asker asker(folder + "/db.control");
    asker.say("backup 1\n");
    EXPECT_EQ(outcome(asker), "");
    EXPECT_FALSE(platform::connect_local(folder + "/gone/" + std::string(50, 'x')));
}

TEST_F(ControlSocketTest, RefusesWhatItDoesNotKnow) {
    serve();
    for (const std::string& line :
         {std::string("backup 2\n"), std::string("\n"), std::string(200, '\xFF'),
          std::string("backup 1\r\n"), std::string(65, '\0'), std::string("GET / HTTP/1.1\n\n")}) {
        Asker asker(path);
        asker.say(line);
        EXPECT_EQ(outcome(asker), "The server does not know this request") << line;
    }
    Asker half(path);
    half.say("backup 1");
    settle();
    half.leave();
    settle();
    EXPECT_FALSE(database->store().observed());
}

TEST_F(ControlSocketTest, SilentAskersKeepNobodyOut) {
    serve({.most_askers = 2});
    Asker oldest(path);
    Asker older(path);
    settle();
    Asker asker(path);
    asker.say("backup 1\n");
    EXPECT_EQ(outcome(asker), "");
    std::vector<std::byte> bytes;
    EXPECT_FALSE(oldest.take(bytes)) << "it was closed";
    EXPECT_TRUE(older.take(bytes));
}

TEST_F(ControlSocketTest, DoesNotWaitForAnAskerThatTakesNothing) {
    serve({.most_kept_bytes = 32 * 1024});
    Asker asker(path);
    asker.say("backup 1\n");
    settle();
    EXPECT_FALSE(control->has_work()) << "the loop may sleep";
    EXPECT_TRUE(database->store().observed());
    for (uint32_t block = kLastBlock; block > kLastBlock - 40; --block) commit(block, 'x');
    EXPECT_FALSE(database->store().observed()) << "what it kept is given back";
    const std::string text = outcome(asker);
    EXPECT_NE(text.find("taken too slowly"), std::string::npos) << text;
    Asker next(path);
    next.say("backup 1\n");
    EXPECT_EQ(outcome(next), "");
}

TEST_F(ControlSocketTest, GoesOnAfterEachEventWithoutALookAtTheSystem) {
    serve();
    Asker asker(path);
    asker.say("backup 1\n");
    settle();
    control->push();
    EXPECT_FALSE(control->has_work()) << "there still is no room";
    std::vector<std::byte> bytes;
    for (size_t before = 1; bytes.size() != before;) {
        before = bytes.size();
        EXPECT_TRUE(asker.take(bytes));
    }
    control->push();
    EXPECT_TRUE(control->has_work());
}

TEST_F(ControlSocketTest, GivesUpAnAskerThatTakesNothingForLong) {
    serve({.stall_s = 60});
    Asker asker(path);
    asker.say("backup 1\n");
    settle();
    clock.advance_s(59);
    settle();
    EXPECT_TRUE(database->store().observed());
    clock.advance_s(2);
    settle();
    EXPECT_FALSE(database->store().observed());
    EXPECT_EQ(outcome(asker), "cut short");
}

TEST_F(ControlSocketTest, ForgetsAnAskerThatLeavesInTheMiddle) {
    serve();
    Asker blocked(path);
    blocked.say("backup 1\n");
    settle();
    blocked.leave();
    settle();
    EXPECT_FALSE(database->store().observed());
}

TEST_F(ControlSocketTest, EndsEverythingWhenTheServerStops) {
    serve();
    Asker copying(path);
    copying.say("backup 1\n");
    settle();
    Asker silent(path);
    settle();
    control->stop("The server is stopping");
    EXPECT_FALSE(database->store().observed());
    EXPECT_EQ(outcome(silent), "The server is stopping");
    EXPECT_EQ(outcome(copying), "cut short");
    Asker late(path);
    EXPECT_EQ(outcome(late), "The server is stopping");
}

}  // namespace
}  // namespace dbms
