// Mark lists are built for any tree, and what is wrong with one is named.
#include "dbcache/mark_rebuild.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "dbcache/mark_verify.h"
#include "dbcache/stored_tree.h"
#include "old_server.h"
#include "tql/names.h"

namespace {

using dbcache_test::cut_everywhere;
using dbcache_test::OldServer;
using support::Dump;

TEST(MarkRebuild, ACutWhileAMissingListIsRecreatedEndsInTheSamePlace) {
    OldServer server(12);
    logging::set_all_levels(logging::level_t::off);
    server.start();
    dbcache::StoredTree tree(server.parts());
    tree.drop(tree.get({0, 1}), prop::activeMark);
    tree.drop(tree.get({0, 1}), prop::inheritsMark);
    server.close();
    cut_everywhere(server, 50);
    EXPECT_EQ(support::list_text(server.dump(), 65), support::kOldWorldActive);
}

/// What a list holds, worked out from the objects by recursion.
class ListModel {
  public:
    ListModel(const std::vector<support::OldObject>& objects, uint32_t mark) : mark_(mark) {
        for (const auto& object : objects) children_[object.parent].push_back(&object);
        if (!visit(*children_.at(NodeId{}).front())) order_.clear();
    }
    [[nodiscard]] std::string text() const {
        std::string text;
        for (const Entry& entry : order_) {
            if (!text.empty()) text += ' ';
            text += entry.id.to_string();
            if (entry.marked) text += '*';
            if (entry.last != entry.id) text += '>' + entry.last.to_string();
        }
        return text.empty() ? "?" : text;
    }

  private:
    struct Entry {
        NodeId id;
        bool marked;
        NodeId last;
    };

    static bool is_one_of(uint32_t type, std::initializer_list<uint32_t> types) {
        return std::find(types.begin(), types.end(), type) != types.end();
    }
    static bool has(const support::OldObject& object, const support::RecordBytes& wanted) {
        return std::find(object.records.begin(), object.records.end(), wanted) !=
               object.records.end();
    }
    bool visit(const support::OldObject& object) {
        const uint32_t type = object.nodetype;
        bool marked = false;
        if (mark_ == 65) {
            if (!is_one_of(type, {13, 11, 14, 89, 1, 7, 12, 15, 64, 90, 93})) return false;
            marked = type == 13 || (is_one_of(type, {11, 14, 89}) &&
                                    has(object, support::bool_record(502, true)));
        } else {
            if (!is_one_of(type, {1,  7,  11, 12, 13, 14, 15, 22, 23, 24, 25, 26, 33,
                                  34, 36, 46, 59, 60, 61, 62, 64, 89, 90, 93, 94}))
                return false;
            marked = has(object, support::id_record(59, {1, 5}));
        }
        const size_t place = order_.size();
        order_.push_back({object.id, marked, object.id});
        for (const support::OldObject* child : children_[object.id]) visit(*child);
        if (!marked && order_.size() == place + 1) {
            order_.pop_back();
            return false;
        }
        order_[place].last = order_.back().id;
        return true;
    }

