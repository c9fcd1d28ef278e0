// Queries against their meaning: a real store with random trees, random patterns and random
// writes. What the engine gives is compared with what the plain model of patterns says:
//   - a select with the model's select;
//   - a patch with the model's patch;
//   - what a subscriber without patches has, whenever nothing is due to him, with a fresh select;
//   - what a subscriber with patches has after he applied them, with a fresh select, where the
//     pattern lets patches say it all (docs/query-language.md).
//
// MODEL_STEPS: how many writes, selects and patches are tried in all; MODEL_SEED: where to begin.
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

#include "dbcache/store.h"
#include "patterns.h"
#include "support/answers.h"
#include "tarmik/mirror.h"
#include "tql/query_text.h"
#include "tqlengine/requests.h"
#include "wapi/patch_plan.h"
#include "wapi/result_json.h"

namespace queries {
namespace {

using nlohmann::ordered_json;

constexpr int kRoundsPerTree = 250;
constexpr size_t kSubscriptions = 12;
const tql::id_t kRoot = tql::id_t::from_node_id(dbcache::kRootId);

/// The engine and the model don't agree, and all that tells on what.
struct Disagreement {
    std::string text;
};

/// What was tried, so that a run that compares nothing with nothing doesn't pass.
struct Tally {
    uint64_t writes = 0, refused = 0, selects = 0, found = 0, failed = 0;
    uint64_t patches = 0, gone = 0, applied = 0, reevaluations = 0;

    [[nodiscard]] uint64_t steps() const { return writes + selects + patches; }
    [[nodiscard]] std::string text() const {
        return fmt::format(
            "{} steps: {} writes ({} refused), {} selects ({} found something, {} failed in both), "
            "{} patches ({} dropped the object, {} pictures compared), {} reevaluations",
            steps(), writes, refused, selects, found, failed, patches, gone, applied,
            reevaluations);
    }
};

/// An answer as text, tree by tree under the id of its root; or its failure.
struct Answer {
    uint32_t status = 0;
    std::map<tql::id_t, std::string> trees;

    [[nodiscard]] std::string text() const {
        if (status != 0) return fmt::format("status {}\n", status);
        std::string all;
        for (const auto& [id, tree] : trees) all += tree;
        return all.empty() ? "nothing\n" : all;
    }
    friend bool operator==(const Answer&, const Answer&) = default;
};

struct Subscription {
    dbms::Tql_Select_Data request;
    std::optional<wapi::PatchPlan> plan;
    Answer last;         ///< without patches: what he was told last
    cli::Mirror mirror;  ///< with a plan: what he has made of it

    [[nodiscard]] bool patchable() const {
        return (request.flags & tqlengine::kSelectPatchable) != 0;
    }
};

/// Conditions that spare looking at objects also spare the failure of other conditions on them.
bool may_look_at_less(const tql::pattern_t& step) {
    const auto spares = [](const tql::condition_t& condition) {
        return condition.op == tql::relop_t::eq || condition.op == tql::relop_t::in;
    };
    return std::any_of(step.where.begin(), step.where.end(), spares) ||
           std::any_of(step.next.begin(), step.next.end(), may_look_at_less) ||
           std::any_of(step.cond_next.begin(), step.cond_next.end(), may_look_at_less);
}

class Trial {
  public:
    Trial(uint64_t seed, Tally& tally) : seed_(seed), rng_(seed), tally_(tally) {
        for (int n = 0; n < 40; ++n) world_.write(rng_);
        see();
    }

    void round(int number) {
        round_ = number;
        world_.store.log.clear();
        seen_.reset();
        write();
        see();
        if (const std::string wrong = world_.difference(*seen_, number % 8 == 0); !wrong.empty())
            disagree("The tree isn't what was written: " + wrong, {}, "", "");
        drain();
        for (auto& [id, subscription] : subscriptions_) compare(id, subscription);
        for (int n = 0; n < 6; ++n)
            static_cast<void>(check_select(random_request(ask_t::anything)));
        exchange_subscription();
        if (number % 50 == 49) check_store();
    }

  private:
    // ---- writes ---------------------------------------------------------------------------------

