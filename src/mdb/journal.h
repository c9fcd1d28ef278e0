// The journal and the transaction stack: the one way in which a change reaches a block. A change is
// an update, a run of bytes and the file offset it goes to. The updates of the open transaction are
// collected in memory and written by one call at commit; then they are copied to the cached blocks,
// and later to the file.
//
//   closed --journal_open--> mapped --journal_start: replay, flip--> running <-- flip, when a half
//   is filled
//
//   no transaction --transaction_begin--> open --transaction_begin--> open, deeper
//        ^  |                              |  transaction_end (inner): merged into the outer one
//        |  '--- journal_checkpoint        |  transaction_abort: undone; the outer one stays open
//        '-- transaction_end, transaction_abort of the outermost
//
// A failed write or sync of the journal or the file leaves unknown what is on the disk. It throws
// error_io, and from then on every begin, end and checkpoint throws error::EFatal: the process has
// to end, and the next start replays. Reading stays possible. What is durable when, and why replay
// is right, is told in docs/file-format.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "mdb/detail/block_updates.h"
#include "mdb/detail/file_writer.h"
#include "mdb/errors.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "util/node_id.h"

namespace mdb {

class BackingStore;
class BlockCache;

/// Who keeps state in memory that must follow the transactions.
class TransactionObserver {
  public:
    virtual ~TransactionObserver() = default;
    /// A transaction or an inner one was opened.
    virtual void transaction_began() = 0;
    /// The innermost transaction is now part of the one around it, or it was the outermost and
    /// wrote nothing.
    virtual void transaction_merged() = 0;
    /// The outermost transaction is committed.
    virtual void transaction_committed() = 0;
    /// The innermost transaction was undone.
    virtual void transaction_aborted() = 0;
};

class Journal {
  public:
    /// Gets the objects touched by an aborted transaction.
    using AbortHook = std::function<void(const std::set<NodeId>&)>;

    Journal(platform::FileSystem& files, BackingStore& store, const platform::Clock& clock);
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    /// Connects the cache that commits are copied to and the observer. Both must be set before
    /// journal_start().
    void attach(BlockCache& cache, TransactionObserver& observer);

    /// Opens the file at `path`, or takes the database's own file when `exclusive` is false, and
    /// maps `length` bytes from `offset` on; a length of 0 means up to the end. `exclusive` takes
    /// the file's lock. Throws error_open, error_io; error_range when the region isn't in the file
    /// or is longer than 32 bits.
    void journal_open(const std::string& path, uint64_t offset, uint64_t length, bool exclusive);
    /// Checks the journal, brings every whole transaction it holds to the file and starts a new
    /// half. Throws error_fubar, error_unsupported, error_need_repair, error_range, error_internal
    /// for a journal that can't be used; then the file is as before. `before_writing` is called
    /// when overlay_unwritten() already shows what the replay will bring to the file, and nothing
    /// is written yet; it may throw to refuse the start.
    void journal_start(const std::function<void()>& before_writing = [] {});

    /// Opens a transaction, or an inner one when one is open. At the outermost one a checkpoint may
    /// be due, which can take as long as writing and syncing what changed since the last one. See
    /// Transaction for the usual way.
    void transaction_begin();
    /// Commits the innermost transaction. An inner one must be asynchronous. The outermost one is,
    /// on return, visible in the cache and survives the death of the process, and unless
    /// `asynchronous` also a power cut, as does then every commit before it, even if this one wrote
    /// nothing.
    void transaction_end(bool asynchronous);
    /// Undoes the innermost transaction, then calls the abort hook.
    void transaction_abort();
    [[nodiscard]] bool transaction_active() const noexcept { return !stack_.empty(); }
    /// Notes an object that the open transaction changes, for the abort hook; nothing without one.
    void transaction_touch(NodeId id);

    /// Adds one update of the open transaction: `length` bytes of `data` go to `file_offset`.
    /// Copies the bytes; the caller keeps its own buffer up to date. Throws error_internal without
    /// a transaction, and error_transact when the half has no room for it: the caller aborts then.
    void journal_update(const void* data, size_t length, uint64_t file_offset);

    /// True when the open transaction has changed `block`, so that its committed image is not what
    /// the transaction sees.
    [[nodiscard]] bool transaction_changed(uint32_t block) const {
        return open_updates_.has(block);
    }
    /// Lays the open transaction's updates over a buffer with the committed bytes at `file_offset`.
    /// Costs what it touches: the updates of the blocks in the range.
    void overlay_open_transaction(std::byte* buffer, size_t length, uint64_t file_offset) const;
    /// Lays the committed updates that aren't yet in the file over a buffer read from the file.
    /// Costs as above.
    void overlay_unwritten(std::byte* buffer, size_t length, uint64_t file_offset) const;

    /// True when bytes of `block` could still come out of the journal: the open transaction or the
    /// half that a replay would read has updates of it. Nobody else may write to it until then.
    [[nodiscard]] bool claims(uint32_t block) const;
    /// Returns when no power cut can undo a commit any more. A transaction may be open; its own
    /// updates stay in memory. Costs nothing when the last commit was synchronous.
    void make_commits_durable();
    /// Runs what writes to the file past the journal or syncs it. A failure that it throws makes
    /// the journal refuse all further work: nobody knows which of the bytes written before, commits
    /// among them, the disk has lost.
    template <class Operation>
    void guarded(Operation&& operation);

