// The check of the chains of large objects against the invariants of large_object_layout.h.
#include <algorithm>
#include <array>
#include <tuple>

#include "mdb/detail/verify_context.h"
#include "mdb/errors.h"
#include "mdb/large_object_layout.h"
#include "util/byte_order.h"

namespace mdb::detail {

namespace {

class Chains {
  public:
    explicit Chains(VerifyContext& context) : context_(context) {}

    void follow_from(uint32_t first) {
        const Head head = read(first);
        if (!head.readable || head.magic != lob_layout::kFirstMagic) return;
        ++context_.counts.large_objects;
        context_.counts.large_object_bytes += head.length;
        if (head.version != lob_layout::kVersion)
            context_.fault("B1", first, lob_layout::version, "large object has version {}",
                           head.version);
        const uint64_t wanted =
            lob_layout::block_count(head.length, context_.database.block_size());
        uint64_t blocks = 1;
        context_.set_owner(first, owner_large_object);
        block_handle_t link{first, lob_layout::first_next};
        for (uint32_t next = head.next; next != 0; ++blocks) {
            if (blocks == wanted) {
                context_.fault("B1", link.block, link.offset,
                               "large object at {} goes on at {} behind its {} bytes", first, next,
                               head.length);
                return;
            }
            if (!take(next, link)) return;
            const Head further = read(next);
            if (!further.readable) return;
            if (further.magic != lob_layout::kFurtherMagic) {
                context_.fault("B1", next, lob_layout::magic,
                               "block of the large object at {} has magic {:#x}", first,
                               further.magic);
                return;
            }
            link = {next, lob_layout::further_next};
            next = further.next;
        }
        if (blocks < wanted)
            context_.fault("B1", link.block, link.offset,
                           "large object at {} ends after {} blocks, its {} bytes need {}", first,
                           blocks, head.length, wanted);
    }

    /// Called when all chains have been followed.
    void check_left_over(uint32_t block) {
        if (context_.owner(block) == owner_large_object) return;
        context_.fault("B5", block, 0, "has the mark of a large object and belongs to none");
    }

  private:
    struct Head {
        bool readable = false;
        uint32_t magic = 0;
        uint32_t version = 0;
        uint32_t length = 0;
        uint32_t next = 0;
    };

    /// Straight from the file: large objects don't pass through the cache.
    Head read(uint32_t block) {
        std::array<std::byte, lob_layout::first_data> bytes;
        try {
            context_.database.store().byte_read(
                bytes.data(), context_.database.store().block_offset(block), bytes.size());
        } catch (const error_generic& failure) {
            context_.fault("C1", block, 0, "cannot be read: {}", failure.text());
            return {};
        }
        Head head;
        head.readable = true;
        head.magic = util::load_be32(&bytes[lob_layout::magic]);
        if (head.magic == lob_layout::kFirstMagic) {
            head.version = util::load_be32(&bytes[lob_layout::version]);
            head.length = util::load_be32(&bytes[lob_layout::length]);
            head.next = util::load_be32(&bytes[lob_layout::first_next]);
        } else {
            head.next = util::load_be32(&bytes[lob_layout::further_next]);
        }
        return head;
    }

    /// Makes `block`, named at `link`, a part of the chain if it can be one.
    bool take(uint32_t block, block_handle_t link) {
        if (!context_.known(block)) {
            context_.fault("B2", link.block, link.offset, "next block {} is not in the file",
                           block);
            return false;
        }
        if (context_.owner(block) == owner_large_object) {
            context_.fault("B3", link.block, link.offset,
                           "next block {} is part of a large object already", block);
            return false;
        }
        if (context_.mark(block) != mark_t::lob) {
            context_.fault("B2", link.block, link.offset, "next block {} has mark {}", block,
                           static_cast<unsigned>(context_.mark(block)));
            return false;
        }
        context_.set_owner(block, owner_large_object);
        return true;
    }

    VerifyContext& context_;
};

template <class Visit>
void for_each_large_object_block(VerifyContext& context, Visit&& visit) {
    for (uint64_t block = context.database.allocator().first_data_block();
         block < context.block_count() && !context.report.full(); ++block)
        if (const auto number = static_cast<uint32_t>(block);
            context.mark(number) == mark_t::lob && context.owner(number) != owner_journal)
            visit(number);
}

void check_references(VerifyContext& context, std::vector<LargeObjectReference>& references,
                      const std::vector<uint32_t>& firsts) {
    std::sort(references.begin(), references.end(), [](const auto& a, const auto& b) {
        return std::tie(a.first_block, a.from) < std::tie(b.first_block, b.from);
    });
    for (size_t i = 0; i < references.size(); ++i) {
        const auto& [block, from] = references[i];
        if (!std::binary_search(firsts.begin(), firsts.end(), block))
            context.fault("B6", from.block, from.offset,
                          "object names large object {}, which is none", block);
        if (i > 0 && references[i - 1].first_block == block)
            context.fault("B6", from.block, from.offset,
                          "object names large object {}, as another does", block);
    }
    for (const uint32_t first : firsts) {
        const auto found = std::lower_bound(
            references.begin(), references.end(), first,
            [](const LargeObjectReference& a, uint32_t block) { return a.first_block < block; });
        if (found == references.end() || found->first_block != first)
            context.fault("B6", first, 0, "large object is named by no object");
    }
}

}  // namespace

void verify_large_objects(VerifyContext& context, std::vector<LargeObjectReference>& references) {
    Chains chains(context);
    std::vector<uint32_t> firsts;
    for_each_large_object_block(context, [&](uint32_t block) {
        const uint64_t before = context.counts.large_objects;
        chains.follow_from(block);
        if (context.counts.large_objects != before) firsts.push_back(block);
        context.progress("large objects", block, context.block_count());
    });
    for_each_large_object_block(context, [&](uint32_t block) { chains.check_left_over(block); });
    if (!context.options.large_object_properties.empty())
        check_references(context, references, firsts);
}

}  // namespace mdb::detail
