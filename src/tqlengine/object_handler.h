// What a query can touch: one object of the tree as the query engine sees it, and the handle that
// keeps such an object referenced. The engine knows objects through this interface alone; where
// they are stored, cached or computed is the business of the classes derived from it.
//
// A handler is reference counted, not owned. References are held by HandlerRef and by nothing else.
// The first reference calls tqlAddRef, the last one to go calls tqlRelease, where a stored object's
// handler goes back to its cache and a passing one is deleted.
#pragma once

#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "tql/id.h"
#include "tql/origin.h"
#include "tql/pattern.h"
#include "tql/property.h"
#include "tql/version.h"

namespace queues {
class ValueWriter;
}

namespace tqlengine {

class TqlIdResolver;
class TqlObjectHandler;
struct RequestContext;

/// What tqlFlags() gives.
enum tql_flags_t : uint32_t {
    kObjectStored = 0,    ///< a stored object, a group or a singleton
    kObjectComputed = 1,  ///< made up when it is asked for
    kObjectTemplate = 2,  ///< stands for an object that could be created
};

/// Request flag of creates and updates: leave out properties that the class doesn't have instead of
/// failing.
inline constexpr uint32_t kIgnoreUnknownProperties = 8;
/// Status bit of creates and updates: at least one property was left out because of
/// kIgnoreUnknownProperties.
inline constexpr uint32_t kStatusPropertyIgnored = 16;

/// A counted reference to a handler; copying it takes another one. May be empty.
template <class Handler>
class BasicHandlerRef {
  public:
    BasicHandlerRef() noexcept = default;
    /// Takes a reference to `handler`, which may be null.
    explicit BasicHandlerRef(Handler* handler) : handler_(handler) {
        if (handler_) handler_->add_reference();
    }
    /// Takes over a reference to `handler` that is counted already.
    [[nodiscard]] static BasicHandlerRef adopt(Handler* handler) noexcept {
        BasicHandlerRef made;
        made.handler_ = handler;
        return made;
    }
    BasicHandlerRef(const BasicHandlerRef& other) : BasicHandlerRef(other.handler_) {}
    BasicHandlerRef(BasicHandlerRef&& other) noexcept
        : handler_(std::exchange(other.handler_, nullptr)) {}
    /// From a reference to a derived class.
    template <class Derived>
    requires std::is_convertible_v<Derived*, Handler*> BasicHandlerRef(
        BasicHandlerRef<Derived>&& other)
    noexcept : handler_(other.detach()) {}
    template <class Derived>
    requires std::is_convertible_v<Derived*, Handler*> BasicHandlerRef(
        const BasicHandlerRef<Derived>& other)
        : BasicHandlerRef(other.get()) {}
    BasicHandlerRef& operator=(BasicHandlerRef other) noexcept {
        std::swap(handler_, other.handler_);
        return *this;
    }
    ~BasicHandlerRef() { reset(); }

    /// Gives the reference back; the handler may be gone after the call.
    void reset() noexcept {
        if (Handler* handler = std::exchange(handler_, nullptr)) handler->release_reference();
    }

    [[nodiscard]] Handler* get() const noexcept { return handler_; }
    Handler& operator*() const noexcept { return *handler_; }
    Handler* operator->() const noexcept { return handler_; }
    explicit operator bool() const noexcept { return handler_ != nullptr; }
    friend bool operator==(const BasicHandlerRef& a, const BasicHandlerRef& b) noexcept {
        return a.handler_ == b.handler_;
    }

    /// For conversions between handle types: gives up the pointer with its reference still counted.
    [[nodiscard]] Handler* detach() noexcept { return std::exchange(handler_, nullptr); }

  private:
    Handler* handler_ = nullptr;
};

using HandlerRef = BasicHandlerRef<TqlObjectHandler>;
using HandlerList = std::vector<HandlerRef>;

/// Arguments of a create or an update. All references live until the call returns.
struct WriteArguments {
    /// The version that the asker last saw; for a create the empty version.
    tql::version_t version;
    /// The version that the object takes.
    tql::version_t new_version;
    const std::vector<tql::value_t>& properties;
    /// kIgnoreUnknownProperties or 0; other bits are for the classes that know them.
    uint32_t flags = 0;
    /// Who asks, under which version; for properties that record it.
    RequestContext& context;
};

/// Arguments of a delete.
struct DeleteArguments {
    tql::version_t version;
    tql::version_t new_version;
    /// Leave no trace of the object's place at a master server.
    bool clear_master_id = false;
    RequestContext& context;
};

/// A value that stood in an object and is no longer allowed where a move would put it.
struct RevalidationFailure {
    tql::id_t id;
    uint32_t property = 0;

    bool operator==(const RevalidationFailure&) const = default;
};
using RevalidationFailures = std::vector<RevalidationFailure>;

/// Base of everything that a query can touch.
class TqlObjectHandler {
  public:
    TqlObjectHandler(const TqlObjectHandler&) = delete;
    TqlObjectHandler& operator=(const TqlObjectHandler&) = delete;
    virtual ~TqlObjectHandler() = default;

    /// The class number that clients see.
    [[nodiscard]] uint32_t class_number() const noexcept { return class_; }
    [[nodiscard]] uint32_t reference_count() const noexcept { return reference_count_; }
    /// True while a TqlUpdateWatcher is open on this handler.
    [[nodiscard]] bool watched() const noexcept { return watched_; }

    // ---- identity -------------------------------------------------------------------------------

