// Workloads: named scripts of store operations, always the same ones in the same order, each with a
// model of what must be in the store after each commit. A workload runs on any file system: once on
// a recording disk, from whose record all its crash states are derived (explorer.h), or on a disk
// one of whose calls fails.
//
//   SimDisk disk;
//   const Workload workload = get_workload("objects");
//   Run run(workload, disk);
//   run.prepare();          // makes the database; nothing is recorded of it
//   run.work();             // throws what the store throws when a call fails or the power is cut
//   ... disk.restart() or disk.load(an image that a cut left)
//   const Check check = check_after_crash(run.workload(), disk, run.history(), allowed);
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "support/fake_clock.h"
#include "support/sim_disk.h"
#include "util/node_id.h"

namespace torture {

inline constexpr const char* kDatabase = "db";
inline constexpr const char* kJournal = "journal";
inline constexpr NodeId kRoot{0, 1};
/// Properties of the objects besides the six that the indexes know.
inline constexpr uint32_t kTextProperty = 51;
inline constexpr uint32_t kLargeProperty = 60;

/// What an object of the model has.
struct Values {
    NodeId parent = {};
    bool active = false;
    NodeId inherits = {};
    NodeId master = {};
    NodeId notify = {};
    std::string text = {};
    /// Content of the large object that it refers to; none when it has none.
    std::optional<std::string> large = {};

    friend bool operator==(const Values&, const Values&) = default;
};
using Model = std::map<NodeId, Values>;

/// The commits of a run, by the number of disk operations that were complete when each was begun,
/// had returned, and was known to be durable. State 0 is what there was before the run.
class History {
  public:
    static constexpr size_t kNever = SIZE_MAX;
    struct State {
        /// What is there; none: no database at all.
        std::optional<Model> model;
        size_t begun_at = 0;
        size_t returned_at = kNever;
        size_t durable_at = kNever;
    };

    explicit History(std::optional<Model> start);
    /// A commit is begun that will leave `model`.
    void begin(std::optional<Model> model, size_t at);
    /// The last one has returned. Durable: with all before it.
    void returned(size_t at);
    /// All that have returned are durable.
    void durable(size_t at);

    [[nodiscard]] const std::vector<State>& states() const { return states_; }

    /// States that may be there after a crash, first and last.
    struct Range {
        size_t first;
        size_t last;
    };
    /// After a power cut with `completed` operations done and `begun` begun.
    [[nodiscard]] Range after_power_cut(size_t completed, size_t begun) const;
    /// After the death of the process, with everything written kept.
    [[nodiscard]] Range after_death(size_t completed, size_t begun) const;
    /// The same at the end of the record: for a run that a failing call ended.
    [[nodiscard]] Range after_death() const { return after_death(kNever - 1, kNever); }

  private:
    std::vector<State> states_;
};

/// How the database of a workload is made.
struct Setup {
    uint32_t block_size = 1024;
    uint64_t journal_size = 128 * 1024;
    /// Bytes of blocks that the map describes; one map block describes 1 MiB.
    uint64_t capacity = 1 << 20;
    uint32_t buffer_blocks = 16;
    /// All six, made at each start where they are missing; otherwise the two required ones.
    bool six_indexes = true;
    /// Dropping an index leaves the blocks of its tree behind.
    bool drops_indexes = false;
    bool large_objects = false;
    /// The first block of a journal that lies in the database file, 24 or above; 0: a file of its
    /// own.
    uint32_t journal_block = 0;
};

class Script;

struct Workload {
    std::string name;
    Setup setup;
    /// Done before the record begins, and made durable.
    std::function<void(Script&)> prepare;
    std::function<void(Script&)> work;
};

[[nodiscard]] const std::vector<Workload>& all_workloads();
/// One of these, or random_workload(N) for "random_N". Throws error::EFatal for a name that is
/// none.
[[nodiscard]] Workload get_workload(std::string_view name);
/// A setup and operations that are all drawn by `seed`.
[[nodiscard]] Workload random_workload(uint64_t seed);

/// The operations of a workload: each is done to the store and to the model.
class Script {
  public:
    Script(platform::FileSystem& files, support::SimDisk* record, const Setup& setup,
           History& history);
    Script(const Script&) = delete;
    Script& operator=(const Script&) = delete;

