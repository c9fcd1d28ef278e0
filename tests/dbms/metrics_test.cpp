// The metrics of the server, asked for as another process does: what there is, and that each one
// counts what its name says.
#include <gtest/gtest.h>
#include <map>
#include <set>

#include "dbms/event_meters.h"
#include "meter/meter.h"
#include "queues/introspection.h"
#include "queues/records/control.h"
#include "test_family.h"
#include "tql/query_text.h"

namespace dbms {
namespace {

using queues::queue_t;
using Path = std::list<std::string>;

Path split(std::string_view text) {
    Path path(1);
    for (const char sign : text) {
        if (sign == '/')
            path.emplace_back();
        else
            path.back() += sign;
    }
    return path;
}

class MetricsTest : public testing::Test, protected dbms_test::TestFamily {
  protected:
    MetricsTest() {
        settle();
        const auto told = main.read();
        EXPECT_EQ(told->number(), queues::SUPPORTS_METRICS);
        EXPECT_EQ(told->uid, queues::kNoReply);
    }

    template <queues::event_t N>
    std::unique_ptr<queues::event> ask(queues::record_t<N> record) {
        queues::devent<N> asked(queue_t::main, 77, std::move(record));
        EXPECT_TRUE(introspection.consumed(asked));
        settle();
        auto answer = main.read();
        EXPECT_EQ(answer->uid, 77U);
        return answer;
    }
    /// A counter or gauge, the count of a timing, or the text of the error.
    std::string get(std::string_view path) {
        const auto answer = ask<queues::GET_METRIC>({.id = split(path)});
        if (answer->number() == queues::RETURN_METRIC_UINT64)
            return std::to_string(queues::data<queues::RETURN_METRIC_UINT64>(*answer));
        if (answer->number() == queues::RETURN_METRIC_TIMING)
            return std::to_string(queues::data<queues::RETURN_METRIC_TIMING>(*answer).count);
        return queues::data<queues::RETURN_METRIC_ERROR>(*answer);
    }

    void do_all_sorts_of_work() {
        using dbcache_test::failure;
        using dbcache_test::text;
        store.store->cache().cache_set_limits(20, 40, 80);
        std::vector<NodeId> hosts;
        for (int i = 0; i < 600; ++i)
            hosts.push_back(store.node(dbcache::kRootId, fmt::format("host {}", i)));
        EXPECT_NE(failure([&] { store.node(dbcache::kRootId, "host 7"); }), "");
        for (int round = 0; round < 4; ++round) {
            for (size_t i = 0; i < hosts.size(); ++i) {
                const std::string label(static_cast<size_t>(round * 60) + i % 40, 'x');
                store.update(hosts[i], {text(prop::label, label)});
                EXPECT_NE(store.value(hosts[i], prop::label), "null");
            }
            store.database->journal().journal_checkpoint();
        }
        for (size_t i = 0; i < hosts.size(); i += 3) store.remove(hosts[i]);
        for (const char* query : {"Node", "Node{siblingName = \"host 1\"}"})
            EXPECT_FALSE(store.children(dbcache::kRootId, tql::parse_pattern(query)).empty());
        {
            const dbcache::StoreTransaction dropped(*store.store);
            EXPECT_TRUE(store.indexes->unique_find(mdb::node_id_index, hosts[1]));
        }
        EXPECT_EQ(store.fault(), "");
    }