    /// One event: a write or several, at times in a transaction, which may be aborted.
    void write() {
        what_.clear();
        const uint64_t count = rng_.chance(75) ? 1 : 2 + rng_.below(3);
        const uint64_t writes = world_.writes();
        const uint64_t refused = world_.refused();
        if (rng_.chance(15)) {
            const auto before = world_.snapshot();
            dbcache::StoreTransaction transaction(*world_.store.store);
            for (uint64_t n = 0; n < count; ++n) what_ += "\n  " + world_.write(rng_);
            if (rng_.chance(60)) {
                transaction.commit(true);
            } else {
                what_ += "\n  all aborted";
                world_.restore(before);
            }
        } else {
            for (uint64_t n = 0; n < count; ++n) what_ += "\n  " + world_.write(rng_);
        }
        tally_.writes += world_.writes() - writes;
        tally_.refused += world_.refused() - refused;
        // The removal of what hangs below deleted objects goes on in small steps.
        dbcache::DbcacheIdResolver& resolver = world_.store.store->resolver();
        for (uint64_t n = rng_.below(6); n > 0 && resolver.has_work(); --n) resolver.doWork();
    }

    void see() { seen_.emplace(world_.store.engine->get(kRoot)); }

    // ---- selects --------------------------------------------------------------------------------

    tqlengine::RequestContext context() {
        return {*world_.store.engine, world_.store.clock, queues::queue_t::none, {}, {}};
    }

    dbms::Tql_Select_Data random_request(ask_t ask) {
        dbms::Tql_Select_Data request;
        do {
            request.root_ids.push_back(rng_.chance(70) ? kRoot : world_.random_id(rng_));
            // A group shows the version of the object that has it, which is written beside it.
            tql::id_t& root = request.root_ids.back();
            if (ask == ask_t::told && root.size() == 3) root = {root[0], root[1]};
        } while (rng_.chance(15));
        const SeenTree::Way way = seen_->way_to(request.root_ids.front());
        const uint32_t root_class = way.empty() ? cls::Domain : way.back()->class_number();
        request.pattern = PatternMaker(rng_, world_, ask).pattern(root_class);
        return request;
    }

    [[nodiscard]] std::set<tql::id_t> roots_of(const dbms::Tql_Select_Data& request) const {
        return {request.root_ids.begin(), request.root_ids.end()};
    }

    Answer model_select(const dbms::Tql_Select_Data& request) {
        Answer answer;
        try {
            for (const tql::id_t& root : roots_of(request)) {
                const SeenTree::Way way = seen_->way_to(root);
                if (way.empty()) continue;
                model::Result result = model::select(*way.back(), request.pattern);
                if (!result) continue;
                model::add_parent(*result, request.pattern,
                                  way.size() > 1 ? way[way.size() - 2] : nullptr);
                answer.trees[root] = model::text_of(*result);
            }
        } catch (const errors::tql_incomparable&) {
            return {errors::ERR_INCOMPARABLE, {}};
        } catch (const model::Mismatch&) {
            return {errors::ERR_BACKEND, {}};
        }
        return answer;
    }

    /// Selects, under a subscription if there is one, and compares with the model.
    std::pair<Answer, std::vector<tql::result_t>> check_select(const dbms::Tql_Select_Data& request,
                                                               uint32_t subscription = 0) {
        tqlengine::SelectReport report;
        tqlengine::RequestContext asker = context();
        auto reply =
            support::received(tqlengine::process_select(request, asker, report, subscription));
        Answer answer{reply.status, {}};
        for (const tql::result_t& tree : reply.res) answer.trees[tree.id] += model::text_of(tree);
        const Answer expected = model_select(request);
        ++tally_.selects;
        tally_.found += !expected.trees.empty();
        tally_.failed += expected.status != 0 && answer.status != 0;
        const bool fails_well =
            expected.status != 0 &&
            (answer.status == errors::ERR_INCOMPARABLE || answer.status == errors::ERR_BACKEND ||
             (answer.status == 0 && may_look_at_less(request.pattern)));
        if (!fails_well && answer != expected)
            disagree("A select", request, expected.text(), answer.text());
        return {std::move(answer), std::move(reply.res)};
    }

