#include "meter/meter.h"

#include <algorithm>
#include <array>

#include "platform/clock.h"

namespace meter {

/// The lists into which objects link themselves, by kind, and the tree when there is one.
class Links {
  public:
    static Links& instance() {
        // Constant-initialised: metrics of any source file may link themselves before it is
        // reached.
        static constinit Links links;
        return links;
    }

    void link(Object& object) {
        List& list = list_of(object);
        object.previous_ = list.last;
        (list.last != nullptr ? list.last->next_ : list.first) = &object;
        list.last = &object;
    }

    void unlink(Object& object) {
        List& list = list_of(object);
        (object.previous_ != nullptr ? object.previous_->next_ : list.first) = object.next_;
        (object.next_ != nullptr ? object.next_->previous_ : list.last) = object.previous_;
    }

    template <class Visit>
    void for_each(Visit&& visit) {
        for (const List& list : lists_)
            for (Object* object = list.first; object != nullptr; object = object->next_)
                visit(*object);
    }

    Tree* tree = nullptr;

  private:
    struct List {
        Object* first = nullptr;
        Object* last = nullptr;
    };
    List& list_of(const Object& object) { return lists_[static_cast<std::size_t>(object.kind_)]; }

    std::array<List, 3> lists_{};
};

Object::Object(Group* parent, std::string_view name, kind_t kind)
    : parent_(parent), name_(name), kind_(kind) {
    if (kind_ == kind_t::root) return;
    Links& links = Links::instance();
    links.link(*this);
    if (links.tree != nullptr) links.tree->enter(*this);
}

Object::~Object() {
    if (kind_ == kind_t::root) return;
    if (entered_ != nullptr) entered_->remove(*this);
    Links::instance().unlink(*this);
}

Group::~Group() {
    clear();
}

Object* Group::find(std::string_view name) const {
    const auto found = children_.find(name);
    return found == children_.end() ? nullptr : found->second;
}

std::vector<Group*> Group::groups() const {
    std::vector<Group*> found;
    for (Object* child : in_order_)
        if (child->kind_ == kind_t::group) found.push_back(static_cast<Group*>(child));
    return found;
}

std::vector<Table*> Group::tables() const {
    std::vector<Table*> found;
    for (Object* child : in_order_)
        if (child->kind_ == kind_t::table) found.push_back(static_cast<Table*>(child));
    return found;
}

std::vector<Metric*> Group::metrics() const {
    std::vector<Metric*> found;
    for (Object* child : in_order_)
        if (child->kind_ == kind_t::metric) found.push_back(static_cast<Metric*>(child));
    return found;
}

void Group::add(Object& child) {
    error::check(children_.emplace(child.name(), &child).second,
                 "Attempt to add duplicate metric name: {}", child.name());
    in_order_.push_back(&child);
    child.entered_ = this;
}

void Group::remove(Object& child) {
    children_.erase(child.name());
    std::erase(in_order_, &child);
    child.entered_ = nullptr;
}

void Group::clear() {
    for (Object* child : in_order_) child->entered_ = nullptr;
    in_order_.clear();
    children_.clear();
}

void TimingValue::add(uint64_t duration) noexcept {
    min = count == 0 ? duration : std::min(min, duration);
    max = std::max(max, duration);
    ++count;
    sum += duration;
    sum_of_squares += duration * duration;
}

TimingScope::TimingScope(MicroSecondTiming& timing, const platform::Clock& clock)
    : timing_(timing), clock_(clock), start_us_(clock.monotonic_us()) {}

TimingScope::~TimingScope() {
    timing_.add(clock_.monotonic_us() - start_us_);
}

Tree::Tree(std::string_view root_name) : root_(root_name) {
    Links& links = Links::instance();
    error::check(links.tree == nullptr, "Attempt to build a second metric tree");
    links.tree = this;
    links.for_each([this](Object& object) { enter(object); });
}

Tree::~Tree() {
    Links& links = Links::instance();
    links.tree = nullptr;
    links.for_each([](Object& object) {
        if (object.entered_ != nullptr) object.entered_->remove(object);
    });
}

const Metric& Tree::get(const std::list<std::string>& path) const {
    const Object* place = &root_;
    auto step = path.begin();
    if (step != path.end() && *step == root_.name()) ++step;
    for (; step != path.end(); ++step) {
        if (place->kind_ == Object::kind_t::metric) throw EUnknownMetric("Unknown metric");
        place = static_cast<const Group*>(place)->find(*step);
        if (place == nullptr) throw EUnknownMetric("Unknown metric");
        if (place->kind_ != Object::kind_t::table) continue;
        if (++step == path.end()) break;
        static_cast<const Table*>(place)->select(*step);
    }
    if (place->kind_ != Object::kind_t::metric) throw EUnknownMetric("Unknown metric");
    return static_cast<const Metric&>(*place);
}

void Tree::enter(Object& object) {
    Group& group = object.parent_ != nullptr ? *object.parent_ : root_;
    group.add(object);
}

}  // namespace meter
