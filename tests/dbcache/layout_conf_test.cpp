// The layout file that is delivered fits the classes that the server has: whoever adds a class
// finds here that people can't see it yet.
#include <cstdlib>
#include <gtest/gtest.h>
#include <set>

#include "dbcache/schema/declare_all.h"
#include "dbcache/schema_table.h"
#include "tqlengine/layout_file.h"

namespace dbcache {
namespace {

/// What every object has whatever its class.
constexpr uint32_t kOfEveryObject[] = {prop::id, prop::version, prop::parentId};

class LayoutConf : public testing::Test {
  protected:
    LayoutConf() {
        schema::declare_all(table_);
        for (uint32_t number = 0; number < nodetype::kCount; ++number) {
            const NodetypeSchema* schema = table_.find(number);
            if (schema == nullptr) continue;
            auto& properties = classes[schema->tql_class];
            properties.insert(std::begin(kOfEveryObject), std::end(kOfEveryObject));
            for (const auto& entry : schema->properties()) properties.insert(entry.property);
        }
    }

    /// By class, the properties that some nodetype of it has.
    std::map<uint32_t, std::set<uint32_t>> classes;

  private:
    SchemaTable table_;
};

TEST_F(LayoutConf, NamesWhatIsThereAndAllOfIt) {
    const char* source = std::getenv("TARMIK_SOURCE");
    if (source == nullptr) GTEST_SKIP() << "TARMIK_SOURCE tells where the file is";
    std::set<uint32_t> seen;
    for (const auto& layout :
         tqlengine::read_layout_file(std::string(source) + "/conf/layout.conf")) {
        SCOPED_TRACE(layout.name);
        const auto own_class = tql::find_class(layout.name);
        ASSERT_TRUE(own_class) << "no such class";
        EXPECT_TRUE(seen.insert(*own_class).second) << "a second layout";
        std::set<std::pair<std::string, std::string>> shown;
        for (const auto& group : layout.groups)
            for (const auto& property : group.properties) {
                SCOPED_TRACE(property.class_name + " " + property.name);
                EXPECT_TRUE(shown.emplace(property.class_name, property.name).second)
                    << "a second time";
                const auto holder =
                    property.class_name.empty() ? own_class : tql::find_class(property.class_name);
                ASSERT_TRUE(holder) << "no such class";
                const auto number = tql::find_property(property.name);
                ASSERT_TRUE(number) << "no such property";
                // Of computed classes, and of those that are still to come, no table tells more.
                const auto known = classes.find(*holder);
                EXPECT_TRUE(known == classes.end() || known->second.contains(*number))
                    << "the class has no such property";
            }
    }
    for (const auto& [stored_class, properties] : classes)
        EXPECT_TRUE(seen.contains(stored_class))
            << "conf/layout.conf says nothing of " << tql::class_name(stored_class);
}

}  // namespace
}  // namespace dbcache