    // ---- subscriptions --------------------------------------------------------------------------

    void exchange_subscription() {
        if (subscriptions_.size() == kSubscriptions) {
            if (rng_.chance(85)) return;
            const auto leaves =
                std::next(subscriptions_.begin(), static_cast<long>(rng_.below(kSubscriptions)));
            world_.store.engine->subscriptions().forget(leaves->first);
            subscriptions_.erase(leaves);
        }
        const uint32_t id = ++last_subscription_;
        Subscription& made = subscriptions_[id];
        const uint32_t sort = id % 3;
        do {
            made.request = random_request(ask_t::told);
            made.plan = wapi::make_patch_plan(made.request.pattern, made.request.root_ids.size());
        } while (sort == 0 && (!made.plan || model_select(made.request).trees.empty()));
        if (sort != 0) made.plan.reset();
        made.request.flags = tqlengine::kSelectSubscribe;
        if (sort != 1) made.request.flags |= tqlengine::kSelectPatchable;
        evaluate(id, made);
    }

    void evaluate(uint32_t id, Subscription& subscription) {
        auto [answer, trees] = check_select(subscription.request, id);
        if (subscription.plan) apply(subscription, "result", picture(subscription, trees));
        subscription.last = std::move(answer);
    }

    static ordered_json picture(const Subscription& subscription,
                                const std::vector<tql::result_t>& trees) {
        ordered_json data{{"results", ordered_json::array()}, {"kept_by", ordered_json::object()}};
        for (const tql::result_t& tree : trees)
            data["results"].push_back(wapi::result_to_json(tree));
        for (const auto& [kept, keepers] : subscription.plan->kept_by)
            for (const uint32_t keeper : keepers)
                data["kept_by"][tql::class_name(kept)].push_back(tql::class_name(keeper));
        return data;
    }

    void apply(Subscription& subscription, const char* event, const ordered_json& data) {
        try {
            subscription.mirror.apply(event, data);
        } catch (const cli::MirrorError& failure) {
            disagree(failure.text(), subscription.request, "", data.dump(1));
        }
    }

    /// Does what is due, as the server does after an event.
    void drain() {
        tqlengine::Subscriptions& due = world_.store.engine->subscriptions();
        while (const auto patch = due.take_patch())
            give_patch(subscriptions_.at(patch->subscription), patch->subscription, patch->object);
        while (const auto id = due.take_reevaluation()) {
            ++tally_.reevaluations;
            evaluate(*id, subscriptions_.at(*id));
        }
    }

    /// Nothing if the object is to be dropped.
    model::Result model_patch(const dbms::Tql_Select_Data& request, const tql::id_t& id) {
        const SeenTree::Way way = seen_->way_to(id);
        for (const tql::id_t& root : roots_of(request))
            for (size_t place = 0; place < way.size(); ++place) {
                if (!way[place]->is_named() || way[place]->tqlId() != root) continue;
                model::Result result = model::patch(way, place, request.pattern);
                if (!result) continue;
                model::add_parent(*result, request.pattern, place > 0 ? way[place - 1] : nullptr);
                return result;
            }
        return {};
    }

    void give_patch(Subscription& subscription, uint32_t number, const tql::id_t& id) {
        ++tally_.patches;
        const dbms::Tql_Select_Data& request = subscription.request;
        std::string expected = "gone\n";
        try {
            if (const model::Result result = model_patch(request, id))
                expected = model::text_of(*result);
        } catch (const errors::tql_incomparable&) {
            expected = "failure";
        } catch (const model::Mismatch&) {
            expected = "failure";
        }
        std::optional<tql::result_t> tree;
        std::string text = "gone\n";
        try {
            tqlengine::RequestContext asker = context();
            tree = support::received(id, tqlengine::process_patch(id, request, asker));
            if (tree) text = model::text_of(*tree);
        } catch (const error::Exception&) {
            text = "failure";
            world_.store.engine->subscriptions().want_reevaluation(number);
        }
        if (text != expected && !(expected == "failure" && may_look_at_less(request.pattern)))
            disagree("A patch of " + id.to_string(), request, expected, text);
        tally_.gone += !tree;
        if (!subscription.plan || text == "failure") return;
        if (tree)
            apply(subscription, "patch",
                  {{"id", id.to_string()}, {"patch", wapi::patch_to_json(*tree, id)}});
        else
            apply(subscription, "delete", {{"id", id.to_string()}});
    }