    /// Makes all commits durable, writes them to the file and syncs it. No transaction may be open.
    void full_checkpoint();
    /// full_checkpoint(), and then a new half: nothing committed before is ever replayed again.
    void checkpoint_and_flip();
    /// The checkpoint decision. Cheap when nothing is due. No transaction may be open.
    void journal_checkpoint();
    /// Makes the other half current. With `redirect` the log says so, for a reader without the new
    /// index entry. What the old half holds goes to the file first. No update of an open
    /// transaction may exist.
    void flip(bool redirect);

    void set_abort_hook(AbortHook hook) { abort_hook_ = std::move(hook); }

    /// Where the next entry goes, and the state of the halves; for tests and diagnosis.
    [[nodiscard]] uint32_t write_pos() const noexcept { return committed_end_ + transaction_fill_; }
    [[nodiscard]] uint64_t current_serial() const noexcept { return current_serial_; }
    [[nodiscard]] uint32_t n_committed() const noexcept { return n_committed_; }
    [[nodiscard]] uint32_t journal_length() const noexcept { return journal_length_; }
    /// Bytes left for entries in the current half.
    [[nodiscard]] uint32_t free_space() const noexcept { return limit() - write_pos(); }
    /// True after a failed write or sync.
    [[nodiscard]] bool failed() const noexcept { return !failure_.empty(); }

  private:
    friend class Transaction;

    /// What the stack remembers of the moment a transaction was opened.
    struct Record {
        uint32_t fill;
        size_t update_count;
        size_t touched_count;
    };

    [[nodiscard]] int current_half() const noexcept { return 1 - next_index_; }
    [[nodiscard]] uint32_t limit() const noexcept;
    [[nodiscard]] uint64_t current_second() const;
    [[nodiscard]] const std::byte* view() const { return mapping_->data(); }
    void check_state() const;
    void check_usable() const;
    void check_no_transaction() const;
    void replay();
    void collect_replay(uint32_t position, uint64_t serial);
    void collect_transaction(uint32_t position, uint32_t end);
    [[nodiscard]] bool serial_is_current(uint32_t position) const;

    void begin_outermost();
    [[nodiscard]] std::byte* reserve_entry(uint64_t size);
    void add_pieces(detail::BlockUpdates& updates, uint64_t file_offset, uint32_t length,
                    uint32_t source, size_t keep) const;
    void overlay(const detail::BlockUpdates& updates, const std::byte* source, std::byte* buffer,
                 size_t length, uint64_t file_offset) const;
    [[nodiscard]] bool flush_is_due(bool asynchronous) const;
    void commit(bool asynchronous);
    void write_transaction(bool flush);
    void publish_transaction();

    void write_journal(const void* data, size_t length, uint32_t position, bool durable);
    void start_writeback(uint32_t end);
    void write_redirection(uint32_t target);
    void write_index_entry(int half, uint32_t start);
    void flush_journal();
    void sync_journal();
    void write_committed_to_file(bool sync_follows);
    void bring_to_file();

    platform::FileSystem& files_;
    BackingStore& store_;
    const platform::Clock& clock_;
    BlockCache* cache_ = nullptr;
    TransactionObserver* observer_ = nullptr;
    AbortHook abort_hook_;

    std::unique_ptr<platform::File> own_file_;
    platform::File* file_ = nullptr;
    std::unique_ptr<platform::Mapping> mapping_;
    uint64_t journal_base_ = 0;
    uint32_t journal_length_ = 0;

    /// End of the last commit in the current half.
    uint32_t committed_end_ = 0;
    /// Up to here the system has been told to begin writing the current half to the disk.
    uint32_t writeback_begun_ = 0;
    uint64_t current_serial_ = 0;
    int next_index_ = 0;
    uint32_t n_committed_ = 0;
    /// Transactions of this half that are in the file; the cache always has all of them.
    uint32_t n_in_file_ = 0;
    uint64_t last_sync_ = 0;
    /// Something was written to the journal since it was last synced.
    bool undurable_ = false;
    /// The database file was written to since it was last synced.
    bool file_unsynced_ = false;
    std::string failure_;

    std::vector<Record> stack_;
    std::vector<NodeId> touched_;
    /// Entries of the open transaction, as they will stand in the journal from committed_end_ on.
    std::unique_ptr<std::byte[]> transaction_;
    uint32_t transaction_capacity_ = 0;
    uint32_t transaction_fill_ = 0;
    /// Sources of open_updates_ are positions in transaction_, those of unwritten_ positions in the
    /// journal.
    detail::BlockUpdates open_updates_;
    detail::BlockUpdates unwritten_;
    /// Blocks with updates in the current half that have left unwritten_ for the file; a set.
    detail::BlockHeads written_blocks_;
    detail::FileWriter writer_;
};

template <class Operation>
void Journal::guarded(Operation&& operation) {
    check_usable();
    try {
        operation();
    } catch (const error_generic& failure) {
        failure_ = failure.text();
        throw;
    } catch (const std::bad_alloc&) {
        failure_ = "Out of memory";  // short enough to need none
        throw;
    }
}

/// A transaction for the length of a scope. Unless commit() was called it is aborted at the end of
/// the scope; an abort that fails there makes the journal refuse all further work.
class Transaction {
  public:
    explicit Transaction(Journal& journal) : journal_(&journal) { journal.transaction_begin(); }
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    /// Commits. Throws what transaction_end() throws; there is nothing left to abort then.
    void commit(bool asynchronous = true) {
        Journal* journal = journal_;
        journal_ = nullptr;
        journal->transaction_end(asynchronous);
    }

  private:
    Journal* journal_;
};

}  // namespace mdb
