#include "query/patches.h"

#include <fmt/format.h>
#include <functional>
#include <map>
#include <stdexcept>

#include "common/folder.h"
#include "query/answer_wire.h"
#include "query/processor_time.h"
#include "query/tree.h"
#include "queues/event.h"
#include "queues/records/dbms_tql.h"
#include "tql/names.h"
#include "tql/query_text.h"
#include "tqlengine/requests.h"

namespace bench {

namespace {

constexpr const char* kWanted = "[name, label, infoUrl, active, order, snmpPort]";
constexpr uint32_t kPatchable = 16;
/// So many of the watched subscriptions see each write.
constexpr uint32_t kMatching = 10;
constexpr double kMicro = 1e6;

class PatchRun {
  public:
    PatchRun(const std::string& folder, const PatchSizes& sizes)
        : sizes_(sizes), tree_(folder, {.regions = sizes.small_tree ? 1U : 10U}) {}

    Figures run() {
        const NodeId site = tree_.sites.front();
        writes("write_alone", 0);

        subscribe(site, ".*");
        patches("patch_one", 1, sizes_.writes);
        while (requests_.size() < sizes_.subscribers) subscribe(site, ".*");
        patches("patch_many", sizes_.subscribers, sizes_.patches / sizes_.subscribers);
        while (!requests_.empty()) forget(requests_.rbegin()->first);

        for (uint32_t i = 0; i < kMatching; ++i) subscribe(site, ".*");
        while (requests_.size() < sizes_.watched) watch_elsewhere();
        writes("write_watched", kMatching);
        while (requests_.size() > kMatching) forget(requests_.rbegin()->first);
        watch_by_name();
        writes("write_named", kMatching);
        return figures_;
    }

  private:
    dbms::Tql_Select_Data& subscribe(const NodeId& root, const std::string& steps) {
        const uint32_t number = ++last_;
        dbms::Tql_Select_Data& request = requests_[number];
        request.root_ids.push_back(tql::id_t::from_node_id(root));
        request.pattern = tql::parse_pattern(steps + kWanted);
        request.flags = tqlengine::kSelectSubscribe | kPatchable;
        tqlengine::RequestContext context = tree_.world.reading();
        tqlengine::SelectReport report;
        if (process_select(request, context, report, number).status != 0)
            throw std::runtime_error("a subscription failed");
        return request;
    }

    /// What people look at: mostly single checks, the checks of a node, a domain now and then; none
    /// of it in the site that is written to.
    void watch_elsewhere() {
        const uint32_t turn = last_;
        const CheckPlace& check =
            tree_.checks[tree_.checks.size() / 2 + turn * 7919U % (tree_.checks.size() / 2)];
        if (turn % 100 == 0)
            subscribe(tree_.sites[tree_.sites.size() / 2 + turn % (tree_.sites.size() / 2)],
                      "Domain*^ > Node");
        else
            subscribe(check.id, "Check");
    }

    /// Checks by name in the site that is written to, each under another one and none of it there.
    void watch_by_name() {
        for (uint32_t i = 0; i < sizes_.watched; ++i) {
            const std::string steps = fmt::format("Domain*^ > Node > Check{{name = \"{}\"}}", i);
            subscriptions().watch(++last_, {tql::id_t::from_node_id(tree_.sites.front())},
                                  tql::parse_pattern(steps), true);
        }
    }

    void forget(uint32_t number) {
        subscriptions().forget(number);
        requests_.erase(number);
    }

    tqlengine::Subscriptions& subscriptions() {
        return tree_.world.reading().engine.subscriptions();
    }

    /// Changes a check of the first site.
    void write(uint32_t turn) {
        tree_.world.update(tree_.checks[turn * 31 % 500].id, {number(prop::order, turn)});
    }

    /// Makes and writes what is due; gives how many that were.
    uint32_t send_due() {
        uint32_t sent = 0;
        while (const auto due = subscriptions().take_patch()) {
            tqlengine::RequestContext context = tree_.world.reading();
            tqlengine::ResultNodePtr patch =
                process_patch(due->object, requests_.at(due->subscription), context);
            if (!patch) throw std::runtime_error("a patch failed");
            wire_.write(
                tqlengine::PatchEvent(queues::queue_t::none, 0, {due->object, std::move(patch)}));
            ++sent;
        }
        return sent;
    }

    void writes(const std::string& key, uint32_t expected) {
        double writing_s = 0, sending_s = 0;
        for (uint32_t turn = 0; turn < sizes_.writes; ++turn) {
            writing_s += processor_seconds_of([&] { write(turn); });
            sending_s += processor_seconds_of([&] { expect(send_due(), expected); });
        }
        figures_[key] = kMicro * writing_s / sizes_.writes;
        if (expected > 0) figures_[key + "_sent"] = kMicro * sending_s / sizes_.writes;
    }

    void patches(const std::string& key, uint32_t expected, uint32_t times) {
        double seconds = 0;
        for (uint32_t turn = 0; turn < times; ++turn) {
            write(turn);
            seconds += processor_seconds_of([&] { expect(send_due(), expected); });
        }
        figures_[key] = expected * times / seconds;
    }

    static void expect(uint32_t sent, uint32_t expected) {
        if (sent != expected)
            throw std::runtime_error(fmt::format("{} patches for {} subscribers", sent, expected));
    }

    const PatchSizes& sizes_;
    QueryTree tree_;
    std::map<uint32_t, dbms::Tql_Select_Data> requests_;
    uint32_t last_ = 0;
    AnswerWire wire_;
    Figures figures_;
};

}  // namespace

std::vector<Row> patch_rows() {
    return {
        {.key = "patch_one", .title = "patches to one subscriber, 1/s"},
        {.key = "patch_many", .title = "patches to 1 000 subscribers, 1/s"},
        {.key = "write_alone",
         .title = "write, nobody watches, us",
         .better = better_t::less,
         .decimals = 1},
        {.key = "write_watched",
         .title = "write, 10 of 10 000 watch it, us",
         .better = better_t::less,
         .decimals = 1},
        {.key = "write_watched_sent",
         .title = "  its 10 patches, us",
         .better = better_t::less,
         .decimals = 1},
        {.key = "write_named",
         .title = "write, 10 000 watch other names here, us",
         .better = better_t::less,
         .decimals = 1},
    };
}

Figures measure_patches(const std::string& base, const PatchSizes& sizes) {
    const Folder folder(base);
    return PatchRun(folder.path(), sizes).run();
}

}  // namespace bench
