// Values that are large objects, in real objects: what they take of the file, and that it comes
// back whatever becomes of the object.
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>

#include "dbcache/inheritance.h"
#include "support/test_store.h"
#include "test_classes.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

using Bytes = std::vector<uint8_t>;

// clang-format off
constexpr uint32_t kWithImage[] = {1, 2};
constexpr dbcache::PropertyRow kPictureRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K | dbcache::X},
    {.number = prop::type, .kind = dbcache::kind_t::u32, .flags = dbcache::X, .initial = 1, .determines_subtype = true},
    {.number = prop::largeImage, .kind = dbcache::kind_t::large_png, .flags = dbcache::N, .subtypes = kWithImage},
};
constexpr dbcache::ChildRow kPictures[] = {{cls::Node, nodetype::Node}};
// clang-format on

/// Pictures of the subtypes 1 and 2 have an image, others none.
class PictureSchema : public HookedSchema {
  public:
    explicit PictureSchema(const Hooks& hooks)
        : HookedSchema({.nodetype = nodetype::Node,
                        .tql_class = cls::Node,
                        .properties = kPictureRows,
                        .children = kPictures},
                       hooks) {}
    [[nodiscard]] uint32_t subtypeFromChain(const dbcache::PropertyChain& chain) const override {
        mdb::PropertyUint32 type(prop::type);
        return chain.read(0, type) == dbcache::found_t::value ? type.value : 0;
    }
    [[nodiscard]] uint32_t subtypeFromWork(const dbcache::WorkArray& work) const override {
        const auto& type = work[findProperty(prop::type, dbcache::kAllSubtypes)].prop;
        return static_cast<const mdb::PropertyUint32&>(*type).value;
    }
};

class LargeValues : public ::testing::Test {
  protected:
    void TearDown() override {
        if (!damaged) {
            EXPECT_EQ(world.fault(), "");
        }
    }

    static void declare(dbcache::SchemaTable& table, const Hooks& hooks) {
        auto root = std::make_unique<FolderSchema>(hooks);
        root->addChildClass(cls::Node, nodetype::Node);
        table.registerSchema(std::move(root));
        table.registerSchema(std::make_unique<PictureSchema>(hooks));
        table.seal();
    }

    static Bytes png(size_t size, uint8_t fill) {
        Bytes bytes{0x89, 'P', 'N', 'G', 13, 10, 26, 10};
        bytes.resize(std::max(size, bytes.size()), fill);
        return bytes;
    }
    static tql::value_t image(const Bytes& bytes) {
        return std::make_unique<tql::property_lob_t>(prop::largeImage, bytes);
    }
    NodeId picture(const std::string& name, const Bytes& bytes) {
        return world.create(kRootId, cls::Node, {text(prop::name, name), image(bytes)});
    }
    /// The image as a query sees it; none for a null.
    std::optional<Bytes> seen(const NodeId& id) {
        const auto values = world.values(id);
        const auto found = values.find(prop::largeImage);
        if (found == values.end() || found->second->is_null) return std::nullopt;
        return static_cast<const tql::property_lob_t&>(*found->second).value;
    }
    uint32_t first_block(const NodeId& id) {
        const dbcache::ObjectHandlerRef handler = world.store->resolver().find_object(id);
        const dbcache::InheritanceChain chain(*world.store, id, handler->location());
        mdb::PropertyUint32 block(prop::largeImage);
        return chain.read(0, block) == dbcache::found_t::value ? block.value : 0;
    }
    /// "N large objects", or what is wrong with the file.
    std::string stored() {
        mdb::VerifyOptions options;
        options.large_object_properties = {prop::largeImage};
        const mdb::Verification found = mdb::verify(*world.database, options);
        return found.whole() ? fmt::format("{} large objects", found.counts.large_objects)
                             : found.text();
    }
    /// Overwrites the first word of a block.
    void damage(uint32_t block) {
        std::fstream file(world.dir.file("db"), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(world.database->store().block_offset(block)));
        file.write("????", 4);
        damaged = true;
    }

    Hooks hooks;
    bool damaged = false;
    TestStore world{{.block = 1024, .journal = 256 * 1024},
                    [this](dbcache::SchemaTable& table) { declare(table, hooks); }};
};

}  // namespace

