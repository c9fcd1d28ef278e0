#include "dbcache/object_cache.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <list>
#include <map>
#include <set>

#include "support/fake_clock.h"
#include "support/rng.h"
#include "support/temp_dir.h"

namespace dbcache {
namespace {

NodeId id_of(uint32_t n) {
    return {1, n};
}
mdb::block_handle_t handle_of(uint32_t n) {
    return {.block = 5 + n / 7, .offset = n % 7 * 64};
}

/// Tells a set of living numbers when it comes and goes.
class Item final : public CachedObject {
  public:
    Item(uint32_t n, std::set<uint32_t>& living) : number(n), living_(living) { living_.insert(n); }
    ~Item() override { living_.erase(number); }
    [[nodiscard]] uint32_t cache_references() const noexcept override { return references; }

    const uint32_t number;
    uint32_t references = 0;

  private:
    std::set<uint32_t>& living_;
};

class ObjectCacheTest : public testing::Test {
  protected:
    Item* insert(uint32_t n, uint32_t references = 0) {
        auto* item = new Item(n, living);  // the cache takes it over
        item->references = references;
        cache.cache_insert(id_of(n), handle_of(n), *item);
        return item;
    }
    std::string lengths() {
        return fmt::format("{} {} {}", cache.length(CachedObject::a1in),
                           cache.length(CachedObject::a1out), cache.length(CachedObject::am));
    }

    support::FakeClock clock;
    std::set<uint32_t> living;
    ObjectCache cache{clock};
};

TEST_F(ObjectCacheTest, MissesChangeNothing) {
    insert(1);
    EXPECT_EQ(cache.cache_find_by_id(id_of(2)), nullptr);
    EXPECT_EQ(cache.cache_find_by_handle(handle_of(2)), nullptr);
    cache.cache_remove(handle_of(2), true);
    cache.cache_remove(handle_of(2), false);
    EXPECT_EQ(cache.misses(), 2U);
    EXPECT_EQ(cache.hits(), 0U);
    EXPECT_EQ(lengths(), "1 0 0");
}

TEST_F(ObjectCacheTest, AQueueOfReferencedObjectsStaysOverItsLimit) {
    cache.cache_set_limits(1, 0, 0);
    std::vector<Item*> held;
    for (uint32_t n = 1; n <= 60; ++n) held.push_back(insert(n, 1));
    insert(100);
    EXPECT_EQ(lengths(), "1 60 0");
    for (Item* item : held) item->references = 0;
    // 61 are over and the newest comes to it; one balance looks at the 50 oldest.
    insert(101);
    EXPECT_EQ(lengths(), "1 11 0");
    EXPECT_EQ(cache.verify(), "");
}

TEST_F(ObjectCacheTest, ARewrittenObjectStartsAgainInA1in) {
    cache.cache_set_limits(1, 5, 5);
    Item* item = insert(1);
    insert(2);
    ASSERT_NE(cache.cache_find_by_id(id_of(1)), nullptr);
    ASSERT_EQ(item->cache_queue(), CachedObject::am);
    cache.cache_remove(handle_of(1), false);
    EXPECT_EQ(item->cache_queue(), CachedObject::none);
    EXPECT_FALSE(cache.contains(handle_of(1)));
    cache.cache_insert(id_of(1), handle_of(50), *item);
    EXPECT_EQ(item->cache_queue(), CachedObject::a1in);
    EXPECT_EQ(cache.cache_find_by_id(id_of(1)), item);
    EXPECT_TRUE(cache.contains(handle_of(50)));
}

TEST_F(ObjectCacheTest, TracesLookUpsById) {
    const support::TempDir dir;
    const std::string path = dir.path() / "trace";
    EXPECT_EQ(cache.cache_open_trace(dir.path() / "no" / "file"), "Failed to open trace file");
    ASSERT_EQ(cache.cache_open_trace(path), std::nullopt);
    clock.set_wall(12, 34);
    static_cast<void>(cache.cache_find_by_id({0, 1}));
    static_cast<void>(cache.cache_find_by_handle({1, 2}));
    static_cast<void>(cache.cache_find_by_id({1, 4294967295}));
    ASSERT_EQ(cache.cache_open_trace(dir.path() / "other"), std::nullopt);  // closes the first
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(text, "12 34 0.1 ACC\n12 34 1.4294967295 ACC\n");
}

TEST_F(ObjectCacheTest, BrokenUseEndsTheProcess) {
    Item* item = insert(1, 1);
    const auto doubled_id = [&] { cache.cache_insert(id_of(1), handle_of(9), *item); };
    const auto doubled_handle = [&] { cache.cache_insert(id_of(9), handle_of(1), *item); };
    const auto referenced = [&] { cache.cache_remove(handle_of(1), true); };
    EXPECT_DEATH(
        doubled_id(),
        "Assertion failed: Double id insertion into object cache ex \\(5:64, 1.1\\) new 6:128");
    EXPECT_DEATH(
        doubled_handle(),
        "Assertion failed: Double handle insertion into object cache, ex \\(5:64, 1.1\\) new 1.9");
    EXPECT_DEATH(referenced(), "Assertion failed: Attempt to handle-delete referenced object");
}

/// The cache as a few lists of numbers, newest first.
struct Model {
    std::list<uint32_t> in, out, main;
    std::map<uint32_t, uint32_t> references;
    size_t kin, kout, limit;

