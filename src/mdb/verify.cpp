// The verification as a whole, its header and its map.
#include "mdb/verify.h"

#include <algorithm>
#include <cstring>

#include "mdb/detail/verify_context.h"
#include "mdb/errors.h"

namespace mdb {

namespace detail {

namespace {

/// Blocks that a file of this database can have and the map can tell of.
uint64_t blocks_in_reach(Database& database) {
    const uint64_t in_file = database.store().file_length() / database.block_size();
    const uint64_t in_map = uint64_t{database.allocator().map_blocks()} * database.block_size();
    return std::min(in_file, in_map);
}

void own_range(VerifyContext& context, uint64_t begin, uint64_t end, owner_t owner) {
    for (uint64_t block = begin; block < std::min(end, context.block_count()); ++block)
        context.set_owner(static_cast<uint32_t>(block), owner);
}

}  // namespace

VerifyContext::VerifyContext(Database& from, const VerifyOptions& how)
    : database(from), options(how), report(how.most_faults), blocks_(blocks_in_reach(from)) {
    counts.blocks_in_file = from.store().file_length() / from.block_size();
    counts.index_count = from.header().index_count();
}

std::span<const std::byte> VerifyContext::read(uint32_t block) {
    const uint32_t size = database.block_size();
    try {
        if (const std::byte* cached = database.cache().peek(block); cached != nullptr)
            check_cached(block, cached);
        return {database.cache().cached_block(block), size};
    } catch (const error_generic& failure) {
        fault("C1", block, 0, "cannot be read: {}", failure.text());
        return {};
    }
}

void VerifyContext::check_cached(uint32_t block, const std::byte* cached) {
    scratch_.resize(database.block_size());
    database.store().block_read(scratch_.data(), block, 1);
    database.journal().overlay_unwritten(scratch_.data(), scratch_.size(),
                                         database.store().block_offset(block));
    const auto [here, there] =
        std::mismatch(scratch_.begin(), scratch_.end(), cached, cached + scratch_.size());
    if (here != scratch_.end())
        fault("C1", block, static_cast<uint32_t>(here - scratch_.begin()),
              "has byte {:#04x} in the cache but {:#04x} in file and journal",
              std::to_integer<int>(*there), std::to_integer<int>(*here));
}

void verify_header(VerifyContext& context) {
    Database& database = context.database;
    const Header& header = database.header();
    own_range(context, 0, 1, owner_header);
    own_range(context, header.map_start(), header.first_data_block(), owner_map);
    if (header.journal_type() == header_layout::kJournalInFile)
        own_range(context, header.journal_first_block(),
                  uint64_t{header.journal_first_block()} + header.journal_block_count(),
                  owner_journal);
    const std::span<const std::byte> bytes = context.read(0);
    if (bytes.empty()) return;
    const auto [here, there] =
        std::mismatch(bytes.begin(), bytes.begin() + Header::kSize, header.data());
    if (here != bytes.begin() + Header::kSize)
        context.fault("H2", 0, static_cast<uint32_t>(here - bytes.begin()),
                      "the header has byte {:#04x} in memory but {:#04x} in the file",
                      std::to_integer<int>(*there), std::to_integer<int>(*here));
    for (uint32_t n = 0; n < header.index_count(); ++n)
        if (const uint32_t root = header.index_root(n);
            root / database.block_size() >= database.allocator().map_blocks())
            context.fault("H3", 0, header.index_root_offset(n),
                          "the root of index {} is block {}, of which the map knows nothing", n,
                          root);
}

namespace {

void check_mark(VerifyContext& context, uint32_t map_block, uint32_t at, uint64_t block,
                uint8_t byte) {
    if (!is_mark(byte)) {
        context.fault("M1", map_block, at, "block {} has mark {}", block, byte);
        return;
    }
    const auto mark = static_cast<mark_t>(byte);
    if (block >= context.block_count()) {
        if (mark != mark_t::empty)
            context.fault("O4", map_block, at, "block {} has mark {} and is not in the file", block,
                          byte);
        return;
    }
    context.set_mark(static_cast<uint32_t>(block), mark);
    ++context.counts.marks[byte];
}

void compare_with_memory(VerifyContext& context, uint32_t map_block, uint64_t first,
                         std::span<const std::byte> marks, std::span<const uint8_t> resident) {
    if (std::memcmp(marks.data(), resident.data(), marks.size()) == 0) return;
    for (uint32_t at = 0; at < marks.size(); ++at)
        if (const auto byte = std::to_integer<uint8_t>(marks[at]); resident[at] != byte)
            context.fault("M2", map_block, at, "block {} has mark {} in memory but {} in the file",
                          first + at, resident[at], byte);
}

}  // namespace

void verify_map(VerifyContext& context) {
    Allocator& allocator = context.database.allocator();
    const uint64_t block_size = context.database.block_size();
    for (uint32_t i = 0; i < allocator.map_blocks() && !context.report.full(); ++i) {
        const uint32_t map_block = allocator.map_start() + i;
        const std::span<const std::byte> marks = context.read(map_block);
        if (marks.empty()) continue;
        const uint64_t first = i * block_size;
        compare_with_memory(context, map_block, first, marks, allocator.resident_marks(i));
        for (uint32_t at = 0; at < block_size; ++at)
            if (marks[at] != std::byte{0})
                check_mark(context, map_block, at, first + at, std::to_integer<uint8_t>(marks[at]));
        context.progress("map", first, allocator.map_blocks() * block_size);
    }
    for (uint64_t block = allocator.first_data_block(); block < context.block_count(); ++block)
        if (context.mark(static_cast<uint32_t>(block)) == mark_t::empty) ++context.counts.marks[0];
}

namespace {

bool is_index_mark(mark_t mark) {
    return mark == mark_t::root_index || mark == mark_t::non_root_index || mark == mark_t::leaf;
}

void verify_owner(VerifyContext& context, uint32_t block) {
    const mark_t mark = context.mark(block);
    const uint8_t owner = context.owner(block);
    const bool reserved = owner == owner_header || owner == owner_map || owner == owner_journal;
    const bool data = block >= context.database.allocator().first_data_block();
    // Only a journal can lie among the data, and only marks that nobody takes keep others out.
    if (reserved && data && (mark == mark_t::empty || mark == mark_t::used || mark == mark_t::full))
        context.fault("M4", block, 0, "has mark {} and belongs to the journal",
                      static_cast<unsigned>(mark));
    if (reserved || !data || !is_index_mark(mark) || owner >= owner_tree) return;
    ++context.counts.lost_index_blocks;
    if (!context.options.lost_index_blocks)
        context.fault("M3", block, 0, "has mark {} and belongs to no index",
                      static_cast<unsigned>(mark));
}

}  // namespace

void verify_owners(VerifyContext& context) {
    for (uint64_t block = 0; block < context.block_count() && !context.report.full(); ++block)
        verify_owner(context, static_cast<uint32_t>(block));
}

}  // namespace detail

namespace {

Verification finish(detail::VerifyContext& context) {
    return {context.counts, std::move(context.report.faults()), context.report.count()};
}

void check_committed(Database& database) {
    if (database.journal().transaction_active())
        throw error_internal("Verification attempted with an open transaction");
}

}  // namespace

Verification verify(Database& database, const VerifyOptions& options) {
    check_committed(database);
    detail::VerifyContext context(database, options);
    detail::WantedEntries wanted;
    std::vector<detail::LargeObjectReference> references;

    detail::verify_header(context);
    detail::verify_map(context);
    detail::verify_object_blocks(context, wanted, references);
    for (uint32_t n = 0; n < context.counts.index_count && !context.report.full(); ++n)
        detail::verify_tree(context, n, options.compare_objects ? &wanted[n] : nullptr);
    detail::verify_large_objects(context, references);
    detail::verify_owners(context);
    for (ObjectCheck* check : options.checks) check->finish(context.report);
    return finish(context);
}

Verification verify_index(Database& database, uint32_t n, const VerifyOptions& options) {
    check_committed(database);
    detail::VerifyContext context(database, options);
    detail::verify_header(context);
    detail::verify_map(context);
    detail::verify_tree(context, n, nullptr);
    return finish(context);
}

std::string Fault::to_string() const {
    if (rule == "J") return fmt::format("journal offset {}: J {}", offset, text);
    return fmt::format("block {} offset {}: {} {}", block, offset, rule, text);
}

std::string Verification::text() const {
    std::string lines;
    for (const Fault& fault : faults) lines += fault.to_string() + "\n";
    if (fault_count > faults.size())
        lines += fmt::format("{} more faults\n", fault_count - faults.size());
    return lines;
}

}  // namespace mdb
