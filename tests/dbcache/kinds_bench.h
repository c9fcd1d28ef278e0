// The bench on which single kinds of properties are tried: one object, its source of inherited
// values and the root, behind the interfaces that a schema sees.
#pragma once

#include <gtest/gtest.h>

#include "dbcache/property_schema.h"
#include "fake_tree.h"

namespace dbcache::test {

inline const NodeId kRoot{0, 1};
inline const NodeId kSelf{1, 10};
inline const NodeId kSource{1, 20};

class KindsBench : public ::testing::Test {
  protected:
    static FakeTree world() {
        FakeTree made;
        made.add(kRoot, cls::Domain, {});
        made.add(kSelf, cls::Node, kRoot);
        made.add(kSource, cls::NodeClass, kRoot);
        return made;
    }

    /// Assigns a client's value and validates it; the failure as text.
    std::string take(const PropertySchema& schema, const tql::property_t& value, work_t& work) {
        return failure_of([&] {
            schema.assign(value, object, chain, work);
            schema.validate(object, chain, work);
        });
    }
    std::string take(const PropertySchema& schema, const tql::property_t& value) {
        work_t work;
        return take(schema, value, work);
    }
    /// Stores `work` as the object's only record of the property.
    void store(const PropertySchema& schema, const work_t& work) {
        Records& records = tree.objects[kSelf].records;
        records.erase(schema.property);
        FakeSink sink(records);
        schema.store(kSelf, chain, work, {}, sink);
    }
    tql::value_t read(const PropertySchema& schema) {
        tql::property_map_t out;
        schema.encode(chain, kSelf, out);
        return out.empty() ? tql::value_t() : out.begin()->second;
    }
    /// "null" or the value, with "inherited " ahead.
    std::string shown(const PropertySchema& schema) {
        const tql::value_t value = read(schema);
        if (!value) return "nothing";
        return ((value->flags & kInherited) != 0 ? "inherited " : "") +
               (value->is_null ? "null" : value->print());
    }

    FakeTree tree = world();
    FakeObject object{tree, kSelf};
    FakeChain chain{tree, kSelf};
};

}  // namespace dbcache::test