TEST_F(LargeValues, TakeBlocksForAsLongAsTheyAreReferredTo) {
    const Bytes small = png(100, 1), large = png(20'000, 2);
    const NodeId a = picture("a", small);
    const NodeId b = picture("b", large);
    EXPECT_EQ(stored(), "2 large objects");
    world.open();
    EXPECT_EQ(seen(a), small);
    EXPECT_EQ(seen(b), large);

    // What stays the same keeps its blocks, whether it is given again or not.
    const uint32_t block = first_block(b);
    world.update(b, {text(prop::name, "c")});
    world.update(b, {image(large)});
    EXPECT_EQ(first_block(b), block);
    world.update(b, {image(png(3000, 3))});
    EXPECT_NE(first_block(b), block);
    EXPECT_EQ(seen(b), png(3000, 3));
    EXPECT_EQ(stored(), "2 large objects");
    world.update(
        a, {std::make_unique<tql::property_lob_t>(tql::property_lob_t::null(prop::largeImage))});
    EXPECT_EQ(seen(a), std::nullopt);
    EXPECT_EQ(stored(), "1 large objects");
    world.remove(b);
    EXPECT_EQ(stored(), "0 large objects");
}

TEST_F(LargeValues, GoWithTheSubtypeThatHasThem) {
    const NodeId a = picture("a", png(5000, 1));
    const uint32_t block = first_block(a);
    world.update(a, {number(prop::type, 2)});
    EXPECT_EQ(first_block(a), block);
    EXPECT_EQ(stored(), "1 large objects");
    world.update(a, {number(prop::type, 3)});
    EXPECT_EQ(stored(), "0 large objects");
    EXPECT_EQ(seen(a), std::nullopt);
}

TEST_F(LargeValues, GoWithObjectsThatStandNowhere) {
    const NodeId a = picture("a", png(5000, 1));
    const NodeId below = world.create(a, cls::Node, {text(prop::name, "b"), image(png(2000, 2))});
    const auto location = world.store->resolver().find_object(below)->location();
    world.remove(a);
    EXPECT_EQ(stored(), "1 large objects");
    world.store->discard_stored(location);
    EXPECT_EQ(stored(), "0 large objects");
}

TEST_F(LargeValues, AWriteThatFailsLeavesTheOldOne) {
    const Bytes before = png(4000, 1);
    const NodeId a = picture("a", before);
    hooks.after_store = [](dbcache::ObjectHandler&) {
        throw errors::tql(errors::ERR_ILLEGAL_VALUE, "hook");
    };
    const struct {
        const char* name;
        std::function<void()> write;
    } writes[] = {
        {"replace", [&] { world.update(a, {image(png(9000, 2))}); }},
        {"drop", [&] { world.update(a, {number(prop::type, 3)}); }},
        {"create", [&] { picture("b", png(9000, 2)); }},
    };
    for (const auto& one : writes) {
        SCOPED_TRACE(one.name);
        EXPECT_EQ(failure(one.write), "10 hook");
        EXPECT_EQ(stored(), "1 large objects");
        EXPECT_EQ(seen(a), before);
    }
    EXPECT_EQ(failure([&] {
                  picture("b", {1, 2, 3});
              }),
              "10 Property largeImage: Not a valid png image");
    hooks.after_store = {};
    world.update(a, {image(png(9000, 2))});
    EXPECT_EQ(stored(), "1 large objects");
}

/// A chain that can't be followed must not keep its object from being changed or deleted.
TEST_F(LargeValues, DamagedOnesAreLeftBehind) {
    const NodeId a = picture("a", png(5000, 1));
    const NodeId b = picture("b", png(5000, 2));
    const uint32_t first = first_block(a);
    damage(first);
    damage(first_block(b));
    world.log.clear();
    EXPECT_EQ(seen(a), std::nullopt);
    ASSERT_EQ(world.log.size(), 1U);
    EXPECT_NE(world.log[0].find(fmt::format("Unable to load non-null property largeImage from {} - "
                                            "will return default value",
                                            a.to_string())),
              std::string::npos);
    world.update(a, {text(prop::name, "c")});
    EXPECT_EQ(first_block(a), first) << "for who can repair it";
    world.log.clear();
    world.update(a, {image(png(6000, 3))});
    ASSERT_EQ(world.log.size(), 1U);
    EXPECT_NE(world.log[0].find(fmt::format("Large object at block {} is not freed: free_lob: Bad "
                                            "magic cookie in header",
                                            first)),
              std::string::npos);
    EXPECT_EQ(seen(a), png(6000, 3));
    world.remove(b);
    EXPECT_FALSE(world.find(b));
}
