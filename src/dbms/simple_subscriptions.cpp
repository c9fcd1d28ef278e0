#include "dbms/simple_subscriptions.h"

#include <algorithm>
#include <fmt/format.h>
#include <list>
#include <optional>

#include "error/exception.h"
#include "log/log.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tqlengine/way_up.h"

namespace dbms {

namespace {

const logging::Logger logger{"dbms_tql"};

/// Runs `ask`. What fails it is damage above the object, of which the log is told.
template <class Ask>
void tell_unless_damaged(const tqlengine::TqlObjectHandler& object, Ask&& ask) {
    const auto cut_short = [&](const std::string& why) {
        logger.warning("Can't tell where {} stands: {}", object.tqlId().to_string(), why);
    };
    try {
        ask();
    } catch (const errors::tql& failure) {
        cut_short(failure.text());
    } catch (const errors::stdanomaly& failure) {
        cut_short(failure.text());
    }
}

/// From the object to the top.
std::list<path_entry_t> path_of(tqlengine::TqlObjectHandler& object) {
    std::list<path_entry_t> path;
    tell_unless_damaged(object, [&] {
        for (tqlengine::WayUp step{tqlengine::HandlerRef(&object)}; step; step.up())
            path.push_back({step.id(), step->class_number()});
    });
    return path;
}

}  // namespace

void SimpleSubscriptions::add(queues::queue_t sibling, uint32_t request_id,
                              const Tql_Simple_Subscribe_Data& request) {
    const std::pair key{sibling, request_id};
    if (entries_.contains(key)) throw errors::db_anomaly("Duplicate simple subscription");
    Entry entry{request.classes, request.classes.contains(cls::Any), 0,
                request.include_own_operations, request.root};
    for (const uint32_t operation : request.operations) {
        error::check(operation < 32, "Arithmetic overflow, obj_operation_t out of range");
        entry.operations |= uint32_t{1} << operation;
    }
    size_t& count = counts_[sibling];
    if (count == kMostPerSibling)
        throw errors::db_anomaly(
            fmt::format("{} has {} simple subscriptions already, the most that are kept",
                        queues::queue_name(sibling), count));
    entries_.emplace(key, std::move(entry));
    ++count;
}

bool SimpleSubscriptions::remove(queues::queue_t sibling, uint32_t request_id) {
    if (entries_.erase({sibling, request_id}) == 0) return false;
    --counts_.at(sibling);
    return true;
}

size_t SimpleSubscriptions::remove_all_of(queues::queue_t sibling) {
    counts_.erase(sibling);
    return std::erase_if(entries_, [&](const auto& entry) { return entry.first.first == sibling; });
}

void SimpleSubscriptions::notify(tqlengine::TqlObjectHandler& object,
                                 tqlengine::object_operation_t operation, queues::queue_t current,
                                 const Send& send) const {
    const auto number = static_cast<uint32_t>(operation);
    std::optional<std::list<path_entry_t>> path;
    for (const auto& [key, entry] : entries_) {
        const auto& [sibling, request_id] = key;
        if (!entry.include_own_operations && sibling == current) continue;
        if ((entry.operations >> number & 1) == 0) continue;
        if (!entry.all_classes && !entry.classes.contains(object.class_number())) continue;
        if (!path) path = path_of(object);
        if (std::none_of(path->begin(), path->end(),
                         [&](const path_entry_t& step) { return step.id == entry.root; }))
            continue;
        logger.debug(" Notifying {} because of op{} on object {} from {}",
                     queues::queue_name(sibling), number, object.tqlId().to_string(),
                     queues::queue_name(current));
        tql::origin_t origin;
        tell_unless_damaged(object, [&] { origin = object.tqlOrigin(); });
        send(sibling, request_id, {number, origin, *path});
    }
}

}  // namespace dbms
