#include "mdb/large_object.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <limits>

#include "mdb/database.h"
#include "mdb/large_object_layout.h"
#include "util/byte_order.h"

namespace mdb {

namespace layout = lob_layout;

namespace {

/// The texts of a reading and of a freeing walk.
struct Walk {
    const char* bad_first_magic;
    const char* bad_single_length;
    const char* bad_further_magic;
};
constexpr Walk kReading{"read_lob: Bad magic cookie in header",
                        "read_lob: bad length for single block lob",
                        "read_lob: Bad magic cookie in data block"};
constexpr Walk kFreeing{"free_lob: Bad magic cookie in header",
                        "free_lob: bad length for single block lob",
                        "free_lob: Bad magic cookie in data block"};

/// Stands on one block of a chain after the other. Reads straight from the file: no update of the
/// journal is ever on its way to a block of a chain.
class ChainReader {
  public:
    ChainReader(Database& database, uint32_t first, const Walk& walk)
        : store_(database.store()),
          walk_(walk),
          buffer_(database.pool().acquire()),
          block_(first),
          mark_of_ring_(first) {
        read(layout::kFirstMagic, walk.bad_first_magic);
        length_ = word(layout::length);
        next_ = word(layout::first_next);
        data_ = layout::first_data;
        if (next_ == 0 && length_ > store_.block_size())
            throw error_internal(walk.bad_single_length);
    }

    [[nodiscard]] uint32_t block() const { return block_; }
    /// Length of the whole object, as its first block says.
    [[nodiscard]] uint32_t length() const { return length_; }
    [[nodiscard]] bool at_end() const { return next_ == 0; }
    /// What the block can hold of the data.
    [[nodiscard]] std::span<const std::byte> data() const {
        return {buffer_.data() + data_, store_.block_size() - data_};
    }
    void advance() {
        if (next_ == block_) throw error_internal("getNext points to self!");
        block_ = next_;
        read(layout::kFurtherMagic, walk_.bad_further_magic);
        next_ = word(layout::further_next);
        data_ = layout::further_data;
        // A block that was passed a power of two of steps ago; every ring comes to its own one.
        in_ring_ = in_ring_ || block_ == mark_of_ring_;
        if (++steps_ == steps_to_mark_) {
            mark_of_ring_ = block_;
            steps_to_mark_ *= 2;
        }
    }
    /// True once the chain has been seen to lead back into itself.
    [[nodiscard]] bool in_ring() const { return in_ring_; }

  private:
    void read(uint32_t magic, const char* bad_magic) {
        store_.block_read(buffer_.data(), block_, 1);
        if (word(layout::magic) != magic) throw error_internal(bad_magic);
    }
    [[nodiscard]] uint32_t word(uint32_t offset) const {
        return util::load_be32(buffer_.data() + offset);
    }

    BackingStore& store_;
    const Walk& walk_;
    BlockBuffer buffer_;
    uint32_t block_;
    uint32_t length_ = 0;
    uint32_t next_ = 0;
    uint32_t data_ = 0;
    uint32_t mark_of_ring_;
    uint64_t steps_ = 0;
    uint64_t steps_to_mark_ = 1;
    bool in_ring_ = false;
};

uint32_t take_block(Allocator& allocator, uint32_t hint) {
    const uint32_t block = allocator.allocate_empty_block(hint, false);
    allocator.set_mark_unchecked(block, mark_t::lob);
    return block;
}

/// Writes one block past the journal.
void write_block(Database& database, const BlockBuffer& buffer, uint32_t block) {
    database.cache().forget(block);
    database.journal().guarded([&] { database.store().block_write(buffer.data(), block, 1); });
}

/// Puts as much of `rest` as fits behind `offset` and takes it off `rest`.
void fill(BlockBuffer& buffer, uint32_t offset, uint32_t block_size,
          std::span<const std::byte>& rest) {
    const size_t part = std::min<size_t>(block_size - offset, rest.size());
    if (part != 0) std::memcpy(buffer.data() + offset, rest.data(), part);
    rest = rest.subspan(part);
}

}  // namespace

uint32_t write_lob(Database& database, std::span<const std::byte> bytes) {
    if (bytes.size() > std::numeric_limits<uint32_t>::max())
        throw error_bigobj(fmt::format("A large object of {} bytes is longer than 32 bits can tell",
                                       bytes.size()));
    Journal& journal = database.journal();
    // A block that was emptied must stay untouched for as long as a power cut can undo that.
    journal.make_commits_durable();
    Allocator& allocator = database.allocator();
    const uint32_t block_size = database.block_size();
    BlockBuffer buffer = database.pool().acquire();
    std::memset(buffer.data(), 0, block_size);
    util::store_be32(buffer.data() + layout::magic, layout::kFirstMagic);
    util::store_be32(buffer.data() + layout::version, layout::kVersion);
    util::store_be32(buffer.data() + layout::length, static_cast<uint32_t>(bytes.size()));
    const uint32_t first = take_block(allocator, 0);
    fill(buffer, layout::first_data, block_size, bytes);
    uint32_t block = bytes.empty() ? 0 : take_block(allocator, 0);
    util::store_be32(buffer.data() + layout::first_next, block);
    write_block(database, buffer, first);

    util::store_be32(buffer.data() + layout::magic, layout::kFurtherMagic);
    while (block != 0) {
        fill(buffer, layout::further_data, block_size, bytes);
        const uint32_t next = bytes.empty() ? 0 : take_block(allocator, block);
        util::store_be32(buffer.data() + layout::further_next, next);
        write_block(database, buffer, block);
        block = next;
    }
    journal.guarded([&] { database.store().sync_store(); });
    return first;
}

void read_lob(Database& database, uint32_t block, std::vector<std::byte>& out) {
    out.clear();
    ChainReader chain(database, block, kReading);
    for (;; chain.advance()) {
        const size_t part = std::min<size_t>(chain.data().size(), chain.length() - out.size());
        out.insert(out.end(), chain.data().begin(),
                   chain.data().begin() + static_cast<std::ptrdiff_t>(part));
        if (chain.at_end()) break;
        if (chain.in_ring() || out.size() >= chain.length())
            throw error_internal("read_lob: offset exceeds length");
    }
    if (out.size() != chain.length()) throw error_internal("read_lob: read count is wrong");
}

void free_lob(Database& database, uint32_t block) {
    Allocator& allocator = database.allocator();
    ChainReader chain(database, block, kFreeing);
    for (;; chain.advance()) {
        // Also the end of a chain that leads back into itself: what was freed has the mark no more.
        const mark_t mark = allocator.query_mark(chain.block());
        if (mark != mark_t::lob)
            throw error_internal(
                fmt::format("free_lob: block {} has mark {} and not that of a large object",
                            chain.block(), static_cast<unsigned>(mark)));
        allocator.set_mark(chain.block(), mark_t::empty);
        if (chain.at_end()) return;
    }
}

}  // namespace mdb
