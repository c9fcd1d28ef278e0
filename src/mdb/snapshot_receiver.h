// Takes the stream of a copy (snapshot_layout.h) and makes two files of it, a database and its
// journal, which have their own names only once they are whole.
//
//   waiting --"SBEG"--> receiving --"SEND"--> received --finish()--> finished
//   finished --publish() or publish_as_faulty()--> published
//
// The files stand under temporary names until publish(), and a receiver that goes away before
// removes them. Nothing in the stream is trusted: whatever contradicts the layout or itself is an
// error_consistency, and the receiver is then good for nothing more.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "mdb/detail/file_pair.h"
#include "mdb/errors.h"
#include "platform/file.h"
#include "util/crc32.h"

namespace mdb {

/// The server won't make a copy. The text is the server's.
class error_copy_refused : public error_generic {
  public:
    using error_generic::error_generic;
};

class SnapshotReceiver {
  public:
    /// The names that the files are to have; their folders must exist. `files` must outlive the
    /// receiver.
    SnapshotReceiver(platform::FileSystem& files, std::string database_path,
                     std::string journal_path);
    ~SnapshotReceiver();
    SnapshotReceiver(const SnapshotReceiver&) = delete;
    SnapshotReceiver& operator=(const SnapshotReceiver&) = delete;

    /// Takes the next bytes of the stream, however they were cut. Throws error_copy_refused when
    /// the server refused, error_generic with the server's text when it gave up later,
    /// error_consistency, error_io.
    void take(std::span<const std::byte> bytes);
    /// True once the stream has ended well.
    [[nodiscard]] bool received() const noexcept { return state_ >= state_t::received; }
    /// Of the database file: its length, 0 while that isn't known, and how much of it is here.
    [[nodiscard]] uint64_t total_bytes() const noexcept { return file_length_; }
    [[nodiscard]] uint64_t received_bytes() const noexcept { return taken_; }

    /// Makes the journal and brings both files to stable storage. Only when received(). error_io.
    void finish();
    /// Where the files are until publish(). The journal's name is that of no file when the copy's
    /// journal lies in the database file.
    [[nodiscard]] std::string temporary_database() const { return pair_.new_database(); }
    [[nodiscard]] std::string temporary_journal() const { return pair_.new_journal(); }
    [[nodiscard]] bool has_journal_file() const noexcept { return journal_length_ > 0; }

    /// Gives the files their names, only after finish(). A copy that replaces an earlier copy does
    /// so in one step. If other files are replaced, a crash may leave no database there, but never
    /// one beside a journal that isn't its own. Throws error_generic when a file is there already
    /// and `force` isn't set or when it is in use, error_io.
    void publish(bool force);
    /// In the place of publish(), for a copy in which faults were found: gives the files names that
    /// end with kFaultyEnding, replacing earlier ones of this kind. Files with the names of a copy
    /// stay as they are. Throws as above.
    void publish_as_faulty();
    static constexpr const char* kFaultyEnding = ".faulty";

  private:
    enum class state_t { waiting, receiving, received, finished, published };

    void take_record();
    void take_begin(std::span<const std::byte> payload);
    void take_blocks(std::span<const std::byte> payload);
    void take_end(std::span<const std::byte> payload);
    void take_failure(std::span<const std::byte> payload);
    [[nodiscard]] bool journal_is_there_already();
    void check_finished() const;
    void publish_files();
    void remove_temporary_files();
    template <class Operation>
    void guarded(Operation&& operation);

    platform::FileSystem& files_;
    detail::FilePair pair_;
    state_t state_ = state_t::waiting;
    /// The record that is being received.
    std::vector<std::byte> record_;
    security::Crc32 crc_;

    std::unique_ptr<platform::File> file_;
    uint32_t block_size_ = 0;
    uint64_t file_length_ = 0;
    uint32_t journal_length_ = 0;
    uint64_t taken_ = 0;
    std::vector<bool> have_block_;
};

}  // namespace mdb
