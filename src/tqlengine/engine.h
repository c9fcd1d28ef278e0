// The query engine: evaluates patterns over the tree of objects and ties writes to those who watch
// the tree. It owns no objects and no storage; it reaches objects through resolvers and the
// TqlObjectHandler interface alone.
//
// One Engine is made by the composition root and lives as long as the server. Everything runs on
// one thread, between two events, so a select sees the tree in one state.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <set>
#include <vector>

#include "tql/pattern.h"
#include "tqlengine/id_resolver.h"
#include "tqlengine/object_handler.h"
#include "tqlengine/result_node.h"
#include "tqlengine/select_statistics.h"
#include "tqlengine/subscriptions.h"

namespace tqlengine {

class TqlSingletonHandler;

/// What happened to an object; numbers as they travel in notifications.
enum class object_operation_t : uint32_t {
    created = 0,
    updated = 1,
    deleted = 2,
    data_changed = 3,
    checked_in = 4,
};

/// The tag of the nodes on the way to the object of a patch.
inline constexpr uint32_t kPatchPath = 0xFFFFFFFF;

class Engine {
  public:
    using ResultList = std::vector<ResultNodePtr>;
    using OperationHook = std::function<void(TqlObjectHandler&, object_operation_t)>;

    Engine() = default;
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // ---- set up by the composition root ---------------------------------------------------------

    /// Resolvers are asked in the order in which they were added; each must outlive the engine's
    /// use.
    void add_resolver(TqlIdResolver& resolver) { resolvers_.push_back(&resolver); }
    /// Makes `singleton` the answer to every pattern that starts with its class. Must outlive the
    /// engine's use.
    void add_singleton(TqlSingletonHandler& singleton);
    /// Called for every create, update and delete that goes through a TqlUpdateWatcher. Must not
    /// throw.
    void set_operation_hook(OperationHook hook) { operation_hook_ = std::move(hook); }
    /// The class numbers whose objects can be given another parent.
    void set_reparentable_classes(std::set<uint32_t> classes) {
        reparentable_classes_ = std::move(classes);
    }
    [[nodiscard]] const std::set<uint32_t>& reparentable_classes() const noexcept {
        return reparentable_classes_;
    }
    void set_limits(const SelectLimits& limits) noexcept { limits_ = limits; }
    [[nodiscard]] const SelectLimits& limits() const noexcept { return limits_; }

    // ---- reading --------------------------------------------------------------------------------

    /// The first answer of the resolvers; empty when no resolver knows the id.
    [[nodiscard]] HandlerRef find(const tql::id_t& id) const;
    /// As find(), but throws errors::tql code 1 with the id and " not found".
    [[nodiscard]] HandlerRef get(const tql::id_t& id) const;
    /// As find(), for the resolvers in turn; see TqlIdResolver::discardOrphans.
    void discard_orphans(const tql::id_t& id) const;

    /// The subscription that a select belongs to; 0 for none.
    struct Watch {
        uint32_t subscription = 0;
        bool patchable = false;
    };

    /// Runs `pattern` at each root and appends a tree for each root that gives one, in id order.
    /// Roots that don't exist are skipped. Adds to `statistics`. With a subscription, writes are
    /// held against roots and pattern from now on, also when the select fails later. Throws
    /// errors::tql and errors::db_anomaly; `results` is then incomplete.
    void evaluate(ResultList& results, const std::set<tql::id_t>& roots,
                  const tql::pattern_t& pattern, SelectStatistics& statistics, const Watch& watch);
    void evaluate(ResultList& results, const std::set<tql::id_t>& roots,
                  const tql::pattern_t& pattern, SelectStatistics& statistics) {
        evaluate(results, roots, pattern, statistics, {});
    }

    /// What a subscriber of `pattern` at `roots` is to know of the object with this id: the way to
    /// it from the first root above it from which the pattern gets there, each node on it tagged
    /// kPatchPath, and at its end the object as a full answer. Empty when the object isn't there or
    /// the pattern doesn't reach it: the subscriber is to drop it. Throws errors::tql and
    /// errors::stdanomaly.
    [[nodiscard]] ResultNodePtr evaluatePatch(const tql::id_t& id, const std::set<tql::id_t>& roots,
                                              const tql::pattern_t& pattern,
                                              SelectStatistics& statistics);

    /// Nodes of all results that live now.
    [[nodiscard]] size_t live_nodes() const noexcept { return nodes_.live(); }

    // ---- writing --------------------------------------------------------------------------------

    /// Tells those who watch for operations on objects. Used by TqlUpdateWatcher, and directly for
    /// operations that come without a request (data changed, checked in).
    void notify(TqlObjectHandler& handler, object_operation_t operation) noexcept;
    /// Notes every subscription whose selection holds or may hold `handler` now. Used by
    /// TqlUpdateWatcher before and after a write; see Subscriptions::note().
    void notify_pass(TqlObjectHandler& handler) { subscriptions_.note(handler); }

    /// Who watches, and what is due to them.
    [[nodiscard]] Subscriptions& subscriptions() noexcept { return subscriptions_; }

  private:
    static constexpr uint32_t kClassCount = 97;

    std::vector<TqlIdResolver*> resolvers_;
    std::array<TqlSingletonHandler*, kClassCount> singletons_{};
    OperationHook operation_hook_;
    std::set<uint32_t> reparentable_classes_;
    SelectLimits limits_;
    ResultNodePool nodes_;
    Subscriptions subscriptions_;
};

}  // namespace tqlengine
