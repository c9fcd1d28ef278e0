#include "mdb/snapshot_receiver.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "log/log.h"
#include "mdb/block_layout.h"
#include "mdb/snapshot_layout.h"
#include "util/byte_order.h"

namespace mdb {

namespace layout = snapshot_layout;

namespace {

const logging::Logger logger{"objectio"};

constexpr const char* kSuffix = ".backup";
constexpr size_t kCompared_bytes = 1U << 20;

[[noreturn]] void refuse(std::string_view what) {
    throw error_consistency(fmt::format("The copy was damaged on its way: {}", what));
}

/// The bytes of a file in equal parts, compared with those of another.
bool same_content(platform::File& one, platform::File& other) {
    const uint64_t length = one.size();
    if (other.size() != length) return false;
    std::vector<std::byte> left(kCompared_bytes);
    std::vector<std::byte> right(kCompared_bytes);
    for (uint64_t at = 0; at < length; at += kCompared_bytes) {
        const auto part = static_cast<size_t>(std::min<uint64_t>(kCompared_bytes, length - at));
        if (one.read_at(left.data(), part, at) != part ||
            other.read_at(right.data(), part, at) != part ||
            !std::equal(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(part),
                        right.begin()))
            return false;
    }
    return true;
}

}  // namespace

SnapshotReceiver::SnapshotReceiver(platform::FileSystem& files, std::string database_path,
                                   std::string journal_path)
    : files_(files), pair_{std::move(database_path), std::move(journal_path), kSuffix} {}

SnapshotReceiver::~SnapshotReceiver() {
    if (state_ == state_t::waiting || state_ == state_t::published) return;
    try {
        remove_temporary_files();
    } catch (const error::ESystemError& failure) {
        logger.error("Cannot remove the files of a copy: {}", failure.text());
    }
}

template <class Operation>
void SnapshotReceiver::guarded(Operation&& operation) {
    try {
        operation();
    } catch (const error::ESystemError& failure) {
        throw error_io(
            fmt::format("Cannot write the copy \"{}\": {}", pair_.database_path, failure.text()));
    }
}

void SnapshotReceiver::remove_temporary_files() {
    file_.reset();
    files_.remove(pair_.new_database());
    files_.remove(pair_.new_journal());
}

void SnapshotReceiver::take(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        if (received()) refuse("something follows its end");
        size_t wanted = layout::kHeadSize;
        if (record_.size() >= layout::kHeadSize) {
            const uint32_t length = util::load_be32(record_.data() + layout::payload_length);
            if (length > layout::kMostPayload) refuse("a record is too long");
            wanted += length;
        }
        const size_t part = std::min(wanted - record_.size(), bytes.size());
        record_.insert(record_.end(), bytes.begin(),
                       bytes.begin() + static_cast<std::ptrdiff_t>(part));
        bytes = bytes.subspan(part);
        const bool has_length = wanted > layout::kHeadSize;
        if (record_.size() == wanted && has_length) take_record();
    }
}

void SnapshotReceiver::take_record() {
    const auto payload = std::span<const std::byte>(record_).subspan(layout::kHeadSize);
    switch (util::load_be32(record_.data() + layout::kind)) {
        case layout::kBegin:
            take_begin(payload);
            break;
        case layout::kBlocks:
            take_blocks(payload);
            break;
        case layout::kEnd:
            take_end(payload);
            break;
        case layout::kFailure:
            take_failure(payload);
            break;
        default:
            refuse("a record is of no known kind");
    }
    crc_.update(record_.size(), record_.data());
    record_.clear();
}

void SnapshotReceiver::take_begin(std::span<const std::byte> payload) {
    if (state_ != state_t::waiting || payload.size() != layout::kBeginSize)
        refuse("its begin is wrong");
    const uint32_t version = util::load_be32(payload.data() + layout::version);
    if (version != layout::kVersion)
        throw error_unsupported(fmt::format(
            "The server makes copies of version {}, which this program does not know", version));
    block_size_ = util::load_be32(payload.data() + layout::block_size);
    file_length_ = util::load_be64(payload.data() + layout::file_length);
    journal_length_ = util::load_be32(payload.data() + layout::journal_length);
    if (!std::has_single_bit(block_size_) || block_size_ < kSmallestBlockSize ||
        block_size_ > layout::kMostBlocks || file_length_ == 0 || file_length_ % block_size_ != 0 ||
        file_length_ / block_size_ > std::numeric_limits<uint32_t>::max())
        refuse("its begin is wrong");
    have_block_.resize(static_cast<size_t>(file_length_ / block_size_));
    guarded([this] {
        // From here on there may be temporary files.
        state_ = state_t::receiving;
        remove_temporary_files();
        file_ = files_.create(pair_.new_database());
    });
}