    /// Empty for an object without id.
    [[nodiscard]] virtual tql::id_t tqlId() const = 0;
    [[nodiscard]] virtual tql::version_t tqlVersion() const = 0;
    /// One of tql_flags_t.
    [[nodiscard]] virtual uint32_t tqlFlags() const { return kObjectStored; }
    /// The key of this object among its siblings in a result; default: kind 2 with tqlId().
    [[nodiscard]] virtual tql::internal_id_t tqlInternalId() const;
    [[nodiscard]] virtual tql::origin_t tqlOrigin() = 0;
    /// The same for who came here from `above`, an object in whose listing this one stood, and
    /// knows the origin of that one: spares the way up. Default: tqlOrigin().
    [[nodiscard]] virtual tql::origin_t tqlOriginBelow(const TqlObjectHandler& above,
                                                       const tql::origin_t& origin_above);

    // ---- the tree -------------------------------------------------------------------------------

    /// Appends the children that `pattern` can match, each with a reference; `out` is empty on
    /// entry. `pattern` is the step that the children are about to be matched against: an
    /// implementation may leave out what the step's class, template flag or conditions exclude, and
    /// with the recursive flag also has to list what leads on to the step's `next` and `cond_next`.
    /// Listing more than can match costs time and changes nothing.
    virtual void tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) = 0;
    /// The child without storage that the third component of an id names; default none.
    virtual HandlerRef tqlChild(uint32_t number);
    /// Empty at the top of the tree.
    virtual HandlerRef tqlParentHandler() = 0;
    /// Whether both objects surely have the same tqlParentHandler(); false says nothing. Default
    /// false.
    [[nodiscard]] virtual bool surely_beside(const TqlObjectHandler& other) const;
    /// Under which the subtree of this object can be searched; default none. Outlives the handler.
    virtual TqlIdResolver* tqlIdResolver() { return nullptr; }

    // ---- reading --------------------------------------------------------------------------------

    /// Adds the properties that `pattern` wants (its flag for all, or the ascending numbers of
    /// wanted_properties) to `out`. Called once per object with conditions to test, so one pass
    /// over the stored record, the sorted schema and the sorted wanted numbers is what is expected.
    /// Adding in ascending order of numbers is cheapest. Throws errors::tql.
    virtual void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) = 0;
    /// The same into the memory of a result, in the form in which it travels; default: by way of
    /// tqlEncode(). A class whose objects come by the thousand spares itself the values.
    virtual void encode_result(const tql::pattern_t& pattern, queues::ValueWriter& out);
    /// Lets a class test a condition by itself: true when it did, with `result` 0 for "holds".
    /// Which ones it tests depends on the property alone, never on the value. Default false.
    virtual bool tqlSpecialMatch(uint32_t& result, const tql::condition_t& condition);
    /// Whether a condition holds, where the object can tell without being read; the answer is the
    /// one that the value of tqlEncode() would give. Default none.
    [[nodiscard]] virtual std::optional<bool> holds_at_hand(
        const tql::condition_t& condition) const;

    // ---- writing --------------------------------------------------------------------------------
    // Each throws errors::tql for what the asker did wrong and leaves nothing behind then.

    /// Makes a child of class `child_class` under `new_id`; opens its own update watcher on the
    /// child. Gives status bits.
    virtual uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                               const WriteArguments& arguments) = 0;
    /// Changes properties; the caller holds a TqlUpdateWatcher on this handler. Gives status bits.
    virtual uint32_t tqlUpdate(const WriteArguments& arguments) = 0;
    /// Takes the object out of the tree; the caller holds a TqlUpdateWatcher. Throws
    /// errors::tql_dont_delete when the object is to stay without this being a failure.
    virtual void tqlDelete(const DeleteArguments& arguments) = 0;
    /// Runs all validation of the subtree again and collects what fails, what is below an object
    /// before the object itself. Calls the next two on each of them, without recursion.
    void tqlRevalidate(RevalidationFailures& failures);
    /// Appends the objects below this one that are validated with it; default: every child.
    virtual void list_revalidated(HandlerList& out);
    /// Validates the values of this object alone; default: it has none that can fail.
    virtual void revalidate_own(RevalidationFailures& failures);
    /// Called when all notifications of an update are out; nothing by default.
    virtual void tqlUpdateDone() {}

    // ---- for HandlerRef and TqlUpdateWatcher only
    // ------------------------------------------------

    void add_reference() {
        if (reference_count_ == 0) tqlAddRef();
        ++reference_count_;
    }
    void release_reference() noexcept {
        if (reference_count_ == 0) [[unlikely]]
            fail_unreferenced();
        if (--reference_count_ == 0) tqlRelease();
    }

  protected:
    explicit TqlObjectHandler(uint32_t class_number) : class_(class_number) {}
    struct referenced_t {};
    static constexpr referenced_t kReferenced{};
    /// With one reference already, for BasicHandlerRef::adopt(); tqlAddRef isn't called for it.
    TqlObjectHandler(uint32_t class_number, referenced_t)
        : class_(class_number), reference_count_(1) {}
    /// For handlers that learn their class while they load.
    void set_class_number(uint32_t class_number) noexcept { class_ = class_number; }

    /// Called when the first reference is taken.
    virtual void tqlAddRef() {}
    /// Called when the last reference has gone; may delete the handler, which is what the default
    /// does.
    virtual void tqlRelease() noexcept;

  private:
    friend class TqlUpdateWatcher;

    [[noreturn]] static void fail_unreferenced() noexcept;

    uint32_t class_;
    uint32_t reference_count_ = 0;
    bool watched_ = false;
};

}  // namespace tqlengine
