#include "mdb/header_layout.h"

#include <bit>
#include <cstring>

#include "mdb/block_layout.h"
#include "mdb/errors.h"
#include "util/byte_order.h"

namespace mdb {

uint32_t Header::word(uint32_t offset) const {
    error::check(offset <= kSize - sizeof(uint32_t), "Header word {} lies outside the header",
                 offset);
    return util::load_be32(bytes_.data() + offset);
}

void Header::set_word(uint32_t offset, uint32_t value) {
    error::check(offset <= kSize - sizeof(uint32_t), "Header word {} lies outside the header",
                 offset);
    util::store_be32(bytes_.data() + offset, value);
}

void Header::verify() const {
    verify_identity();
    verify_layout();
}

void Header::verify_identity() const {
    if (word(header_layout::magic) != header_layout::kMagic)
        throw error_fubar("MDB file does not look like a Tarmik Meta Database");
    const uint32_t version = word(header_layout::version);
    if (version != header_layout::kVersion)
        throw error_unsupported(
            fmt::format("This version of Tarmik does not support version {} databases", version));
    if (!std::has_single_bit(block_size()))
        throw error_unsupported(
            fmt::format("Blocksize is {} bytes - but it must be a power of two", block_size()));
    if (block_size() < kSmallestBlockSize)
        throw error_unsupported(fmt::format("Blocksize is {} bytes - but it must be at least {}",
                                            block_size(), kSmallestBlockSize));
    if (journal_type() != header_layout::kJournalInFile &&
        journal_type() != header_layout::kJournalApart)
        throw error_unsupported("Unknown journal type");
}

void Header::verify_layout() const {
    const uint32_t start = layout_start();
    if (start > kSize - layout_area::roots)
        throw error_fubar(fmt::format("Layout area at {} lies outside the header", start));
    if (index_count() < layout_area::kSmallestIndexCount)
        throw error_fubar("Meta database does not have the two required indexes defined");
    if (index_count() > layout_area::kGreatestIndexCount)
        throw error_fubar(fmt::format("Meta database has {} indexes defined - but at most {} exist",
                                      index_count(), layout_area::kGreatestIndexCount));
    if (tail() > kSize - layout_area::kTailSize)
        throw error_fubar(fmt::format("Layout area at {} lies outside the header", start));
    if (map_start() == 0 || first_data_block() <= map_start())
        throw error_fubar(fmt::format("Allocation map of blocks {} to {} is impossible",
                                      map_start(), first_data_block()));
    if (uint64_t{first_data_block() - map_start()} * block_size() > uint64_t{1} << 32)
        throw error_fubar(
            fmt::format("Allocation map of {} blocks describes more than 32 bits can number",
                        first_data_block() - map_start()));
    verify_roots();
}

void Header::verify_roots() const {
    // The root of a new index is written into its block without a look at what stands there.
    for (uint32_t i = 0; i < index_count(); ++i) {
        const uint32_t root = index_root(i);
        bool possible = root != 0 && (root < map_start() || root >= first_data_block());
        for (uint32_t other = 0; other < i; ++other) possible &= index_root(other) != root;
        if (!possible)
            throw error_fubar(fmt::format("Block {} cannot be the root of index {}", root, i));
    }
}

uint32_t Header::block_size() const {
    return word(header_layout::block_size);
}
uint32_t Header::journal_type() const {
    return word(header_layout::journal_type);
}
uint32_t Header::journal_first_block() const {
    return word(header_layout::layout_offset);
}
uint32_t Header::journal_block_count() const {
    return word(header_layout::journal_place);
}

std::string Header::journal_path() const {
    const char* text = reinterpret_cast<const char*>(bytes_.data()) + header_layout::journal_place;
    return std::string(text, ::strnlen(text, kSize - header_layout::journal_place));
}

uint32_t Header::index_count() const {
    return word(layout(layout_area::index_count));
}

uint32_t Header::tail() const {
    return layout(layout_area::roots) + 4 * index_count();
}

uint32_t Header::index_root(uint32_t i) const {
    error::check(i < index_count(), "Root of index {} wanted, but there are {}", i, index_count());
    return word(index_root_offset(i));
}

uint32_t Header::index_root_offset(uint32_t i) const {
    return layout(layout_area::roots) + 4 * i;
}

uint32_t Header::map_start() const {
    return word(tail() + layout_area::map_start);
}
uint32_t Header::first_data_block() const {
    return word(tail() + layout_area::first_data_block);
}

void Header::set_tail(uint32_t start, uint32_t first_data) {
    set_word(tail() + layout_area::map_start, start);
    set_word(tail() + layout_area::first_data_block, first_data);
}

void Header::add_index(uint32_t root) {
    const uint32_t count = index_count();
    if (count >= layout_area::kGreatestIndexCount || tail() + 4 > kSize - layout_area::kTailSize)
        throw error_internal("No room for another index in the header");
    const uint32_t start = map_start();
    const uint32_t first_data = first_data_block();
    set_word(tail(), root);
    set_word(layout(layout_area::index_count), count + 1);
    set_tail(start, first_data);
    set_word(tail(), 0);
}

void Header::remove_index(uint32_t i) {
    const uint32_t count = index_count();
    if (i >= count) throw error_internal("Index not known - cannot drop");
    const uint32_t start = map_start();
    const uint32_t first_data = first_data_block();
    for (uint32_t above = i + 1; above < count; ++above)
        set_word(layout(layout_area::roots) + 4 * (above - 1), index_root(above));
    set_word(layout(layout_area::index_count), count - 1);
    set_tail(start, first_data);
    set_word(tail(), 0);
}

Header Header::make(const Blank& blank) {
    Header header;
    if (blank.layout_offset > kSize - layout_area::kGreatestSize)
        throw error_internal("Layout area doesn't fit in the header");
    if (header_layout::journal_place + blank.journal_path.size() + 1 > blank.layout_offset)
        throw error_internal(fmt::format("Path of the journal is longer than {} bytes",
                                         blank.layout_offset - header_layout::journal_place - 1));
    header.set_word(header_layout::magic, header_layout::kMagic);
    header.set_word(header_layout::version, header_layout::kVersion);
    header.set_word(header_layout::block_size, blank.block_size);
    header.set_word(header_layout::journal_type, header_layout::kJournalApart);
    header.set_word(header_layout::layout_offset, blank.layout_offset);
    std::memcpy(header.bytes_.data() + header_layout::journal_place, blank.journal_path.c_str(),
                blank.journal_path.size() + 1);
    const auto count = static_cast<uint32_t>(blank.roots.size());
    header.set_word(header.layout(layout_area::index_count), count);
    for (uint32_t i = 0; i < count; ++i)
        header.set_word(header.layout(layout_area::roots) + 4 * i, blank.roots[i]);
    header.set_tail(blank.map_start, blank.first_data_block);
    return header;
}

}  // namespace mdb
