// Metrics: named counters, gauges and timings in a tree. A module declares its metrics as objects
// at namespace scope of the source file that feeds them,
//
//     meter::Group journal_group{"journal"};
//     meter::IntegerCounter commits{&journal_group, "commits", "", "Number of transactions
//     commit'ed"};
//
// Constructing one only links it into a list, so the order in which files are initialised doesn't
// matter. The composition root makes one meter::Tree, which puts all linked objects under their
// groups; objects made later enter at once. Feeding a metric is a few integer operations. Only the
// main thread touches metrics.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "error/exception.h"

namespace platform {
class Clock;
}

namespace meter {

class Group;
class Tree;

/// A table was asked for an instance that it doesn't have.
class ENoSuchInstance : public error::Exception {
  public:
    using Exception::Exception;
};

/// A path leads to no metric.
class EUnknownMetric : public error::Exception {
  public:
    using Exception::Exception;
};

/// Base of everything in the tree. Names, units and descriptions must be literals, or outlive the
/// object.
class Object {
  public:
    virtual ~Object();
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    [[nodiscard]] std::string_view name() const noexcept { return name_; }
    /// The group it was declared under; null for one under the root.
    [[nodiscard]] Group* parent() const noexcept { return parent_; }

  protected:
    enum class kind_t { group, table, metric, root };
    Object(Group* parent, std::string_view name, kind_t kind);

  private:
    friend class Group;
    friend class Tree;
    friend class Links;

    Group* parent_;
    std::string_view name_;
    kind_t kind_;
    Group* entered_ = nullptr;  // where it stands in the tree, once it does
    Object* previous_ = nullptr;
    Object* next_ = nullptr;
};

class Table;
class Metric;

/// A node of the tree that holds others.
class Group : public Object {
  public:
    explicit Group(std::string_view name) : Group(nullptr, name) {}
    Group(Group* parent, std::string_view name) : Group(parent, name, kind_t::group) {}
    ~Group() override;

    /// The child of that name, or null. Children are here only while a Tree exists.
    [[nodiscard]] Object* find(std::string_view name) const;
    /// Children by kind, in the order of registration; each call makes a new list.
    [[nodiscard]] std::vector<Group*> groups() const;
    [[nodiscard]] std::vector<Table*> tables() const;
    [[nodiscard]] std::vector<Metric*> metrics() const;

  protected:
    Group(Group* parent, std::string_view name, kind_t kind) : Object(parent, name, kind) {}

  private:
    friend class Object;
    friend class Tree;
    void add(Object& child);
    void remove(Object& child);
    void clear();

    std::map<std::string_view, Object*> children_;
    std::vector<Object*> in_order_;
};

/// A group with instances, for example one per sender. Its metrics show the values of the instance
/// selected last.
class Table : public Group {
  public:
    /// Fills the table's metrics with the values of an instance; throws ENoSuchInstance for one
    /// that doesn't exist.
    using Fill = std::function<void(std::string_view instance)>;
    using Instances = std::function<std::vector<std::string>()>;

    Table(Group* parent, std::string_view name, Instances instances, Fill fill)
        : Group(parent, name, kind_t::table),
          instances_(std::move(instances)),
          fill_(std::move(fill)) {}

    [[nodiscard]] std::vector<std::string> instances() const { return instances_(); }
    void select(std::string_view instance) const { fill_(instance); }

  private:
    Instances instances_;
    Fill fill_;
};

/// Values of a duration measured `count` times, in the metric's unit.
struct TimingValue {
    uint64_t count = 0;
    uint64_t min = 0;
    uint64_t max = 0;
    uint64_t sum = 0;
    uint64_t sum_of_squares = 0;

    /// Takes in one duration.
    void add(uint64_t duration) noexcept;
};

using Value = std::variant<uint64_t, TimingValue>;

/// What sort of value a metric has; the numbers are those that other processes see.
enum class type_t : uint32_t { counter = 0, gauge = 1, timing = 2 };

class Metric : public Object {
  public:
    [[nodiscard]] virtual type_t type() const noexcept = 0;
    [[nodiscard]] std::string_view unit() const noexcept { return unit_; }
    [[nodiscard]] std::string_view description() const noexcept { return description_; }
    /// The value at this moment.
    [[nodiscard]] virtual Value read() const = 0;

  protected:
    Metric(Group* parent, std::string_view name, std::string_view unit,
           std::string_view description)
        : Object(parent, name, kind_t::metric), unit_(unit), description_(description) {}

