#include "query/selects.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <functional>
#include <stdexcept>

#include "common/folder.h"
#include "dbcache/fixed_ids.h"
#include "query/answer_wire.h"
#include "query/processor_time.h"
#include "query/tree.h"
#include "queues/event.h"
#include "queues/records/dbms_tql.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tql/query_text.h"
#include "tqlengine/requests.h"

namespace bench {

namespace {

constexpr const char* kWanted = "[name, label, infoUrl, active, order, snmpPort]";

/// Questions are made a few at a time, so that they are at hand as one that has just come in is,
/// and so that making them doesn't count.
constexpr size_t kAskedAtOnce = 64;

/// One question as both subjects get it.
struct Question {
    dbms::Tql_Select_Data request;
    SqlQuestion sql;
};

struct Subject {
    double processor_s = 0;
    std::vector<double> latencies_us;
};

/// The n-th of a hundred.
double percentile(const std::vector<double>& sorted, size_t n) {
    return sorted[std::min(sorted.size() - 1, sorted.size() * n / 100)];
}

class SelectRun {
    uint32_t random(uint32_t bound) {
        seed_ = seed_ * 6364136223846793005U + 1442695040888963407U;
        return static_cast<uint32_t>((seed_ >> 33) % bound);
    }
    template <class List>
    const auto& any_of(const List& list) {
        return list[random(static_cast<uint32_t>(list.size()))];
    }

  public:
    SelectRun(const std::string& folder, const SelectSizes& sizes)
        : sizes_(sizes), tree_(folder, {.regions = sizes.small_tree ? 1U : 10U}) {}

    std::map<std::string, Figures> run() {
        using make_t = std::function<Question()>;
        const std::vector<std::pair<std::string, make_t>> questions = {
            {"id", [this] { return by_id(any_of(tree_.checks).id); }},
            {"path", [this] { return by_path(any_of(tree_.checks)); }},
            {"site", [this] { return below(any_of(tree_.sites)); }},
            {"region", [this] { return below(any_of(tree_.regions)); }},
            {"root", [this] { return below(dbcache::kRootId); }},
            {"active", [this] { return active(); }},
            {"index", [this] { return of_master(random(tree_.masters())); }},
            {"walk", [this] { return high_order(); }},
        };
        for (const auto& [key, make] : questions) {
            if (!sizes_.only.empty() && sizes_.only != key) continue;
            const size_t objects = compare(make());
            const size_t times = std::max<size_t>(sizes_.objects / objects, 3);
            std::map<std::string, Subject> subjects;
            for (uint32_t round = 0; round < sizes_.rounds; ++round) {
                const uint64_t seed = seed_;
                for (const bool ours : {true, false}) {
                    seed_ = seed;  // both get the same questions
                    for (size_t left = times; left > 0; left -= std::min(left, kAskedAtOnce)) {
                        std::vector<Question> asked;
                        while (asked.size() < std::min(left, kAskedAtOnce)) asked.push_back(make());
                        if (ours)
                            measure(subjects["tarmik"], asked,
                                    [this](const Question& one) { ask_engine(one); });
                        else
                            measure(subjects["SQLite"], asked, [this](const Question& one) {
                                tree_.sqlite.ask(one.sql, bytes_);
                            });
                    }
                }
            }
            for (auto& [name, subject] : subjects) note(figures_[name], key, objects, subject);
        }
        return std::move(figures_);
    }

  private:
    // ---- the questions ------------------------------------------------------------------------

    static Question ask_at(const NodeId& root, const std::string& query, SqlQuestion sql) {
        Question made;
        made.request.root_ids.push_back(tql::id_t::from_node_id(root));
        made.request.pattern = tql::parse_pattern(query);
        made.sql = std::move(sql);
        return made;
    }

    static Question by_id(const NodeId& id) {
        return ask_at(id, fmt::format("Check{}", kWanted),
                      {sql_t::by_id, {SqliteObjects::number(id)}});
    }

    static Question by_path(const CheckPlace& place) {
        const auto& [region, site, node, check] = place.names;
        const std::string query = fmt::format(
            "Domain^ > Domain^{{siblingName = \"{}\"}} > Domain^{{siblingName = \"{}\"}} > "
            "Node^{{siblingName = \"{}\"}} > Check{}{{siblingName = \"{}\"}}",
            region, site, node, kWanted, check);
        return ask_at(
            dbcache::kRootId, query,
            {sql_t::by_path, {SqliteObjects::number(dbcache::kRootId), region, site, node, check}});
    }

    static Question below(const NodeId& domain) {
        return ask_at(domain, fmt::format(".*{}", kWanted),
                      {sql_t::below, {SqliteObjects::number(domain)}});
    }

    static Question checks_where(const std::string& condition, SqlQuestion sql) {
        return ask_at(dbcache::kRootId,
                      fmt::format("Domain*^ > Node^ > Check{}{{{}}}", kWanted, condition),
                      std::move(sql));
    }

    static Question active() {
        return checks_where("active = true",
                            {sql_t::active_below, {SqliteObjects::number(dbcache::kRootId)}});
    }