    static bool take(std::list<uint32_t>& queue, uint32_t n) {
        const auto place = std::find(queue.begin(), queue.end(), n);
        if (place == queue.end()) return false;
        queue.erase(place);
        return true;
    }
    void evict(std::list<uint32_t>& queue, size_t bound, uint32_t guarded) {
        std::vector<uint32_t> oldest(queue.rbegin(), queue.rend());
        if (oldest.size() > 50) oldest.resize(50);
        size_t excess = queue.size() - bound;
        for (const uint32_t n : oldest) {
            if (excess == 0) return;
            if (n == guarded || references[n] != 0) continue;
            take(queue, n);
            references.erase(n);
            --excess;
        }
    }
    void balance(uint32_t guarded) {
        if (in.size() > kin) {
            out.push_front(in.back());
            in.pop_back();
            if (out.size() > kout) evict(out, kout, guarded);
        } else if (main.size() > limit) {
            evict(main, limit, guarded);
        }
    }
    bool find(uint32_t n) {
        if (!references.contains(n)) return false;
        if (take(out, n) || take(main, n)) main.push_front(n);
        balance(n);
        return true;
    }
    void insert(uint32_t n) {
        references[n] = 0;
        in.push_front(n);
        balance(n);
    }
    void remove(uint32_t n) {
        take(in, n) || take(out, n) || take(main, n);
        references.erase(n);
    }
};

void run_against_model(uint64_t seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    support::Rng rng(seed);
    support::FakeClock clock;
    std::set<uint32_t> living;
    ObjectCache cache(clock);
    Model model;
    model.kin = rng.below(8);
    model.kout = rng.below(70);
    model.limit = rng.below(12);
    cache.cache_set_limits(static_cast<uint32_t>(model.kin), static_cast<uint32_t>(model.kout),
                           static_cast<uint32_t>(model.limit));
    std::map<uint32_t, Item*> items;
    for (int step = 0; step < 6000; ++step) {
        const auto n = static_cast<uint32_t>(rng.below(120));
        const bool by_id = rng.chance(50);
        CachedObject* hit =
            by_id ? cache.cache_find_by_id(id_of(n)) : cache.cache_find_by_handle(handle_of(n));
        ASSERT_EQ(hit != nullptr, model.find(n)) << "step " << step;
        if (hit == nullptr) {
            items[n] = new Item(n, living);
            cache.cache_insert(id_of(n), handle_of(n), *items[n]);
            model.insert(n);
        } else if (rng.chance(30)) {
            items[n]->references = model.references[n] = rng.chance(60) ? 0 : 1;
        } else if (rng.chance(5) && items[n]->references == 0) {
            cache.cache_remove(handle_of(n), true);
            model.remove(n);
        }
        ASSERT_EQ(cache.length(CachedObject::a1in), model.in.size()) << "step " << step;
        ASSERT_EQ(cache.length(CachedObject::a1out), model.out.size()) << "step " << step;
        ASSERT_EQ(cache.length(CachedObject::am), model.main.size()) << "step " << step;
        ASSERT_EQ(living.size(), model.references.size()) << "step " << step;
        for (const uint32_t alive : living) ASSERT_TRUE(model.references.contains(alive)) << alive;
        if (step % 500 == 0) {
            ASSERT_EQ(cache.verify(), "") << "step " << step;
        }
    }
}

TEST(ObjectCacheModel, AgreesWithPlainLists) {
    for (uint64_t seed = 1; seed <= 12; ++seed) run_against_model(seed);
}

}  // namespace
}  // namespace dbcache