  private:
    std::string_view unit_;
    std::string_view description_;
};

/// Only rises.
class IntegerCounter : public Metric {
  public:
    IntegerCounter(Group* parent, std::string_view name, std::string_view unit,
                   std::string_view description)
        : Metric(parent, name, unit, description) {}

    void increment(uint64_t by = 1) noexcept { value_ += by; }
    [[nodiscard]] uint64_t value() const noexcept { return value_; }
    [[nodiscard]] type_t type() const noexcept override { return type_t::counter; }
    [[nodiscard]] Value read() const override { return value_; }

  private:
    uint64_t value_ = 0;
};

/// Can fall.
class IntegerGauge : public Metric {
  public:
    IntegerGauge(Group* parent, std::string_view name, std::string_view unit,
                 std::string_view description)
        : Metric(parent, name, unit, description) {}

    void set(uint64_t value) noexcept { value_ = value; }
    [[nodiscard]] uint64_t value() const noexcept { return value_; }
    [[nodiscard]] type_t type() const noexcept override { return type_t::gauge; }
    [[nodiscard]] Value read() const override { return value_; }

  private:
    uint64_t value_ = 0;
};

/// A value that a function yields when it is read. The owner of what the function looks at binds it
/// while it lives and unbinds it before it ends; unbound, the value is the empty one.
template <class V, type_t kType>
class CallbackMetric : public Metric {
  public:
    using Function = std::function<V()>;

    CallbackMetric(Group* parent, std::string_view name, std::string_view unit,
                   std::string_view description, Function function = {})
        : Metric(parent, name, unit, description), function_(std::move(function)) {}

    void bind(Function function) { function_ = std::move(function); }
    void unbind() { function_ = {}; }
    [[nodiscard]] type_t type() const noexcept override { return kType; }
    [[nodiscard]] Value read() const override { return function_ ? function_() : V{}; }

  private:
    Function function_;
};

class IntegerCounterCallback : public CallbackMetric<uint64_t, type_t::counter> {
  public:
    using CallbackMetric::CallbackMetric;
};

class IntegerGaugeCallback : public CallbackMetric<uint64_t, type_t::gauge> {
  public:
    using CallbackMetric::CallbackMetric;
};

class TimingCallback : public CallbackMetric<TimingValue, type_t::timing> {
  public:
    using CallbackMetric::CallbackMetric;
};

/// How long something takes.
class Timing : public Metric {
  public:
    Timing(Group* parent, std::string_view name, std::string_view unit,
           std::string_view description)
        : Metric(parent, name, unit, description) {}

    void add(uint64_t duration) noexcept { value_.add(duration); }
    /// For tables, which show another instance's values.
    void set(const TimingValue& value) noexcept { value_ = value; }
    [[nodiscard]] const TimingValue& value() const noexcept { return value_; }
    [[nodiscard]] type_t type() const noexcept override { return type_t::timing; }
    [[nodiscard]] Value read() const override { return value_; }

  private:
    TimingValue value_;
};

/// A timing in microseconds.
class MicroSecondTiming : public Timing {
  public:
    MicroSecondTiming(Group* parent, std::string_view name, std::string_view description)
        : Timing(parent, name, "us", description) {}
};

/// Adds the time of its own life to a timing.
class TimingScope {
  public:
    TimingScope(MicroSecondTiming& timing, const platform::Clock& clock);
    ~TimingScope();
    TimingScope(const TimingScope&) = delete;
    TimingScope& operator=(const TimingScope&) = delete;

  private:
    MicroSecondTiming& timing_;
    const platform::Clock& clock_;
    uint64_t start_us_;
};

/// All metrics of the process below one root. One may exist at a time.
class Tree {
  public:
    /// Enters every object linked so far. A second object of one name in one group is a fatal
    /// assertion.
    explicit Tree(std::string_view root_name);
    ~Tree();
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    [[nodiscard]] const Group& root() const noexcept { return root_; }

    /// The metric at `path`, whose first name may be the root's. Behind a table stands the name of
    /// an instance; the metrics below the table show that instance then. Throws ENoSuchInstance,
    /// and EUnknownMetric for a path that leads nowhere or to a group.
    [[nodiscard]] const Metric& get(const std::list<std::string>& path) const;

  private:
    friend class Object;
    struct Root : Group {
        explicit Root(std::string_view name) : Group(nullptr, name, kind_t::root) {}
    };
    void enter(Object& object);

    Root root_;
};

}  // namespace meter