    meter::Tree tree{"dbms"};
    queues::Introspection introspection{queue, tree, store.clock};
};

TEST_F(MetricsTest, TablesShowAnInstanceAndSayWhatIsMissing) {
    meters.add(queue_t::wapi, queues::TQL_SELECT, 10);
    meters.add(queue_t::wapi, queues::TQL_CREATE, 30);
    meters.add(queue_t::alrm, queues::TQL_SELECT, 5);
    meters.add_subscription(queue_t::alrm, queue_t::wapi, 7);
    meters.add_subscription(queue_t::alrm, queue_t::wapi, 9);
    meters.add_subscription(queue_t::tsdb, queue_t::tsdb, 1);
    const std::map<std::string, std::string> expected{
        {"event/time", "3"},
        {"dbms/event/time", "3"},
        {"dbms/dbms/event/time", "Unknown metric"},
        {"event/proc/wapi/time", "2"},
        {"event/proc/wapi/pasv_time", "0"},
        {"event/proc/wapi/trig_time", "2"},
        {"event/proc/alrm/pasv_time", "2"},
        {"event/proc/tsdb/time", "0"},
        {"event/proc/wapi/subscr/alrm/time", "2"},
        {"event/proc/tsdb/subscr/tsdb/time", "1"},
        {"event/proc/tsdb/subscr/alrm/time", "No such instance"},
        {"event/proc/snmp/time", "No such instance"},
        {"event/proc/time", "No such instance"},
        {"event/type/TQL_SELECT/time", "2"},
        {"event/type/TQL_DELETE/time", "No such instance"},
        {"event/type/TQL_SELECT", "Unknown metric"},
        {"event/type", "Unknown metric"},
        {"event", "Unknown metric"},
        {"dbms", "Unknown metric"},
        {"", "Unknown metric"},
        {"event/time/more", "Unknown metric"},
        {"event/nothing", "Unknown metric"},
    };
    for (const auto& [path, value] : expected) EXPECT_EQ(get(path), value) << path;
    const auto timing = ask<queues::GET_METRIC>({.id = split("event/proc/wapi/trig_time")});
    const auto& value = queues::data<queues::RETURN_METRIC_TIMING>(*timing);
    EXPECT_EQ((std::vector{value.count, value.min, value.max, value.sum, value.sum_squares}),
              (std::vector<uint64_t>{2, 7, 9, 16, 130}));
    EXPECT_EQ(std::to_string(expected.size() + 1), get("metering/time"));

    const auto type = ask<queues::GET_METRIC_TYPE>({.id = split("event/proc/wapi/time")});
    const auto& metric = queues::data<queues::RETURN_GET_METRIC_TYPE>(*type);
    EXPECT_EQ(metric.name, "time");
    EXPECT_EQ(metric.unit, "us");
    EXPECT_EQ(metric.desc, "The time spent processing events originating from this process");
    EXPECT_EQ(metric.type, static_cast<uint32_t>(meter::type_t::timing));
    EXPECT_EQ(ask<queues::GET_METRIC_TYPE>({.id = {"event"}})->number(),
              queues::RETURN_METRIC_ERROR);
    queues::devent<queues::GET_TQL_CLASS_NAMES> other(queue_t::main, 7);
    EXPECT_FALSE(introspection.consumed(other));
}

/// Every path of a described tree, with the sort of the metric; tables stand for all instances.
void collect(const control::Metric_Group& group, const std::string& above,
             std::map<std::string, uint32_t>& out) {
    for (const auto& inner : group.groups) collect(inner, above + inner.name + "/", out);
    for (const auto& table : group.tables)
        collect(table.group, above + table.group.name + "/*/", out);
    for (const auto& metric : group.metrics) out[above + metric.name] = metric.type;
}

TEST_F(MetricsTest, EveryMetricIsListedAndMovesWithTheWorkOfTheServer) {
    const std::set<std::string> counters{"objcache/hits",
                                         "objcache/misses",
                                         "objcache/rehashes",
                                         "objcache/slowjumps",
                                         "dbcache/children",
                                         "dbcache/children_count",
                                         "dbcache/with_sibling",
                                         "dbcache/with_sibling_found",
                                         "dbcache/create_fails",
                                         "dbcache/load_inside_tx",
                                         "dbcache/load_outside_tx",
                                         "dbcache/num_cache_objs",
                                         "queues/noblockings",
                                         "index/uniq_direct_search",
                                         "index/uniq_generic_search",
                                         "journal/aborts",
                                         "journal/bytes",
                                         "journal/commits",
                                         "journal/flips",
                                         "buffercache/hits",
                                         "buffercache/misses",
                                         "alloc/bloads",
                                         "alloc/hint_calls",
                                         "alloc/hintfail",
                                         "alloc/lastfail",
                                         "alloc/nohint_calls"};
    const std::set<std::string> gauges{"objcache/a1in", "objcache/a1out", "objcache/am",
                                       "buffercache/size"};
    const std::set<std::string> timings{"event/time",
                                        "event/proc/*/time",
                                        "event/proc/*/pasv_time",
                                        "event/proc/*/trig_time",
                                        "event/proc/*/subscr/*/time",
                                        "event/type/*/time",
                                        "dbcache/primary_key_time",
                                        "dbcache/time/encode",
                                        "queues/blockings",
                                        "metering/time",
                                        "journal/sync"};
    const auto list = ask<queues::LIST_METRICS>(0);
    std::map<std::string, uint32_t> listed;
    const auto& root = queues::data<queues::RETURN_LIST_METRICS>(*list);
    EXPECT_EQ(root.name, "dbms");
    collect(root, "", listed);
    std::map<std::string, uint32_t> expected;
    for (const std::string& path : counters) expected[path] = 0;
    for (const std::string& path : gauges) expected[path] = 1;
    for (const std::string& path : timings) expected[path] = 2;
    EXPECT_EQ(listed, expected);

    std::map<std::string, std::string> before;
    for (const auto& [path, type] : expected)
        if (path.find('*') == path.npos) before[path] = get(path);
    before.erase("event/time");        // counted above
    before.erase("queues/blockings");  // needs a process that answers
    before.erase("queues/noblockings");
    do_all_sorts_of_work();
    for (const auto& [path, value] : before) EXPECT_NE(get(path), value) << path;
}

}  // namespace
}  // namespace dbms
