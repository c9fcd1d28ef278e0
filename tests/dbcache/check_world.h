// A tree with one host and its checks, for the tests of the classes of checks.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <map>
#include <string>

#include "support/test_store.h"
#include "tql/enumerations.h"
#include "tql/property_map.h"

namespace dbcache_test {

inline tql::value_t real(uint32_t property, double value) {
    return std::make_unique<tql::property_real_t>(property, value);
}
inline tql::value_t choice(uint32_t property, uint32_t value) {
    const uint32_t id = tql::find_property_row(property)->usual_kind.enumeration;
    return std::make_unique<tql::property_enum_t>(property, id, value, 0U);
}
inline tql::value_t oid(uint32_t property, std::vector<uint32_t> value) {
    return std::make_unique<tql::property_oid_t>(property, std::move(value));
}

template <class... Given>
Values list(Given... given) {
    Values made;
    (made.push_back(std::move(given)), ...);
    return made;
}

class CheckWorld : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    tql::id_t group(uint32_t number) const {
        tql::id_t id = tql::id_t::from_node_id(host);
        id.push_back(number);
        return id;
    }
    NodeId agent_group(const tql::id_t& parent, const std::string& agent_id,
                       const std::string& name, const std::string& format = "") {
        Values values = list(text(prop::agentId, agent_id), text(prop::name, name));
        if (!format.empty()) values.push_back(text(prop::checkNameFormat, format));
        return world.create(parent, cls::CheckGroup, values);
    }
    NodeId agent_group(const NodeId& parent, const std::string& agent_id, const std::string& name) {
        return agent_group(tql::id_t::from_node_id(parent), agent_id, name);
    }
    NodeId agent_check(const NodeId& parent, uint32_t type, const std::string& name,
                       bool active = false) {
        return world.create(parent, cls::Check,
                            list(choice(prop::checkType, type), text(prop::agentId, name),
                                 text(prop::name, name), flag(prop::active, active)));
    }
    NodeId net_check(uint32_t type, Values more = {}) {
        more.push_back(choice(prop::remoteType, type));
        return world.create(group(0), cls::Check, more);
    }
    /// The code and text with which `action` fails; empty when it doesn't.
    template <class Action>
    static std::string failure(Action&& action) {
        try {
            action();
        } catch (const errors::tql& refused) {
            return fmt::format("{} {}", static_cast<uint32_t>(refused.code()), refused.text());
        }
        return "";
    }

    TestStore world;
    const NodeId host = world.node(dbcache::kRootId, "web1");
};

}  // namespace dbcache_test
