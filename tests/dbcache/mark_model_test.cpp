// Random creates, updates, moves and deletes, some of them failing late, nested in each other or
// taken back as a whole: after each hundred the mark lists are what a plain tree says.
#include <functional>
#include <gtest/gtest.h>
#include <optional>

#include "dbcache/mark_verify.h"
#include "mark_world.h"
#include "support/rng.h"

using namespace dbcache_test;
using dbcache::kRootId;
using dbcache::ObjectHandler;

namespace {

class MarkStorm {
  public:
    explicit MarkStorm(uint64_t seed)
        : rng_(seed), world_(hooks_, {.block = 1024, .journal = 16 << 20, .capacity = 64 << 20}) {
        world_.store->cache().cache_set_limits(5, 5, 10);
        template_ = create(kRootId, false, false);
        model_.create(template_, kRootId, false, false);
    }

    /// Some writes in one transaction, which is taken back now and then; else each on its own.
    void run(int count) {
        std::optional<dbcache::StoreTransaction> outer;
        if (rng_.chance(80)) outer.emplace(*world_.store);
        const MarkModel before = model_;
        for (int i = 0; i < count; ++i) write();
        if (!outer) return;
        if (rng_.chance(20))
            model_ = before;
        else
            outer->commit(true);
    }
    void check() {
        ASSERT_EQ(model_.compare(world_), "");
        for (size_t mark = 0; mark < dbcache::kMarks.size(); ++mark)
            for (int i = 0; i < 5; ++i) {
                const NodeId origin = any();
                std::vector<NodeId> expected;
                for (const NodeId& id : model_.stretch(origin, mark))
                    if (model_.objects().at(id).marked[mark]) expected.push_back(id);
                ASSERT_EQ(world_.traverse(dbcache::kMarks[mark], origin), expected);
            }
    }
    void check_store() {
        ASSERT_EQ(world_.fault(), "");
        const auto marks = dbcache::make_mark_check();
        mdb::VerifyOptions options;
        options.checks.push_back(marks.get());
        ASSERT_EQ(mdb::verify(*world_.database, options).text(), "");
        world_.open();
        world_.store->cache().cache_set_limits(5, 5, 10);
    }
    [[nodiscard]] size_t size() const { return model_.objects().size(); }

  private:
    NodeId any() {
        return std::next(model_.objects().begin(), static_cast<int64_t>(rng_.below(size())))->first;
    }
    /// Some far down, so that the tree grows deep; some high up, so that it grows wide.
    NodeId any_parent() {
        NodeId parent = any();
        for (int i = 0; i < 3; ++i)
            if (const NodeId other = any(); model_.depth(other) > model_.depth(parent) && deep_)
                parent = other;
        return parent;
    }
    bool is_check(const NodeId& id) {
        return world_.store->resolver().find_stored(id)->class_number() == cls::Check;
    }

    NodeId create(const NodeId& parent, bool active, bool inherits) {
        Values values{text(prop::name, fmt::format("n{}", ++names_)),
                      text(prop::label, std::string(rng_.below(200), 'l'))};
        const bool check = active || inherits || rng_.chance(50);
        if (check) {
            values.push_back(boolean(prop::active, active));
            if (inherits) values.push_back(object(prop::inherits, template_));
        }
        const uint32_t way = rng_.chance(30) ? cls::CheckGroup : cls::Domain;
        return world_.create(parent, template_.is_null() || check ? cls::Check : way, values);
    }

    /// One write. `applied` enters it in the model, before or after what a hook writes meanwhile.
    void write() {
        const bool fails = rng_.chance(10);
        const bool late = rng_.chance(50);
        const NodeId other = any();
        const bool nested = rng_.chance(15) && is_check(other);
        const bool other_active = rng_.chance(50);
        const auto hook = [&, depth = 0](ObjectHandler& handler) mutable {
            if (depth > 0 || handler.node_id() == other) return;
            ++depth;
            if (nested) {
                world_.update(other, {boolean(prop::active, other_active)});
                nested_done_ = true;
            }
            --depth;
            if (fails) throw errors::tql(errors::ERR_ILLEGAL_VALUE, "hook");
        };
        nested_done_ = false;
        (late ? hooks_.after_store : hooks_.after_update) = hook;
        std::function<void()> applied = [] {};
        bool creates = false;
        const std::string failed = failure([&] { creates = one_write(applied); });
        hooks_ = {};
        if (!failed.empty()) {
            ASSERT_EQ(failed, "10 hook");
            return;
        }
        const auto apply_nested = [&] {
            if (nested_done_) model_.set(other, 0, other_active);
        };
        // A new object enters the lists when it is stored, behind the first hook.
        if (creates && !late) apply_nested();
        applied();
        if (!creates || late) apply_nested();
    }

    /// True for a create.
    bool one_write(std::function<void()>& applied) {
        const uint64_t kind = rng_.below(100);
        const uint64_t wanted = 250;
        const NodeId id = any();
        if (kind < (size() < wanted ? 40U : 15U)) {
            const NodeId parent = any_parent();
            const bool active = rng_.chance(40);
            const bool inherits = rng_.chance(20);
            const NodeId made = create(parent, active, inherits);
            applied = [=, this] { model_.create(made, parent, active, inherits); };
            return true;
        }
        if (id == kRootId || id == template_) return false;
        if (kind < 75 && is_check(id)) {
            const bool active = rng_.chance(40);
            const bool inherits = rng_.chance(20);
            world_.update(
                id, {boolean(prop::active, active),
                     inherits ? object(prop::inherits, template_) : null_object(prop::inherits),
                     text(prop::label, std::string(rng_.below(200), 'm'))});
            applied = [=, this] {
                model_.set(id, 0, active);
                model_.set(id, 1, inherits);
            };
        } else if (kind < 95) {
            const NodeId parent = any_parent();
            if (model_.is_below(parent, id)) return false;
            if (parent == model_.objects().at(id).parent) return false;
            Values values{object(prop::parentId, parent)};
            bool active = model_.objects().at(id).marked[0];
            if (is_check(id) && rng_.chance(30)) {
                active = !active;
                values.push_back(boolean(prop::active, active));
            }
            world_.update(id, values);
            applied = [=, this] { model_.move(id, parent, active); };
        } else if (!model_.is_below(template_, id)) {
            world_.remove(id);
            applied = [=, this] { model_.remove(id); };
        } else {
            world_.update(id, {text(prop::label, std::string(rng_.below(300), 'n'))});
        }
        return false;
    }

    support::Rng rng_;
    Hooks hooks_;
    MarkWorld world_;
    MarkModel model_;
    NodeId template_;
    uint64_t names_ = 0;
    bool nested_done_ = false;
    bool deep_ = rng_.chance(50);
};

}  // namespace

TEST(MarkModelTest, RandomWritesKeepTheLists) {
    constexpr int kRounds = 40;
    constexpr int kWritesPerRound = 100;
    for (const uint64_t seed : {1U, 2U, 3U, 4U, 5U}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        MarkStorm storm(seed);
        for (int round = 0; round < kRounds && !testing::Test::HasFailure(); ++round) {
            SCOPED_TRACE(testing::Message() << "round " << round);
            storm.run(kWritesPerRound);
            storm.check();
            if (round % 10 == 9) storm.check_store();
        }
    }
}
