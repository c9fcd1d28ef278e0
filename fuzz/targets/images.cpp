#include "targets/images.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "mdb/block_layout.h"
#include "mdb/header_layout.h"
#include "mdb/journal_layout.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace fuzz {

namespace {

namespace layout = mdb::journal_layout;

constexpr uint32_t kMostChanges = 16;
/// Where `format` puts the map of the images.
constexpr uint32_t kMapBlock = 3;
/// Files are not made longer than this.
constexpr size_t kLongestFile = 256 * 1024;

enum class change_t : uint8_t {
    database_bytes,
    block_bytes,
    journal_bytes,
    mark,
    copy_block,
    header_word,
    resize,
    transaction,
    word,
    kCount
};

std::vector<std::byte> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("Cannot read " + path);
    const std::vector<char> text{std::istreambuf_iterator<char>(in), {}};
    std::vector<std::byte> bytes(text.size());
    if (!text.empty()) std::memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

void put_bytes(std::vector<std::byte>& file, size_t offset, std::span<const uint8_t> bytes) {
    for (const uint8_t byte : bytes) {
        if (offset >= file.size()) return;
        file[offset++] = std::byte{byte};
    }
}

bool has_word(const std::vector<std::byte>& file, size_t offset) {
    return offset <= file.size() && file.size() - offset >= sizeof(uint32_t);
}

void put_word(std::vector<std::byte>& file, size_t offset, uint32_t value) {
    if (has_word(file, offset)) util::store_be32(&file[offset], value);
}

/// 0 where the file ends.
uint32_t word_at(const std::vector<std::byte>& file, size_t offset) {
    return has_word(file, offset) ? util::load_be32(&file[offset]) : 0;
}

uint32_t crc_of(const std::vector<std::byte>& file, size_t offset, size_t length) {
    security::Crc32 crc;
    crc.update(length, &file[offset]);
    return crc.value();
}

size_t index_entry(uint32_t number) {
    return layout::index_entries + number * layout::kIndexEntrySize;
}

/// Index entry with the higher serial.
uint32_t newest_entry(const std::vector<std::byte>& journal) {
    const auto serial = [&](uint32_t i) {
        return util::load_be64(&journal[index_entry(i) + layout::index_serial]);
    };
    return serial(1) > serial(0) ? 1 : 0;
}

/// Position behind the updates of the transaction at `position`: its end entry, if it has one.
size_t end_of_updates(const std::vector<std::byte>& journal, size_t position) {
    size_t at = position + layout::kBeginSize;
    while (word_at(journal, at) == layout::kUpdate) {
        const uint64_t size = layout::update_size(word_at(journal, at + layout::update_length));
        if (size > journal.size() - at) break;
        at += static_cast<size_t>(size);
    }
    return at;
}

/// Calls `take` with begin and end entry of every transaction that a start would look at.
template <class Take>
size_t walk_log(std::vector<std::byte>& journal, Take&& take) {
    if (journal.size() < layout::kFirstHalf) return journal.size();
    size_t at = word_at(journal, index_entry(newest_entry(journal)) + layout::index_position);
    for (int redirections = 0;;) {
        if (word_at(journal, at) == layout::kRedirect && redirections++ < 2) {
            at = word_at(journal, at + layout::redirect_target);
            continue;
        }
        if (word_at(journal, at) != layout::kBegin) return at;
        const size_t end = end_of_updates(journal, at);
        if (word_at(journal, end) != layout::kEnd || end + layout::kEndSize > journal.size())
            return at;
        take(at, end);
        at = end + layout::kEndSize;
    }
}

/// A transaction of one update behind the last one of the log.
void append_transaction(std::vector<std::byte>& journal, uint64_t offset,
                        std::span<const uint8_t> bytes) {
    const size_t at = walk_log(journal, [](size_t, size_t) {});
    const size_t size = layout::kBeginSize + static_cast<size_t>(layout::update_size(bytes.size()));
    if (at > journal.size() || journal.size() - at < size + layout::kEndSize) return;
    std::byte* entry = &journal[at];
    const size_t newest = index_entry(newest_entry(journal));
    util::store_be32(entry, layout::kBegin);
    std::memcpy(entry + layout::begin_serial, &journal[newest + layout::index_serial],
                sizeof(uint64_t));
    std::byte* update = entry + layout::kBeginSize;
    util::store_be32(update, layout::kUpdate);
    util::store_be32(update + layout::update_length, static_cast<uint32_t>(bytes.size()));
    util::store_be64(update + layout::update_offset, offset);
    util::store_be32(update + layout::update_zero, 0);
    if (!bytes.empty()) std::memcpy(update + layout::update_data, bytes.data(), bytes.size());
    util::store_be32(entry + size, layout::kEnd);
    util::store_be32(entry + size + layout::end_crc, crc_of(journal, at, size));
}

size_t block_offset(uint32_t block, uint32_t offset) {
    return size_t{block} * kImageBlockSize + offset;
}

void copy_block(std::vector<std::byte>& database, uint32_t from, uint32_t to) {
    const size_t source = block_offset(from, 0);
    const size_t target = block_offset(to, 0);
    if (std::max(source, target) + kImageBlockSize > database.size()) return;
    std::memmove(&database[target], &database[source], kImageBlockSize);
}

void apply_change(Input& input, Image& image) {
    switch (static_cast<change_t>(input.byte() % static_cast<uint8_t>(change_t::kCount))) {
        case change_t::database_bytes: {
            const uint32_t offset = input.number(3);
            return put_bytes(image.database, offset, input.bytes(input.byte() % 32));
        }
        case change_t::block_bytes: {
            const uint32_t block = input.byte();
            const uint32_t offset = input.number(2) % kImageBlockSize;
            return put_bytes(image.database, block_offset(block, offset),
                             input.bytes(input.byte() % 32));
        }
        case change_t::journal_bytes: {
            const uint32_t offset = input.number(2);
            return put_bytes(image.journal, offset, input.bytes(input.byte() % 32));
        }
        case change_t::mark: {
            const uint32_t block = input.number(2) % kImageBlockSize;
            const uint8_t mark = input.byte();
            return put_bytes(image.database, block_offset(kMapBlock, block), {&mark, 1});
        }
        case change_t::copy_block: {
            const uint32_t from = input.byte();
            return copy_block(image.database, from, input.byte());
        }
        case change_t::header_word: {
            const uint32_t word = input.byte();
            return put_word(image.database, size_t{word} * 4, input.number(4));
        }
        case change_t::resize: {
            std::vector<std::byte>& file = input.byte() % 2 == 0 ? image.database : image.journal;
            return file.resize(std::min<size_t>(input.number(3), kLongestFile));
        }
        case change_t::transaction: {
            const uint32_t block = input.number(2);
            const uint32_t offset = input.number(2) % kImageBlockSize;
            return append_transaction(image.journal, uint64_t{block} * kImageBlockSize + offset,
                                      input.bytes(input.byte()));
        }
        case change_t::word: {
            // Small numbers in aligned words: links, counts, blocks.
            const uint32_t block = input.byte();
            const uint32_t word = input.byte();
            return put_word(image.database, block_offset(block, word * 4), input.byte());
        }
        case change_t::kCount:
            break;
    }
}

}  // namespace

Image load_image(const std::string& folder, const std::string& name) {
    const std::string path = folder + "/images/" + name;
    Image image{read_file(path + ".db"), read_file(path + ".journal")};
    if (image.database.size() < mdb::Header::kSize || image.journal.size() < layout::kFirstHalf)
        throw std::runtime_error(path + " is no image of a database");
    return image;
}

void apply_changes(Input& input, Image& image) {
    for (uint32_t left = input.byte() % (kMostChanges + 1); left > 0; --left)
        apply_change(input, image);
}

void repair_checksums(Image& image) {
    std::vector<std::byte>& journal = image.journal;
    if (journal.size() < layout::kFirstHalf) return;
    for (uint32_t i = 0; i < 2; ++i)
        put_word(journal, index_entry(i) + layout::index_crc,
                 crc_of(journal, index_entry(i), layout::index_crc));
    walk_log(journal, [&](size_t begin, size_t end) {
        put_word(journal, end + layout::end_crc, crc_of(journal, begin, end - begin));
    });
}

}  // namespace fuzz
