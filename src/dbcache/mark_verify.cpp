#include "dbcache/mark_verify.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "dbcache/detail/mark_list_check.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/stored_tree.h"
#include "log/log.h"
#include "mdb/index.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbms_conversion"};

using detail::MarkedObject;
using detail::MarkListCheck;

constexpr std::array kMarks = {prop::activeMark, prop::inheritsMark};
/// Objects between two lines that tell how far the verification is.
constexpr uint64_t kProgressStep = 50'000;

// ---- in a running server -----------------------------------------------------------------------

class ObjectsInStore final : public detail::MarkedObjects {
  public:
    explicit ObjectsInStore(const Store::Parts& parts) : tree_(parts) {}

    std::optional<MarkedObject> find(const NodeId& id, uint32_t mark) override {
        const auto place = tree_.find(id);
        if (!place) return std::nullopt;
        return detail::read_marked_object(tree_.load(*place), mark);
    }
    [[nodiscard]] NodeId id_at(mdb::block_handle_t place) { return id_of(tree_.load(place)); }

  private:
    StoredTree tree_;
};

// ---- in the verification of a database ---------------------------------------------------------

class MarkCheck final : public mdb::ObjectCheck, private detail::MarkedObjects {
  public:
    void see(const mdb::dobj& object, mdb::FaultReport& report) override {
        try {
            const auto id = find_value<mdb::PropertyNodeId>(object, prop::id);
            if (!id) return;
            Entry entry{*id, {}, object.handle(), {}};
            for (size_t i = 0; i < kMarks.size(); ++i) {
                const MarkedObject read = detail::read_marked_object(object, kMarks[i]);
                entry.parent = read.parent;
                entry.lists[i] = {read.role, keep(read.should), add_links(read.links)};
            }
            objects_.push_back(entry);
            if (*id == kSequenceId)
                format_ = find_value<mdb::PropertyUint32>(object, sequence_property::format)
                              .value_or(format_);
        } catch (const mdb::error_generic& failure) {
            report.add("K1", object.block, object.offset, "object: " + failure.text());
        }
    }

    void finish(mdb::FaultReport& report) override {
        if (format_ < kFormatWithMarks) return;
        std::sort(objects_.begin(), objects_.end(),
                  [](const Entry& a, const Entry& b) { return a.id < b.id; });
        for (size_t i = 0; i < kMarks.size(); ++i) check_list(i, report);
    }

  private:
    enum class answer_t : uint8_t { unknown, no, yes };
    static constexpr uint32_t kNoLinks = 0xFFFFFFFF;

    /// What an object is to one list.
    struct Membership {
        detail::mark_role_t role = detail::mark_role_t::outside;
        answer_t should = answer_t::unknown;
        uint32_t links = kNoLinks;
    };
    struct Entry {
        NodeId id;
        NodeId parent;
        mdb::block_handle_t place;
        std::array<Membership, kMarks.size()> lists;
    };

    void check_list(size_t list, mdb::FaultReport& report) {
        const auto root = find(kRootId, kMarks[list]);
        const bool missing = !root || !root->links;
        bool told = false;
        const auto tell = [&](const NodeId& object, const std::string& text) {
            if (missing && told) return;
            told = true;
            const Entry* entry = find_entry(object);
            const auto place = entry ? entry->place : mdb::block_handle_t{};
            report.add(fmt::format("K{}", list + 1), place.block, place.offset,
                       (missing ? "The list is missing: " : "") + text);
        };
        MarkListCheck check(*this, kMarks[list], tell);
        check.follow_list();
        for (const Entry& entry : objects_) {
            if (missing && told) return;
            check.expect(entry.id);
            check.expect_no_stray(entry.id);
        }
    }

    static answer_t keep(std::optional<bool> answer) {
        if (!answer) return answer_t::unknown;
        return *answer ? answer_t::yes : answer_t::no;
    }
    uint32_t add_links(const std::optional<mdb::MarkLinks>& links) {
        if (!links) return kNoLinks;
        links_.push_back(*links);
        return static_cast<uint32_t>(links_.size() - 1);
    }

    [[nodiscard]] const Entry* find_entry(const NodeId& id) const {
        const auto found = std::lower_bound(
            objects_.begin(), objects_.end(), id,
            [](const Entry& entry, const NodeId& wanted) { return entry.id < wanted; });
        return found == objects_.end() || found->id != id ? nullptr : &*found;
    }

    std::optional<MarkedObject> find(const NodeId& id, uint32_t mark) override {
        const Entry* entry = find_entry(id);
        if (entry == nullptr) return std::nullopt;
        const Membership& list = entry->lists[mark == kMarks[0] ? 0 : 1];
        MarkedObject object{entry->parent, list.role, {}, {}};
        if (list.should != answer_t::unknown) object.should = list.should == answer_t::yes;
        if (list.links != kNoLinks) object.links = links_[list.links];
        return object;
    }

    std::vector<Entry> objects_;
    std::vector<mdb::MarkLinks> links_;
    uint32_t format_ = kFormatWithMarks;
};

}  // namespace

void verify_mark_lists(const Store::Parts& parts) {
    ObjectsInStore objects(parts);
    const auto stop = [](const NodeId&, const std::string& text) { throw error::EFatal(text); };
    std::array checks{MarkListCheck(objects, kMarks[0], stop),
                      MarkListCheck(objects, kMarks[1], stop)};
    for (MarkListCheck& check : checks) check.follow_list();

    uint64_t seen = 0;
    const auto tell = [&] {
        logger.info("{}: activeMark {}+{}, inheritsMark {}+{}", seen, checks[0].marked(),
                    checks[0].ancestors(), checks[1].marked(), checks[1].ancestors());
    };
    mdb::IndexTable& indexes = parts.indexes;
    for (mdb::IndexIterator it = indexes.iterate_first(mdb::active_parent_index); it.valid();
         indexes.iterator_next(it)) {
        const NodeId id = objects.id_at(indexes.iterator_value(it));
        for (MarkListCheck& check : checks) check.expect(id);
        if (++seen % kProgressStep == 0) tell();
    }
    tell();
}

std::unique_ptr<mdb::ObjectCheck> make_mark_check() {
    return std::make_unique<MarkCheck>();
}

}  // namespace dbcache
