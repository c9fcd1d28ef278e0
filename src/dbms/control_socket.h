// How an operator's tool reaches the server directly: a socket beside the database,
// DATABASE.control, for programs of the same user. It knows one request, a line of text:
//
//   backup 1\n      answered by the stream of a copy of the database (mdb/snapshot_layout.h)
//
// and answers anything else with a stream that is one failure. Afterwards the connection is closed.
//
//   asker:  connected --line--> copy, or refused and closed
//              '--no whole line, and another one wants the place; or too much without one--> closed
//   copy:   sending <--socket full / has room--> blocked
//              '--all sent, or asker gone, or blocked for too long, or stop()--> none
//
// The server is never held up: nothing here blocks, a step costs one piece of the copy, and what a
// slow asker makes the copy keep is bounded. One copy is taken at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "io/selector.h"
#include "io/system_handle.h"
#include "io/timer.h"
#include "mdb/snapshot_layout.h"
#include "mdb/snapshot_stream.h"
#include "platform/clock.h"
#include "platform/fifo.h"
#include "util/idle_task.h"

namespace mdb {
class Database;
}

namespace dbms {

class ControlSocket final : public idle::IdleTask {
  public:
    struct Limits {
        /// See mdb::Snapshot.
        uint64_t most_kept_bytes = mdb::Snapshot::kMostKept_bytes;
        /// A copy ends when its asker takes nothing for so long.
        int64_t stall_s = 300;
        /// Askers without a whole request yet; one more closes the oldest.
        size_t most_askers = 8;
    };

    /// The name of the socket that belongs to a database.
    [[nodiscard]] static std::string path_for(const std::string& database_path) {
        return database_path + std::string(mdb::snapshot_layout::kSocketSuffix);
    }

    /// Makes the socket, removing one that an earlier server left: `database` is open, so its lock
    /// is held. Both references must outlive this object. error::ESystemError.
    ControlSocket(mdb::Database& database, const platform::Clock& clock, const Limits& limits);
    ControlSocket(mdb::Database& database, const platform::Clock& clock)
        : ControlSocket(database, clock, Limits{}) {}
    /// Removes the socket. Must have left its selector.
    ~ControlSocket() override;

    /// Enters what is to be waited for into `selector`, which must outlive the membership.
    void join(io::Selector<int>& selector);
    /// Closes all connections and takes everything out of the selector again.
    void leave();
    /// Looks after a selectable that the selector handed out; false if it is none of ours.
    /// Beginning a copy costs a checkpoint. No transaction may be open. Throws what a checkpoint
    /// throws.
    bool handle(const io::Selectable& ready);

    /// True when a piece of a copy can be sent without waiting.
    [[nodiscard]] bool has_work() const override { return copy_ != nullptr && !copy_->blocked; }
    /// Sends one piece.
    void doWork() override;
    /// The same if there is a copy, also while its socket was full when last looked at. To be
    /// called after each event: while events never stop there is no idle time and seldom a look at
    /// the system, and what changes before it is given out is kept in memory.
    void push();

    /// Ends the copy, telling its asker why if that is possible at once, and closes everything
    /// else. New askers are refused with the same text.
    void stop(const std::string& reason);

  private:
    /// A connection whose request isn't whole yet.
    struct Asker {
        explicit Asker(platform::Fd its_connection);
        platform::Fd connection;
        io::FdSelectable readable;
        std::string line;
    };
    struct Copy {
        Copy(platform::Fd its_connection, mdb::Database& database, uint64_t most_kept_bytes);
        platform::Fd connection;
        io::FdSelectable writable;
        mdb::SnapshotStream stream;
        /// Bytes of the stream on their way, and how many of them are sent.
        std::vector<std::byte> bytes;
        size_t sent = 0;
        bool blocked = false;
    };

    void accept();
    void add_asker(platform::Fd connection);
    void read_from(size_t index);
    [[nodiscard]] platform::Fd take_asker(size_t index);
    void answer(platform::Fd connection, std::string_view line);
    void begin_copy(platform::Fd connection);
    [[nodiscard]] bool send_bytes();
    void set_blocked(bool blocked);
    void end_copy(const std::string& failure);

    mdb::Database& database_;
    const platform::Clock& clock_;
    const Limits limits_;
    const std::string path_;
    platform::Fd listener_;
    io::FdSelectable connecting_;
    io::Timer stall_;
    io::Selector<int>* selector_ = nullptr;
    bool listening_ = false;
    std::vector<std::unique_ptr<Asker>> askers_;
    std::unique_ptr<Copy> copy_;
    /// Why nothing is served any more; empty while it is.
    std::string stopped_;
};

}  // namespace dbms
