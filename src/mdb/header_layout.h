// The layout of block 0 of the database file: the header and, inside it, the layout area that says
// where the index roots and the allocation map are. All numbers are big-endian.
//
//   header    width  field
//   0         4      magic "TMDB"
//   4         4      format version, 1
//   8         4      block size in bytes, a power of two, at least 1024
//   12        4      journal type: 1 a region of this file, 2 a file of its own
//   16        4      layout offset L: where in these 1024 bytes the layout area begins. The first
//                    block of the journal is the same word with journal type 1
//   20        ...    journal type 1: one word, length of the journal in blocks
//                    journal type 2: path of the journal, ended by a NUL; used when none is
//                    configured
//
//   layout    width  field
//   L+0       20     reserved
//   L+20      4      n, the number of indexes, 2 to 6
//   L+24+4i   4      block of the root of index i, i < n
//   L+24+4n   4      spare: the root of the next index goes here
//   L+28+4n   4      map start: first block of the allocation map
//   L+32+4n   4      first data block: one past the map, the first block that may be handed out
//
// A file of 4096-byte blocks with two indexes rooted at blocks 2 and 3, a map of one block, its
// layout area at 512 and its journal in "j":
//   000: 54 4D 44 42  00 00 00 01  00 00 10 00  00 00 00 02  00 00 02 00  6A 00 ...
//   214: 00 00 00 02  00 00 00 02  00 00 00 03  00 00 00 00  00 00 00 01  00 00 00 02
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace mdb {

namespace header_layout {
inline constexpr uint32_t kMagic = 0x544D4442;  // "TMDB"
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kSize = 1024;
inline constexpr uint32_t kJournalInFile = 1;
inline constexpr uint32_t kJournalApart = 2;

inline constexpr uint32_t magic = 0;
inline constexpr uint32_t version = 4;
inline constexpr uint32_t block_size = 8;
inline constexpr uint32_t journal_type = 12;
inline constexpr uint32_t layout_offset = 16;
inline constexpr uint32_t journal_place = 20;
static_assert(journal_place == layout_offset + sizeof(uint32_t));
}  // namespace header_layout

namespace layout_area {
inline constexpr uint32_t index_count = 20;
inline constexpr uint32_t roots = 24;
/// Behind the roots, counted from the first byte after them.
inline constexpr uint32_t map_start = 4;
inline constexpr uint32_t first_data_block = 8;
inline constexpr uint32_t kTailSize = 12;
inline constexpr uint32_t kSmallestIndexCount = 2;
inline constexpr uint32_t kGreatestIndexCount = 6;
/// Length of the area with the greatest number of indexes.
inline constexpr uint32_t kGreatestSize = roots + 4 * kGreatestIndexCount + kTailSize;
static_assert(kGreatestSize == 60);
}  // namespace layout_area

/// The 1024 bytes of the header, with its fields by name. It is a value: changing it changes no
/// file; see Database::write_header().
class Header {
  public:
    static constexpr uint32_t kSize = header_layout::kSize;

    /// All zero: what an empty file would read as.
    Header() = default;

    [[nodiscard]] std::byte* data() noexcept { return bytes_.data(); }
    [[nodiscard]] const std::byte* data() const noexcept { return bytes_.data(); }

    /// Throws error_fubar, error_unsupported with what is wrong: magic, version, block size,
    /// journal type, a layout area that isn't inside the header, fewer than two indexes or more
    /// than six, a map or a root at an impossible place.
    void verify() const;
    /// The part of verify() that doesn't look at the layout area: what is known before a replay,
    /// which may still have to mend the area.
    void verify_identity() const;

    [[nodiscard]] uint32_t block_size() const;
    [[nodiscard]] uint32_t journal_type() const;
    /// Journal type 1: first block and length in blocks of the journal.
    [[nodiscard]] uint32_t journal_first_block() const;
    [[nodiscard]] uint32_t journal_block_count() const;
    /// Journal type 2: path of the journal; the text ends with the header at the latest.
    [[nodiscard]] std::string journal_path() const;

    [[nodiscard]] uint32_t index_count() const;
    /// Block of the root of index `i`, which must be below index_count().
    [[nodiscard]] uint32_t index_root(uint32_t i) const;
    /// Where in the header that number stands.
    [[nodiscard]] uint32_t index_root_offset(uint32_t i) const;
    [[nodiscard]] uint32_t map_start() const;
    [[nodiscard]] uint32_t first_data_block() const;

    /// Appends an index with its root at `root`: the tail of the layout area moves up by one word.
    /// Throws error_internal when there are six already.
    void add_index(uint32_t root);
    /// Takes index `i` out: the roots above it and the tail move down by one word.
    void remove_index(uint32_t i);

    /// What a new database needs to know about itself.
    struct Blank {
        uint32_t block_size = 4096;
        std::string journal_path;
        uint32_t layout_offset = 512;
        std::array<uint32_t, 2> roots{};
        uint32_t map_start = 0;
        uint32_t first_data_block = 0;
    };
    /// The header of a new database with a journal in a file of its own. Throws error_internal when
    /// the path doesn't fit in front of the layout area.
    [[nodiscard]] static Header make(const Blank& blank);

  private:
    [[nodiscard]] uint32_t word(uint32_t offset) const;
    void set_word(uint32_t offset, uint32_t value);
    void set_tail(uint32_t start, uint32_t first_data);
    void verify_layout() const;
    void verify_roots() const;
    [[nodiscard]] uint32_t layout(uint32_t offset) const { return layout_start() + offset; }
    [[nodiscard]] uint32_t layout_start() const { return word(header_layout::layout_offset); }
    /// Offset of the first byte behind the roots.
    [[nodiscard]] uint32_t tail() const;

    std::array<std::byte, header_layout::kSize> bytes_{};
};

}  // namespace mdb