    /// Makes the database; with `force` in the place of the one that is there.
    void format(bool force = false);
    /// The same as a part of the workload: a cut leaves the old one, none or the new one.
    void format_recorded(bool force);
    /// Opens the store as a server does at its start, the root object included. An open one is
    /// dropped before, as by the death of the process. The model is taken for what is there.
    void open();
    void close();

    /// Transactions. Operations outside of one are each one, asynchronous.
    void begin();
    void commit(bool asynchronous = true);
    void abort();
    void create(NodeId id, const Values& values);
    void update(NodeId id, const Values& values);
    void remove(NodeId id);
    /// A large object in the place of what the object has; empty values are values.
    void set_large(NodeId id, const std::optional<std::string>& bytes);

    void full_checkpoint();
    void flip(bool redirect);
    void journal_checkpoint();
    /// Takes an index out of the header; it is made anew by the next open().
    void drop_index(uint32_t n);
    void pass_time(uint64_t ms);
    /// From now on the database file can grow by so many bytes only; none: as it likes. Needs a
    /// simulated disk.
    void limit_growth(std::optional<uint64_t> bytes);
    /// Aborts all transactions that are open.
    void abort_all();

    [[nodiscard]] const Setup& setup() const { return setup_; }
    [[nodiscard]] const Model& model() const { return levels_.back(); }
    void set_model(const Model& model) { levels_.assign(1, model); }
    [[nodiscard]] mdb::Database& database() { return *database_; }
    [[nodiscard]] mdb::IndexTable& indexes() { return *indexes_; }
    [[nodiscard]] mdb::ObjectStore& objects() { return *objects_; }
    /// Transactions that are open.
    [[nodiscard]] size_t depth() const { return levels_.size() - 1; }
    [[nodiscard]] bool in_transaction() const { return depth() > 0; }
    [[nodiscard]] bool is_open() const { return database_ != nullptr; }
    /// True when open() has come to its end.
    [[nodiscard]] bool is_ready() const { return ready_; }

  private:
    [[nodiscard]] size_t now() const { return record_ == nullptr ? 0 : record_->log().size(); }
    void move_journal_into_file();
    void one(const std::function<void()>& operation);
    void put(NodeId id, const Values& values, uint32_t large_block);
    void note_second();
    [[nodiscard]] uint32_t large_block(NodeId id);
    [[nodiscard]] mdb::block_handle_t place(NodeId id);

    platform::FileSystem& files_;
    support::SimDisk* record_;
    Setup setup_;
    History& history_;
    support::FakeClock clock_;
    uint64_t synced_second_ = 0;
    std::unique_ptr<mdb::Database> database_;
    std::unique_ptr<mdb::IndexTable> indexes_;
    std::unique_ptr<mdb::ObjectStore> objects_;
    bool ready_ = false;
    /// The model as committed, and as each open transaction sees it.
    std::vector<Model> levels_;
};

/// One run of a workload on a disk of its own.
class Run {
  public:
    Run(const Workload& workload, support::SimDisk& disk);
    /// Everything before the record begins; the disk is then as after a restart with an empty log.
    void prepare();
    /// The workload; may throw what the store throws. Leaves the store closed.
    void work();

    [[nodiscard]] const Workload& workload() const { return workload_; }
    [[nodiscard]] const History& history() const { return *history_; }

  private:
    const Workload& workload_;
    support::SimDisk& disk_;
    std::unique_ptr<History> history_;
    Model prepared_;
};

/// What came out of a check.
struct Check {
    /// All that is wrong, in text for people; empty when it is well.
    std::string fault;
    /// The state that was found.
    size_t state = 0;
    /// Operations on the disk until the start was done.
    size_t start_ops = 0;
    /// Commits of the further work, on top of the state found.
    std::optional<History> after;
};

/// For a store that goes on after a call has failed: verifies it as it stands and compares it with
/// the script's model, then goes on like check_after_crash(). A text as in Check.
[[nodiscard]] std::string check_going_on(Script& script);
/// For a store that can only be read any more: verifies it and compares it with the states that
/// may be there.
[[nodiscard]] std::string check_readable(Script& script, const History& history,
                                         History::Range allowed);

/// Starts the store on what a crash has left on `disk`, verifies all of it and compares it with
/// the states that may be there. Then some commits follow, and two more starts: nothing of the
/// past may come back. All of it goes to the disk's record. Lets SimDisk::PowerCut through.
[[nodiscard]] Check check_after_crash(const Workload& workload, support::SimDisk& disk,
                                      const History& history, History::Range allowed);

}  // namespace torture