    /// What a subscriber has against what a new select gives.
    void compare(uint32_t id, Subscription& subscription) {
        if (subscription.patchable() && !subscription.plan) return;
        forget_lost_roots(id, subscription);
        auto [fresh, trees] = check_select(subscription.request);
        if (subscription.plan) {
            ++tally_.applied;
            const ordered_json expected = picture(subscription, trees)["results"];
            const ordered_json there = subscription.mirror.results();
            if (there != expected)
                disagree("Patches", subscription.request, expected.dump(1), there.dump(1));
        } else if (fresh != subscription.last) {
            disagree("A subscriber wasn't told of it", subscription.request, fresh.text(),
                     subscription.last.text());
        }
    }

    /// Nobody is told that a root has gone with an object above it.
    void forget_lost_roots(uint32_t id, Subscription& subscription) {
        const auto is_lost = [&](const tql::id_t& root) { return seen_->way_to(root).empty(); };
        if (subscription.plan && is_lost(subscription.request.root_ids.front()))
            evaluate(id, subscription);
        std::erase_if(subscription.last.trees,
                      [&](const auto& tree) { return is_lost(tree.first); });
    }

    // ---- the rest -------------------------------------------------------------------------------

    void check_store() {
        seen_.reset();
        if (const std::string fault = world_.store.fault(); !fault.empty())
            disagree("The store: " + fault, {}, "", "");
        see();
    }

    [[noreturn]] void disagree(const std::string& what, const dbms::Tql_Select_Data& request,
                               const std::string& expected, const std::string& there) {
        std::string text =
            fmt::format("{}, MODEL_SEED={} round {}\nafter:{}\n", what, seed_, round_, what_);
        if (!request.root_ids.empty()) {
            text += fmt::format("pattern: {}\nroots:", tql::pattern_text(request.pattern));
            for (const tql::id_t& root : request.root_ids) text += " " + root.to_string();
            text += fmt::format("\nexpected:\n{}\nthere:\n{}\n", expected, there);
        }
        if (seen_) text += "\nthe tree:\n" + seen_->text();
        throw Disagreement{text};
    }

    const uint64_t seed_;
    support::Rng rng_;
    Tally& tally_;
    World world_;
    std::optional<SeenTree> seen_;
    std::map<uint32_t, Subscription> subscriptions_;
    uint32_t last_subscription_ = 0;
    int round_ = 0;
    std::string what_;
};

uint64_t from_environment(const char* name, uint64_t otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::strtoull(value, nullptr, 10) : otherwise;
}

TEST(QueryModel, SelectsPatchesAndSubscriptionsMeanWhatThePatternSays) {
    const uint64_t steps = from_environment("MODEL_STEPS", 8'000);
    uint64_t seed = from_environment("MODEL_SEED", 1);
    Tally tally;
    uint64_t shown = 0;
    for (; tally.steps() < steps; ++seed) {
        try {
            Trial trial(seed, tally);
            for (int round = 0; round < kRoundsPerTree && tally.steps() < steps; ++round)
                trial.round(round);
        } catch (const Disagreement& disagreement) {
            FAIL() << disagreement.text << tally.text();
        }
        if (tally.steps() / 100'000 > shown) {
            shown = tally.steps() / 100'000;
            std::printf("%s\n", tally.text().c_str());
            std::fflush(stdout);
        }
    }
    std::printf("%s\n", tally.text().c_str());
    // Most of what is compared isn't nothing.
    EXPECT_LT(tally.refused * 3, tally.writes);
    EXPECT_GT(tally.found * 3, tally.selects);
    EXPECT_GT(tally.patches * 10, tally.writes);
    EXPECT_GT(tally.gone * 50, tally.patches);
    EXPECT_LT(tally.gone * 2, tally.patches);
    EXPECT_GT(tally.reevaluations * 10, tally.writes);
}

}  // namespace
}  // namespace queries
