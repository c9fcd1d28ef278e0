#include "mdb/detail/block_updates.h"

#include "error/exception.h"

namespace mdb::detail {

namespace {

/// How many pieces of a block are looked at for one that a new piece hides. Blocks that are changed
/// over and over are changed at the same few places.
constexpr int kHiddenSearchDepth = 8;

}  // namespace

uint32_t& BlockHeads::at(uint32_t block) {
    if (used_ * 2 >= slots_.size()) grow();
    for (size_t i = home(block);; i = (i + 1) & (slots_.size() - 1)) {
        Slot& slot = slots_[i];
        if (slot.generation != generation_) {
            slot = Slot{block, generation_, kNone};
            ++used_;
            return slot.value;
        }
        if (slot.block == block) return slot.value;
    }
}

uint32_t BlockHeads::find(uint32_t block) const {
    for (size_t i = home(block);; i = (i + 1) & (slots_.size() - 1)) {
        const Slot& slot = slots_[i];
        if (slot.generation != generation_) return kNone;
        if (slot.block == block) return slot.value;
    }
}

void BlockHeads::clear() {
    used_ = 0;
    if (++generation_ != 0) return;
    std::fill(slots_.begin(), slots_.end(), Slot{});
    generation_ = 1;
}

void BlockHeads::grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    for (const Slot& slot : old) {
        if (slot.generation != generation_) continue;
        size_t i = home(slot.block);
        while (slots_[i].generation == generation_) i = (i + 1) & (slots_.size() - 1);
        slots_[i] = slot;
    }
}

void BlockUpdates::drop_hidden(uint32_t& head, uint32_t start, uint32_t length, size_t keep) {
    uint32_t* link = &head;
    for (int depth = 0; depth < kHiddenSearchDepth; ++depth) {
        // Pieces of a block are in the order of their numbers, so none older is above `keep`
        // either.
        if (*link == BlockHeads::kNone || *link < keep) return;
        Piece& piece = pieces_[*link];
        if (piece.start >= start && piece.start + piece.length <= start + length) {
            *link = piece.older;
            piece.length = 0;
        } else {
            link = &piece.older;
        }
    }
}

void BlockUpdates::add(uint32_t block, uint32_t start, uint32_t length, uint32_t source,
                       size_t keep) {
    if (length == 0) return;
    error::check(pieces_.size() < BlockHeads::kNone, "Too many pending updates");
    uint32_t& head = heads_.at(block);
    drop_hidden(head, start, length, keep);
    pieces_.push_back(Piece{block, start, length, source, head});
    head = static_cast<uint32_t>(pieces_.size() - 1);
}

void BlockUpdates::truncate(size_t count) {
    error::check(count <= pieces_.size(), "Pending updates shrunk from {} to {}", pieces_.size(),
                 count);
    for (size_t i = pieces_.size(); i-- > count;) {
        uint32_t& head = heads_.at(pieces_[i].block);
        while (head != BlockHeads::kNone && head >= count) head = pieces_[head].older;
    }
    pieces_.resize(count);
}

void BlockUpdates::clear() {
    pieces_.clear();
    heads_.clear();
}

void BlockUpdates::collect(uint32_t block, std::vector<Piece>& out) const {
    const size_t before = out.size();
    for (uint32_t i = heads_.find(block); i != BlockHeads::kNone; i = pieces_[i].older)
        out.push_back(pieces_[i]);
    std::reverse(out.begin() + static_cast<std::ptrdiff_t>(before), out.end());
}

void BlockUpdates::blocks(std::vector<uint32_t>& out) const {
    for (size_t i = 0; i < pieces_.size(); ++i)
        if (pieces_[i].length != 0 && heads_.find(pieces_[i].block) == i)
            out.push_back(pieces_[i].block);
    std::sort(out.begin(), out.end());
}

}  // namespace mdb::detail
