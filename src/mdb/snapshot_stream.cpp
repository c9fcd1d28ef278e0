#include "mdb/snapshot_stream.h"

#include <algorithm>
#include <cstring>

#include "mdb/snapshot_layout.h"
#include "util/byte_order.h"

namespace mdb {

namespace layout = snapshot_layout;

namespace {

/// Appends the head of a record and room for its payload; returns where the payload goes.
std::byte* append_record(uint32_t kind, size_t length, std::vector<std::byte>& out) {
    const size_t at = out.size();
    out.resize(at + layout::kHeadSize + length);
    util::store_be32(out.data() + at + layout::kind, kind);
    util::store_be32(out.data() + at + layout::payload_length, static_cast<uint32_t>(length));
    return out.data() + at + layout::kHeadSize;
}

}  // namespace

void SnapshotStream::append_next(std::vector<std::byte>& out) {
    if (ended_) return;
    if (!begun_) return append_begin(out);
    if (const auto piece = snapshot_.next()) return append_piece(*piece, out);
    if (snapshot_.state() == Snapshot::state_t::complete)
        append_end(out);
    else
        append_failure(snapshot_.failure(), out);
    ended_ = true;
}

void SnapshotStream::append_begin(std::vector<std::byte>& out) {
    const size_t at = out.size();
    std::byte* payload = append_record(layout::kBegin, layout::kBeginSize, out);
    util::store_be32(payload + layout::version, layout::kVersion);
    util::store_be32(payload + layout::block_size, snapshot_.block_size());
    util::store_be64(payload + layout::file_length, snapshot_.file_length());
    util::store_be32(payload + layout::journal_length, snapshot_.journal_length());
    crc_.update(out.size() - at, out.data() + at);
    begun_ = true;
}

void SnapshotStream::append_piece(const Snapshot::Piece& piece, std::vector<std::byte>& out) {
    const size_t at = out.size();
    std::byte* payload = append_record(layout::kBlocks, layout::bytes + piece.bytes.size(), out);
    util::store_be64(payload + layout::offset, piece.offset);
    std::memcpy(payload + layout::bytes, piece.bytes.data(), piece.bytes.size());
    crc_.update(out.size() - at, out.data() + at);
    total_ += piece.bytes.size();
}

void SnapshotStream::append_end(std::vector<std::byte>& out) {
    const size_t at = out.size();
    std::byte* payload = append_record(layout::kEnd, layout::kEndSize, out);
    util::store_be64(payload + layout::total, total_);
    crc_.update(layout::kHeadSize + layout::crc, out.data() + at);
    util::store_be32(payload + layout::crc, crc_.value());
}

void SnapshotStream::append_failure(std::string_view text, std::vector<std::byte>& out) {
    text = text.substr(0, layout::kMostPayload);
    std::byte* payload = append_record(layout::kFailure, text.size(), out);
    std::copy_n(reinterpret_cast<const std::byte*>(text.data()), text.size(), payload);
}

}  // namespace mdb
