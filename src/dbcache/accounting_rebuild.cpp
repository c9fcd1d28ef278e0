#include "dbcache/accounting_rebuild.h"

#include <algorithm>
#include <fmt/format.h>
#include <vector>

#include "dbcache/detail/accounting_walk.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/stored_tree.h"
#include "log/log.h"
#include "mdb/errors.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbcache"};

/// The counters of the root by which a start tells whether they were ever worked out.
constexpr uint32_t kTellingCounters[] = {prop::countNetChecks, prop::countAgentLimitNodes,
                                         prop::countEsxiNodes, prop::countEsxiChecks};

bool lacks_counters(const CountedObject& root) {
    return !std::all_of(std::begin(kTellingCounters), std::end(kTellingCounters),
                        [&](uint32_t number) { return root.stored.contains(number); });
}

CountedObject read_root(StoredTree& tree) {
    std::optional<CountedObject> root = read_counted_object(tree.load(kRootId));
    if (!root || root->nodetype != nodetype::Domain)
        throw mdb::error_need_repair(fmt::format("The root object {} is no domain", kRootId));
    return *std::move(root);
}

/// The walk may change the objects that it has been to, so the places come before the visits.
AccountingWalk::Children stored_children(StoredTree& tree) {
    return [&tree](const NodeId& parent, const AccountingWalk::Visit& visit) {
        for (const mdb::block_handle_t place : tree.children(parent))
            if (const auto child = read_counted_object(tree.load(place))) visit(*child);
    };
}

void store_counters(StoredTree& tree, const CountedObject& object, const Counters& counted) {
    std::vector<mdb::PropertyCount> counters;
    for (const auto& [number, count] : counted) counters.emplace_back(number, count);
    std::vector<const mdb::Property*> properties;
    for (const mdb::PropertyCount& counter : counters) properties.push_back(&counter);
    static_cast<void>(tree.rewrite(object.place, properties));
}

/// The counters that are wrong; empty when all is well.
std::string differences(const CountedObject& object, const Counters& counted) {
    std::string text;
    for (const auto& [number, count] : counted)
        if (const uint32_t stored = stored_counter(object, number); stored != count)
            text += fmt::format("{}{} is {}, not {}", text.empty() ? "" : ", ",
                                tql::property_name(number), stored, count);
    return text;
}

std::string error_text(std::string_view kind, const CountedObject& object) {
    return fmt::format("Accounting error in {} {}", kind, object.to_string());
}

}  // namespace

bool accounting_is_missing(const Store::Parts& parts) {
    StoredTree tree(parts);
    return lacks_counters(read_root(tree));
}

void rebuild_accounting(const Store::Parts& parts) {
    StoredTree tree(parts);
    AccountingWalk walk(stored_children(tree), [&](std::string_view, const CountedObject& object,
                                                   const Counters& counted) {
        const bool domain = object.nodetype == nodetype::Domain;
        if (domain || !differences(object, counted).empty()) store_counters(tree, object, counted);
    });
    walk.run(read_root(tree));
}

void ensure_accounting(const Store::Parts& parts) {
    if (!accounting_is_missing(parts)) return;
    logger.info("Missing accounting information, inferring...");
    rebuild_accounting(parts);
    logger.info("Done inferring accounting information");
}

void verify_accounting(const Store::Parts& parts) {
    StoredTree tree(parts);
    AccountingWalk walk(
        stored_children(tree),
        [](std::string_view kind, const CountedObject& object, const Counters& counted) {
            if (!differences(object, counted).empty()) throw VerifyError(error_text(kind, object));
        });
    walk.run(read_root(tree));
}

// ---- of files ----------------------------------------------------------------------------------

namespace {

class AccountingCheck final : public mdb::ObjectCheck {
  public:
    void see(const mdb::dobj& object, mdb::FaultReport& report) override {
        try {
            if (auto counted = read_counted_object(object)) objects_.push_back(*std::move(counted));
        } catch (const mdb::error_generic& fault) {
            add(report, object.handle(), fault.text());
        }
    }

    void finish(mdb::FaultReport& report) override {
        std::sort(objects_.begin(), objects_.end(),
                  [](const auto& a, const auto& b) { return a.parent < b.parent; });
        const auto root = std::find_if(objects_.begin(), objects_.end(),
                                       [](const auto& one) { return one.id == kRootId; });
        if (root == objects_.end() || lacks_counters(*root)) return;
        try {
            walk(report).run(*root);
        } catch (const mdb::error_generic& fault) {
            add(report, root->place, fault.text());
        }
    }

  private:
    static void add(mdb::FaultReport& report, mdb::block_handle_t place, std::string text) {
        report.add("A1", place.block, place.offset, std::move(text));
    }

    AccountingWalk walk(mdb::FaultReport& report) {
        return {
            [this](const NodeId& parent, const AccountingWalk::Visit& visit) {
                const auto [begin, end] =
                    std::equal_range(objects_.begin(), objects_.end(), parent, ByParent{});
                std::for_each(begin, end, visit);
            },
            [&report](std::string_view kind, const CountedObject& object, const Counters& counted) {
                if (const std::string wrong = differences(object, counted); !wrong.empty())
                    add(report, object.place, error_text(kind, object) + ": " + wrong);
            }};
    }

    struct ByParent {
        bool operator()(const CountedObject& a, const NodeId& b) const { return a.parent < b; }
        bool operator()(const NodeId& a, const CountedObject& b) const { return a < b.parent; }
    };

    /// Sorted by parent once all are seen.
    std::vector<CountedObject> objects_;
};

}  // namespace

std::unique_ptr<mdb::ObjectCheck> make_accounting_check() {
    return std::make_unique<AccountingCheck>();
}

}  // namespace dbcache