    static Question of_master(uint32_t number) {
        const NodeId master = QueryTree::master(number);
        return checks_where(
            fmt::format("masterId = \"{}\"", master.to_string()),
            {sql_t::master_below,
             {SqliteObjects::number(dbcache::kRootId), SqliteObjects::number(master)}});
    }

    static Question high_order() {
        constexpr uint32_t bound = QueryTree::kOrders / 100 * 99;
        return checks_where(
            fmt::format("order >= {}", bound),
            {sql_t::order_below,
             {SqliteObjects::number(dbcache::kRootId), int64_t{bound}, int64_t{cls::Check}}});
    }

    // ---- asking -------------------------------------------------------------------------------

    /// From the request to the last byte of the answer's event.
    void ask_engine(const Question& question) {
        tqlengine::RequestContext context = tree_.world.reading();
        tqlengine::SelectReport report;
        const tqlengine::SelectEvent answer(queues::queue_t::none, 0,
                                            process_select(question.request, context, report));
        if (answer.content.status != 0) throw std::runtime_error("a select failed");
        wire_.write(answer);
    }

    template <class Ask>
    static void measure(Subject& subject, const std::vector<Question>& asked, Ask&& ask) {
        const double before = processor_seconds();
        for (const Question& question : asked) {
            const auto start = std::chrono::steady_clock::now();
            ask(question);
            const std::chrono::duration<double, std::micro> took =
                std::chrono::steady_clock::now() - start;
            subject.latencies_us.push_back(took.count());
        }
        subject.processor_s += processor_seconds() - before;
    }

    static void note(Figures& figures, const std::string& key, size_t objects, Subject& subject) {
        std::vector<double>& latencies = subject.latencies_us;
        std::sort(latencies.begin(), latencies.end());
        figures[key + "_rate"] =
            static_cast<double>(objects * latencies.size()) / subject.processor_s;
        figures[key + "_p50"] = percentile(latencies, 50);
        figures[key + "_p99"] = percentile(latencies, 99);
        figures[key + "_max"] = latencies.back();
    }

    // ---- holding the answers against each other -------------------------------------------------

    static void collect(const tql::result_t& node, std::vector<std::string>& lines) {
        const auto value = [&](uint32_t number) -> const tql::property_t& {
            return *node.properties.at(number).get();
        };
        // The root has none of the values, and what is spliced out of the result no properties.
        const NodeId id = node.id.to_node_id();
        if (id != dbcache::kRootId && !node.properties.empty())
            lines.push_back(object_line(
                id, tql::as_string(value(prop::name)), tql::as_string(value(prop::label)),
                tql::as_string(value(prop::infoUrl)), tql::as_boolean(value(prop::active)),
                tql::as_uint(value(prop::order)), tql::as_uint(value(prop::snmpPort))));
        for (const tql::result_t& child : node.children) collect(child, lines);
    }

    /// Gives the number of objects in the answer.
    size_t compare(const Question& question) {
        tqlengine::RequestContext context = tree_.world.reading();
        tqlengine::SelectReport report;
        std::vector<std::string> ours;
        const tqlengine::SelectEvent answer(queues::queue_t::none, 0,
                                            process_select(question.request, context, report));
        const auto received = queues::as_received(answer);
        for (const tql::result_t& root : queues::data<queues::RETURN_TQL_SELECT>(*received).res)
            collect(root, ours);
        std::vector<std::string> theirs = tree_.sqlite.lines(question.sql);
        std::erase_if(theirs, [](const std::string& line) {
            return line.starts_with(dbcache::kRootId.to_string() + " ");
        });
        std::sort(ours.begin(), ours.end());
        std::sort(theirs.begin(), theirs.end());
        if (ours.empty() || ours != theirs)
            throw std::runtime_error(
                fmt::format("answers differ: {} objects and {} of SQLite for {}", ours.size(),
                            theirs.size(), tql::pattern_log_text(question.request.pattern)));
        return ours.size();
    }

    const SelectSizes& sizes_;
    QueryTree tree_;
    std::map<std::string, Figures> figures_;
    std::vector<uint8_t> bytes_;
    AnswerWire wire_;
    uint64_t seed_ = 7;
};

}  // namespace

std::vector<Row> select_rows() {
    const std::pair<const char*, const char*> questions[] = {
        {"id", "one object by id"},
        {"path", "one object by the path of names"},
        {"site", "all below a domain, 526"},
        {"region", "all below a domain, 10 520"},
        {"root", "all below the root"},
        {"active", "active checks below the root, by index"},
        {"index", "the 100 checks of an indexed value"},
        {"walk", "1 check in 100 by a value without index"},
    };
    std::vector<Row> rows;
    for (const auto& [name, title] : questions) {
        const std::string key = name;
        rows.push_back({.key = key + "_rate",
                        .title = fmt::format("{}, 1/s", title),
                        .aims = {{"SQLite", 2}}});
        for (const char* latency : {"p50", "p99", "max"})
            rows.push_back({.key = key + "_" + latency,
                            .title = fmt::format("  {}, us", latency),
                            .better = better_t::less,
                            .decimals = 1});
    }
    return rows;
}

std::map<std::string, Figures> measure_selects(const std::string& base, const SelectSizes& sizes) {
    const Folder folder(base);
    return SelectRun(folder.path(), sizes).run();
}

}  // namespace bench
