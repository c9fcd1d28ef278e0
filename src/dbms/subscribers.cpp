#include "dbms/subscribers.h"

#include <algorithm>
#include <fmt/format.h>

#include "error/exception.h"
#include "io/exception.h"
#include "log/log.h"
#include "tql/errors.h"
#include "tqlengine/requests.h"

namespace dbms {

namespace {

const logging::Logger logger{"dbms_tql"};

/// A subscriber is evaluated at most during a sixth of the time, whatever it asked for.
constexpr uint64_t kRestPerEvaluation = 5;
/// Some thirty years; no interval needs more, and sums of moments don't overflow.
constexpr uint64_t kLongestInterval_s = 1'000'000'000;

}  // namespace

// ---- what subscribers ask for -------------------------------------------------------------------

void Subscribers::subscribe(queues::queue_t sibling, uint32_t request_id, Tql_Select_Data request) {
    drop_lost();
    const Key key{sibling, request_id};
    if (refuse_one_too_many(key)) return;
    const uint32_t id =
        subscribed_selects_.empty() ? 1 : std::prev(subscribed_selects_.end())->first + 1;
    error::check(id != 0, "No subscription id is left");
    logger.debug("New TQL subscribtion got id {}", id);
    if (const auto earlier = ids_.find(key); earlier != ids_.end())
        end(subscribed_selects_.find(earlier->second));
    ids_.emplace(key, id);
    ++counts_[sibling];
    Subscription& made =
        subscribed_selects_.emplace(id, Subscription(key, std::move(request))).first->second;
    select(id, made);
    drop_lost();
}

bool Subscribers::refuse_one_too_many(const Key& key) {
    const auto count = counts_.find(key.first);
    if (count == counts_.end() || count->second < kMostPerSibling || ids_.contains(key))
        return false;
    const std::string text = fmt::format("{} has {} subscriptions already, the most that are kept",
                                         queues::queue_name(key.first), count->second);
    logger.error("TQL SELECT error ({}): {}", static_cast<uint32_t>(errors::ERR_NOT_IMPLEMENTED),
                 text);
    Return_Tql_Select_Data reply;
    reply.status = errors::ERR_NOT_IMPLEMENTED;
    reply.details.push_back({tqlengine::kDetailError, text});
    send<queues::devent<queues::RETURN_TQL_SELECT>>(key, std::move(reply));
    drop_lost();
    return true;
}

void Subscribers::acknowledge(queues::queue_t sibling, uint32_t request_id) {
    drop_lost();
    logger.debug("Got subscription acknowledge");
    const auto known = ids_.find({sibling, request_id});
    if (known == ids_.end()) return;
    const uint32_t id = known->second;
    const auto found = subscribed_selects_.find(id);
    error::check(found != subscribed_selects_.end(),
                 "res != subscribed_selects.end() in ev_tql_acknowledge");
    Subscription& subscription = found->second;
    if (!std::exchange(subscription.waiting, false))
        logger.debug("Not waiting for acknowledge, ignoring");
    const std::optional<queues::queue_t> cause = std::exchange(subscription.pending, std::nullopt);
    if (!cause) {
        logger.debug("No update right now");
        return;
    }
    logger.debug("Evaluating right away");
    if (!defer_if_too_early(id, subscription, *cause)) evaluate_again(id, subscription, *cause);
    drop_lost();
}

void Subscribers::forget(queues::queue_t sibling, uint32_t request_id) {
    drop_lost();
    if (const auto known = ids_.find({sibling, request_id}); known != ids_.end())
        end(subscribed_selects_.find(known->second));
    else if (!simple_.remove(sibling, request_id))
        throw errors::db_anomaly("Attempting to forget unknown subscription");
}

// The id may be given again, so nothing that bears it stays behind.
void Subscribers::end(Selects::iterator subscription) {
    const auto& [id, its] = *subscription;
    parts_.engine.subscriptions().forget(id);
    if (its.deferred) deferred_.erase({its.deferred->due_us, id});
    if (--counts_.at(its.key.first) == 0) counts_.erase(its.key.first);
    ids_.erase(its.key);
    subscribed_selects_.erase(subscription);
}

void Subscribers::drop(queues::queue_t sibling) {
    size_t ended = simple_.remove_all_of(sibling);
    for (auto mine = ids_.lower_bound({sibling, 0});
         mine != ids_.end() && mine->first.first == sibling; ++ended)
        end(subscribed_selects_.find((mine++)->second));
    if (ended > 0)
        logger.info("Ended {} subscriptions of {}, which is gone", ended,
                    queues::queue_name(sibling));
}

void Subscribers::drop_lost() {
    while (!lost_.empty()) drop(lost_.extract(lost_.begin()).value());
}

// ---- what the server does for them --------------------------------------------------------------

void Subscribers::notify(tqlengine::TqlObjectHandler& object,
                         tqlengine::object_operation_t operation,
                         queues::queue_t current) noexcept {
    if (shutting_down_) return;
    drop_lost();
    simple_.notify(object, operation, current,
                   [this](queues::queue_t sibling, uint32_t request_id,
                          Return_Tql_Simple_Subscribe_Data&& record) {
                       send<queues::devent<queues::RETURN_TQL_SIMPLE_SUBSCRIBE>>(
                           {sibling, request_id}, std::move(record));
                   });
    drop_lost();
}

void Subscribers::tqlPeriodicUpdate(queues::queue_t sender, std::string_view caused_by) {
    drop_lost();
    tqlengine::Subscriptions& due = parts_.engine.subscriptions();
    while (const auto patch = due.take_patch()) give_patch(*patch, sender, caused_by);
    while (const auto id = due.take_reevaluation()) {
        error::check(*id != 0, "Someone put 0 in list of subscribers req_id's");
        reevaluate(*id, sender);
    }
    drop_lost();
}

void Subscribers::give_patch(const tqlengine::Subscriptions::Patch& patch, queues::queue_t cause,
                             std::string_view caused_by) {
    const auto found = subscribed_selects_.find(patch.subscription);
    error::check(found != subscribed_selects_.end(), "Unknown subscription");
    const Subscription& subscription = found->second;
    const auto& [subscriber, request_id] = subscription.key;
    if (lost_.contains(subscriber)) return;
    tqlengine::RequestContext context = context_for(subscription);
    const uint64_t start_us = parts_.clock.monotonic_us();
    tqlengine::ResultNodePtr tree;
    const auto answer_in_full = [&](const std::string& why) {
        logger.error("No patch for {} to {}: {}", queues::queue_name(subscriber),
                     patch.object.to_string(), why);
        parts_.engine.subscriptions().want_reevaluation(patch.subscription);
    };
    try {
        tree = tqlengine::process_patch(patch.object, subscription.request, context);
    } catch (const errors::tql& failure) {
        return answer_in_full(failure.text());
    } catch (const errors::stdanomaly& failure) {
        return answer_in_full(failure.text());
    }
    const uint64_t elapsed_us = parts_.clock.monotonic_us() - start_us;
    tqlengine::log_patch(patch.object, subscription.request, context, elapsed_us, caused_by);
    parts_.meters.add_subscription(subscriber, cause, elapsed_us);
    logger.debug("Giving {} a patch to {}", queues::queue_name(subscriber),
                 patch.object.to_string());
    if (tree)
        send<tqlengine::PatchEvent>(subscription.key,
                                    tqlengine::PatchAnswer{patch.object, std::move(tree)});
    else
        send<queues::devent<queues::RETURN_TQL_SELECT_DELETE_PATCH>>(
            subscription.key, Return_Tql_Select_Delete_Patch_Data{patch.object, {}});
}

void Subscribers::reevaluate(uint32_t id, queues::queue_t cause) {
    const auto found = subscribed_selects_.find(id);
    error::check(found != subscribed_selects_.end(),
                 "res != subscribed_selects.end() in tqlPeriodicUpdate");
    Subscription& subscription = found->second;
    if (subscription.waiting)
        subscription.pending = cause;
    else if (!defer_if_too_early(id, subscription, cause))
        evaluate_again(id, subscription, cause);
}

bool Subscribers::defer_if_too_early(uint32_t id, Subscription& subscription,
                                     queues::queue_t cause) {
    const uint64_t due_us = subscription.next_evaluation_us;
    if (due_us <= parts_.clock.monotonic_us()) return false;
    logger.debug("Reevaluation of {} deferred to {} because of recent reevaluation", id,
                 wall_time_of(due_us).format("%a %b %d %H:%M:%S %Y", Time::zone_t::local));
    if (subscription.deferred) return true;
    subscription.deferred = {due_us, cause};
    deferred_.emplace(due_us, id);
    return true;
}

std::optional<uint64_t> Subscribers::next_deferred_us() const {
    if (deferred_.empty()) return std::nullopt;
    return deferred_.begin()->first;
}

void Subscribers::run_deferred() {
    drop_lost();
    if (deferred_.empty() || deferred_.begin()->first > parts_.clock.monotonic_us()) return;
    const uint32_t id = deferred_.extract(deferred_.begin()).value().second;
    Subscription& subscription = subscribed_selects_.at(id);
    const queues::queue_t cause = subscription.deferred->cause;
    subscription.deferred.reset();
    const uint64_t elapsed_us = evaluate_again(id, subscription, cause);
    if (parts_.trace.active()) parts_.trace.end(elapsed_us, "SUBSCRIPTION");
    drop_lost();
}

uint64_t Subscribers::evaluate_again(uint32_t id, Subscription& subscription,
                                     queues::queue_t cause) {
    logger.debug("Reevaluating {} now", id);
    const uint64_t elapsed_us = select(id, subscription);
    parts_.meters.add_subscription(subscription.key.first, cause, elapsed_us);
    return elapsed_us;
}

uint64_t Subscribers::select(uint32_t id, Subscription& subscription) {
    if (lost_.contains(subscription.key.first)) return 0;
    const Tql_Select_Data& request = subscription.request;
    tqlengine::RequestContext context = context_for(subscription);
    tqlengine::SelectReport report;
    send<tqlengine::SelectEvent>(subscription.key,
                                 tqlengine::process_select(request, context, report, id));
    tqlengine::log_select(request, context, report);
    const uint64_t now_us = parts_.clock.monotonic_us();
    const uint64_t elapsed_us = now_us - report.start_us;
    if ((request.flags & tqlengine::kSelectAcknowledge) != 0) subscription.waiting = true;
    if (request.min_eval_interval != 0)
        subscription.next_evaluation_us =
            now_us + std::max(std::min(request.min_eval_interval, kLongestInterval_s) * 1'000'000,
                              kRestPerEvaluation * elapsed_us);
    return elapsed_us;
}

tqlengine::RequestContext Subscribers::context_for(const Subscription& subscription) const {
    return {.engine = parts_.engine,
            .clock = parts_.clock,
            .sender = subscription.key.first,
            .new_version = {},
            .user = {}};
}

Time Subscribers::wall_time_of(uint64_t moment_us) const {
    const uint64_t left_us = moment_us - std::min(moment_us, parts_.clock.monotonic_us());
    return Time::now(parts_.clock) + Time(static_cast<int32_t>(left_us / 1'000'000),
                                          static_cast<int32_t>(left_us % 1'000'000));
}

template <class Event, class Content>
void Subscribers::send(const Key& to, Content content) {
    const auto& [sibling, request_id] = to;
    if (lost_.contains(sibling)) return;
    try {
        parts_.queue.send(Event(sibling, request_id, std::move(content)));
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
        lost_.insert(sibling);
    }
}

}  // namespace dbms