    uint32_t mark_;
    std::map<NodeId, std::vector<const support::OldObject*>> children_;
    std::vector<Entry> order_;
};

TEST(MarkRebuild, ListsOfRandomTreesAreThoseOfTheModel) {
    for (uint64_t seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        support::Rng rng(seed);
        std::vector<support::OldObject> objects{{{0, 1}, {}, 1, {}}};
        std::set<NodeId> stray{{0, 1}};
        const uint64_t count = 1 + rng.below(250);
        const uint64_t reach = 1 + rng.below(40);
        for (uint32_t n = 10; n < 10 + count; ++n) {
            // Low reach makes deep trees.
            const size_t above = objects.size() - 1 - rng.below(std::min(objects.size(), reach));
            support::OldObject object{{1, n}, objects[above].id, 0, {}};
            object.nodetype = rng.chance(60) ? 7 : static_cast<uint32_t>(1 + rng.below(95));
            object.records.push_back(support::bool_record(502, rng.chance(30)));
            if (rng.chance(20)) object.records.push_back(support::id_record(59, {1, 5}));
            // Of an earlier list, in which whoever stands below somebody has him in it too.
            if (stray.contains(object.parent) && rng.chance(60)) {
                stray.insert(object.id);
                object.records.push_back(support::mark_record(66, true, {1, 3}, {1, 4}, {1, 5}));
            }
            objects.push_back(object);
        }
        OldServer server(10, objects);
        logging::set_all_levels(logging::level_t::off);
        server.start();
        EXPECT_EQ(server.faults(), "");
        const Dump dump = server.dump();
        EXPECT_EQ(support::list_text(dump, 65), ListModel(objects, 65).text());
        EXPECT_EQ(support::list_text(dump, 66), ListModel(objects, 66).text());
    }
}

TEST(MarkRebuild, AnotherMarkIsRefused) {
    OldServer server(12);
    server.start();
    dbcache::StoredTree tree(server.parts());
    try {
        static_cast<void>(dbcache::rebuild_mark_list(tree, 67));
        ADD_FAILURE();
    } catch (const error::EFatal& refused) {
        EXPECT_EQ(refused.text(), "Unknown mark index: 67");
    }
}

// ---- verification ------------------------------------------------------------------------------

struct BrokenList {
    const char* what;
    NodeId object;
    /// Empty: the record is taken out.
    std::optional<mdb::MarkLinks> links;
    std::vector<std::string> texts;
};

std::vector<BrokenList> broken_lists() {
    return {
        {"next names nothing",
         {1, 32},
         mdb::MarkLinks{{1, 31}, {9, 9}, {1, 32}, true},
         {"Object 1.32 refers to nonexistant object 9.9"}},
        {"white object in the list",
         {1, 31},
         std::nullopt,
         {"Object 1.31 does not have activeMark even though 1.30 points to it"}},
        {"stretch ends too early",
         {1, 38},
         mdb::MarkLinks{{1, 37}, {1, 39}, {1, 39}, false},
         {"Object 1.38 does not have correct last pointer"}},
        {"stretch ends too late",
         {1, 36},
         mdb::MarkLinks{{1, 34}, {1, 37}, {1, 40}, false},
         {"Object 1.36 does not have correct last pointer"}},
        {"stretch ends nowhere",
         {1, 61},
         mdb::MarkLinks{{1, 60}, {1, 62}, {9, 9}, false},
         {"Object 1.61 does not have correct last pointer"}},
        {"link without a stretch",
         {1, 36},
         mdb::MarkLinks{{1, 34}, {1, 37}, {1, 36}, false},
         {"Object 1.36 does not have correct last pointer",
          "Object 1.36 does not have correct last pointer"}},
        {"list cut short",
         {1, 37},
         mdb::MarkLinks{{1, 36}, {}, {1, 37}, true},
         {"Object 1.37 has invalid next pointer"}},
        {"next leads back",
         {1, 37},
         mdb::MarkLinks{{1, 36}, {1, 20}, {1, 37}, true},
         {"Object 1.37 refers to already linked object 1.20"}},
        {"prev is wrong",
         {1, 37},
         mdb::MarkLinks{{1, 34}, {1, 38}, {1, 37}, true},
         {"Object 1.37 does not point back at 1.36"}},
        {"an object is passed over",
         {1, 37},
         mdb::MarkLinks{{1, 36}, {1, 39}, {1, 37}, true},
         {"Object 1.39 does not point back at 1.37",
          "Object 1.38 does not have correct last pointer"}},
        {"mark is wrong",
         {1, 37},
         mdb::MarkLinks{{1, 36}, {1, 38}, {1, 37}, false},
         {"Object 1.37 has activeMark with a wrong mark",
          "Object 1.37 does not have correct last pointer"}},
        {"record outside of the list",
         {1, 33},
         mdb::MarkLinks{{1, 32}, {1, 34}, {1, 33}, true},
         {"Object 1.33 has activeMark without a place in the list"}},
    };
}

TEST(MarkVerify, EachFaultIsNamed) {
    OldServer server(12);
    logging::set_all_levels(logging::level_t::off);
    server.start();
    const support::DiskImage whole = server.disk.seen();
    for (const BrokenList& fault : broken_lists()) {
        SCOPED_TRACE(fault.what);
        server.close();
        server.disk.load(whole);
        server.open();
        dbcache::StoredTree tree(server.parts());
        const mdb::block_handle_t place = tree.get(fault.object);
        if (fault.links) {
            const mdb::PropertyMarkIndex record(prop::activeMark, *fault.links);
            tree.rewrite(place, {&record});
        } else {
            tree.drop(place, prop::activeMark);
        }
        std::string expected;
        for (const std::string& text : fault.texts) {
            const auto at = tree.get(NodeId::parse(text.substr(7, text.find(' ', 7) - 7)));
            expected += fmt::format("block {} offset {}: K1 {}\n", at.block, at.offset, text);
        }
        EXPECT_EQ(server.faults(), expected);
        if (fault.object == NodeId{1, 33}) continue;  // not active, so nothing looks for it
        try {
            dbcache::verify_mark_lists(server.parts());
            ADD_FAILURE();
        } catch (const error::EFatal& found) {
            EXPECT_EQ(found.text(), fault.texts.front());
        }
    }
}

TEST(MarkVerify, AMissingListIsOneFaultAndNoneInADatabaseWithoutLists) {
    OldServer server(10);
    logging::set_all_levels(logging::level_t::off);
    server.open();
    EXPECT_EQ(server.faults(), "");
    server.start();
    dbcache::StoredTree tree(server.parts());
    tree.drop(tree.get({0, 1}), prop::inheritsMark);
    const std::string text = server.faults();
    EXPECT_NE(text.find("K2 The list is missing: Object "), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(MarkVerify, WhoIsActiveAndNotInTheListIsNamed) {
    OldServer server(12);
    logging::set_all_levels(logging::level_t::off);
    server.start();
    dbcache::StoredTree tree(server.parts());
    // 1.32 goes, and with it 1.31 and 1.30, which have nothing else in the list.
    const mdb::PropertyMarkIndex before(prop::activeMark, {{1, 10}, {1, 34}, {1, 40}, false});
    const mdb::PropertyMarkIndex behind(prop::activeMark, {{1, 20}, {1, 36}, {1, 34}, true});
    tree.rewrite(tree.get({1, 20}), {&before});
    tree.rewrite(tree.get({1, 34}), {&behind});
    for (const uint32_t id : {30U, 31U, 32U}) tree.drop(tree.get({1, id}), prop::activeMark);
    const std::string text = server.faults();
    EXPECT_NE(text.find("K1 Object 1.31 refers to white object 1.32"), std::string::npos) << text;
    try {
        dbcache::verify_mark_lists(server.parts());
        ADD_FAILURE();
    } catch (const error::EFatal& found) {
        EXPECT_EQ(found.text(), "Object 1.31 refers to white object 1.32");
    }
}

}  // namespace
