// What references in a node class mean to an object that follows it, asked by event.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "dbms/dispatcher.h"
#include "test_family.h"
#include "tql/enumerations.h"

using namespace dbms;
using dbcache_test::object;
using dbcache_test::text;
using queues::queue_t;

namespace {

class NodeClassTranslate : public testing::Test, protected dbms_test::TestFamily {
  protected:
    void TearDown() override { EXPECT_EQ(store.fault(), ""); }

    NodeId config(const std::string& tag) {
        return store.create(checks, cls::NodeClassCheckConfig, {text(prop::tag, tag)});
    }
    /// A check of the host by ping that follows `model`.
    NodeId ping(const std::string& name, const NodeId& model) {
        return store.create(group, cls::Check,
                            {text(prop::remoteName, name), object(prop::inherits, model),
                             std::make_unique<tql::property_enum_t>(
                                 prop::remoteType, tql::enumeration::RemcheckType, 2U, 0U)});
    }
    /// The candidates of each reference, "-" for the empty id; or the failure.
    std::string ask(const tql::id_t& id, const tql::id_t& place, const NodeId& inherits,
                    std::list<tql::id_t> references) {
        queues::devent<queues::NODECLASS_TRANSLATE> received(
            queue_t::main, 7,
            {id, place, tql::id_t::from_node_id(inherits), std::move(references)});
        dispatcher.dispatch(received);
        settle();
        const auto answer = main.read();
        if (const auto* failure = dynamic_cast<const queues::exevent*>(answer.get()))
            return failure->text;
        std::string all;
        for (const auto& step : queues::data<queues::RETURN_NODECLASS_TRANSLATE>(*answer).ids)
            all += (step.inside   ? " "
                    : all.empty() ? "["
                                  : "] [") +
                   (step.id.empty() ? "-" : step.id.to_string());
        return all + "]";
    }
    static tql::id_t id_of(const NodeId& id) { return tql::id_t::from_node_id(id); }

    const NodeId host = store.node(dbcache::kRootId, "host");
    const tql::id_t group{host.first, host.second, 0};
    const NodeId node_class =
        store.create(dbcache::kRootId, cls::NodeClass, {text(prop::name, "class")});
    const NodeId top = store.create(node_class, cls::NodeClassNodeConfig, {});
    const NodeId checks = store.create(top, cls::NodeClassCheckGroupConfig, {});
    const NodeId A = config("A");
    const NodeId B = config("B");
    const NodeId C = config("C");
    Dispatcher dispatcher{services, make_event_table(), trace, [] { return Leftovers{}; }};
};

TEST_F(NodeClassTranslate, AnswersEachReferenceForAnObjectThatIsThereAndOneThatIsNot) {
    const NodeId a = ping("a", A);
    const NodeId b = ping("b", B);
    const NodeId b_2 = ping("b 2", B);
    const std::list<tql::id_t> asked{id_of(B),    id_of(A), id_of(C), id_of(top),
                                     id_of(host), group,    {7, 7}};
    const std::string rest =
        fmt::format("[{1}] [{2} {0}] [{0} {0}] [{0}.0 {0}.0] [7.7 7.7]", host, C, top);
    const std::string both_b = fmt::format("[{} {} {}]", B, b, b_2);
    EXPECT_EQ(ask(id_of(a), {}, A, asked), fmt::format("{} [{} {}] {}", both_b, A, a, rest));
    // In its place in the group the new object would stand for what it follows.
    EXPECT_EQ(ask({}, group, C, asked), fmt::format("{} [{} {}] [{} -] {}", both_b, A, a, C,
                                                    rest.substr(rest.find("] [") + 2)));
    EXPECT_EQ(ask({}, id_of(dbcache::kRootId), C, {id_of(B)}), fmt::format("[{0} {0}]", B))
        << "under no node";
    EXPECT_EQ(ask(id_of(a), {}, A, {}), "]");
}

TEST_F(NodeClassTranslate, FailsForWhatIsNotThereAndAcrossClasses) {
    const NodeId a = ping("a", A);
    const NodeId other = store.create(dbcache::kRootId, cls::NodeClass, {text(prop::name, "2")});
    const NodeId foreign = store.create(other, cls::NodeClassNodeConfig, {});
    EXPECT_NE(ask({7, 7}, {}, A, {id_of(B)}).find("7.7 not found"), std::string::npos);
    EXPECT_NE(ask({}, {7, 7}, A, {id_of(B)}).find("7.7 not found"), std::string::npos);
    EXPECT_NE(ask(id_of(a), {}, A, {id_of(foreign)})
                  .find("Cross-nodeclass reference in " + a.to_string()),
              std::string::npos);
}

}  // namespace