void SnapshotReceiver::take_blocks(std::span<const std::byte> payload) {
    if (state_ != state_t::receiving || payload.size() <= layout::bytes) refuse("blocks are wrong");
    const uint64_t offset = util::load_be64(payload.data() + layout::offset);
    const auto bytes = payload.subspan(layout::bytes);
    if (offset % block_size_ != 0 || bytes.size() % block_size_ != 0 || offset > file_length_ ||
        bytes.size() > file_length_ - offset)
        refuse("blocks lie where there are none");
    const auto first = static_cast<size_t>(offset / block_size_);
    for (size_t block = first; block < first + bytes.size() / block_size_; ++block) {
        if (have_block_[block]) refuse(fmt::format("block {} came twice", block));
        have_block_[block] = true;
    }
    guarded([&] { file_->write_at(bytes.data(), bytes.size(), offset); });
    taken_ += bytes.size();
}

void SnapshotReceiver::take_end(std::span<const std::byte> payload) {
    if (state_ != state_t::receiving || payload.size() != layout::kEndSize)
        refuse("its end is wrong");
    if (taken_ != file_length_ || util::load_be64(payload.data() + layout::total) != taken_)
        refuse(fmt::format("it has {} of {} bytes", taken_, file_length_));
    crc_.update(layout::kHeadSize + layout::crc, record_.data());
    if (crc_.value() != util::load_be32(payload.data() + layout::crc)) refuse("its CRC is wrong");
    state_ = state_t::received;
}

void SnapshotReceiver::take_failure(std::span<const std::byte> payload) {
    const std::string text(reinterpret_cast<const char*>(payload.data()), payload.size());
    if (state_ == state_t::waiting) throw error_copy_refused(text);
    throw error_generic(text);
}

void SnapshotReceiver::finish() {
    error::check(state_ == state_t::received, "A copy was to be finished in state {}",
                 static_cast<int>(state_));
    guarded([this] {
        file_->sync_data();
        file_.reset();
        if (has_journal_file())
            detail::write_fresh_journal(files_, pair_.new_journal(), journal_length_);
    });
    state_ = state_t::finished;
}

void SnapshotReceiver::check_finished() const {
    error::check(state_ == state_t::finished, "A copy was to be published in state {}",
                 static_cast<int>(state_));
}

void SnapshotReceiver::publish(bool force) {
    check_finished();
    guarded([this, force] {
        const auto old_database = detail::lock_existing(files_, pair_.database_path, force);
        const auto old_journal =
            has_journal_file() ? detail::lock_existing(files_, pair_.journal_path, force) : nullptr;
        publish_files();
    });
    state_ = state_t::published;
}

void SnapshotReceiver::publish_as_faulty() {
    check_finished();
    guarded([this] {
        const std::string database = pair_.database_path + kFaultyEnding;
        const auto old_database = detail::lock_existing(files_, database, true);
        if (has_journal_file()) return detail::publish(files_, pair_, kFaultyEnding);
        files_.rename(pair_.new_database(), database);
        files_.sync_folder_of(database);
    });
    state_ = state_t::published;
}

bool SnapshotReceiver::journal_is_there_already() {
    if (!files_.exists(pair_.journal_path)) return false;
    const auto old_journal = files_.open(pair_.journal_path);
    const auto new_journal = files_.open(pair_.new_journal());
    return same_content(*old_journal, *new_journal);
}

void SnapshotReceiver::publish_files() {
    if (has_journal_file() && !journal_is_there_already()) return detail::publish(files_, pair_);
    // The journal of any copy is as good as that of any other: what stands there at a crash is the
    // old copy or the new one.
    files_.rename(pair_.new_database(), pair_.database_path);
    files_.sync_folder_of(pair_.database_path);
    files_.remove(pair_.new_journal());
}

}  // namespace mdb
