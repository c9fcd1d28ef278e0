// A small tree of objects in memory that implements the query engine's view of the world: handlers
// that count their references, a resolver with index shortcuts that can be switched off, and writes
// that fail on demand.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_map.h"
#include "tqlengine/id_resolver.h"
#include "tqlengine/object_handler.h"
#include "tqlengine/request_context.h"
#include "tqlengine/shortcut.h"
#include "tqlengine/update_watcher.h"

namespace fake {

class Tree;

class Object : public tqlengine::TqlObjectHandler {
  public:
    Object(Tree& tree, uint32_t class_number, const tql::id_t& id, Object* parent)
        : TqlObjectHandler(class_number), tree_(tree), id_(id), parent_(parent) {}

    [[nodiscard]] tql::id_t tqlId() const override {
        return flags == tqlengine::kObjectTemplate ? tql::id_t() : id_;
    }
    [[nodiscard]] tql::version_t tqlVersion() const override { return version; }
    [[nodiscard]] uint32_t tqlFlags() const override { return flags; }
    [[nodiscard]] tql::internal_id_t tqlInternalId() const override {
        return flags == tqlengine::kObjectTemplate
                   ? tql::internal_id_t::by_place(class_number(), id_[1])
                   : TqlObjectHandler::tqlInternalId();
    }
    [[nodiscard]] tql::origin_t tqlOrigin() override { return {{}, {}, class_number()}; }

    void tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t&) override;
    tqlengine::HandlerRef tqlParentHandler() override { return tqlengine::HandlerRef(parent_); }
    tqlengine::TqlIdResolver* tqlIdResolver() override;
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;
    bool tqlSpecialMatch(uint32_t& result, const tql::condition_t& condition) override;

    uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                       const tqlengine::WriteArguments& arguments) override;
    uint32_t tqlUpdate(const tqlengine::WriteArguments& arguments) override;
    void tqlDelete(const tqlengine::DeleteArguments& arguments) override;

    void set_name(const std::string& name) {
        tql::add<tql::property_string_t>(properties, prop::name, name);
    }

    uint32_t flags = tqlengine::kObjectStored;
    size_t encoded = 0;  ///< calls of tqlEncode
    tql::version_t version;
    tql::property_map_t properties;
    std::vector<Object*> children;

    [[nodiscard]] Object* parent() const { return parent_; }
    /// Out of its place in the tree; with a parent, to there.
    void move_to(Object* parent) {
        std::erase(parent_->children, this);
        parent_ = parent;
        if (parent) parent->children.push_back(this);
    }

  protected:
    void tqlAddRef() override;
    void tqlRelease() noexcept override;

  private:
    Tree& tree_;
    tql::id_t id_;
    Object* parent_;
};

class Tree : public tqlengine::TqlIdResolver {
  public:
    Tree() { add(cls::Domain, {0, 1}, nullptr); }

    Object& add(uint32_t class_number, const tql::id_t& id, Object* parent) {
        objects_.push_back(std::make_unique<Object>(*this, class_number, id, parent));
        Object& made = *objects_.back();
        if (parent) parent->children.push_back(&made);
        by_id_.emplace(id, &made);
        return made;
    }
    Object& add_template(uint32_t class_number, uint32_t place, Object& parent) {
        objects_.push_back(
            std::make_unique<Object>(*this, class_number, tql::id_t(0xFFFF, place), &parent));
        objects_.back()->flags = tqlengine::kObjectTemplate;
        parent.children.push_back(objects_.back().get());
        return *objects_.back();
    }
    Object& root() { return *objects_.front(); }
    Object& object(size_t place) { return *objects_[place]; }
    [[nodiscard]] size_t size() const { return objects_.size(); }
    /// As a delete does it: nobody finds it by its id or from its parent.
    void take_out(Object& object) {
        by_id_.erase(object.tqlId());
        object.move_to(nullptr);
    }
    Object* lookup(const tql::id_t& id) {
        const auto found = by_id_.find(id);
        return found == by_id_.end() ? nullptr : found->second;
    }

    tqlengine::HandlerRef find(const tql::id_t& id) override {
        return tqlengine::HandlerRef(lookup(id));
    }
    bool obviousMatches(tqlengine::HandlerList& out, const tql::id_t& origin,
                        const tql::pattern_t& pattern) override;
    void erase(tqlengine::HandlerRef handler) override { erased.push_back(handler->tqlId()); }
    void discardOrphans(const tql::id_t& id) override { orphans_discarded.push_back(id); }

    bool use_shortcuts = true;
    size_t listings = 0;    ///< calls of tqlChildrenHandlers
    size_t referenced = 0;  ///< objects with at least one reference
    std::vector<tql::id_t> erased;
    std::vector<tql::id_t> orphans_discarded;
    /// Called inside every write, where a handler would change something; may throw.
    std::function<void(tqlengine::RequestContext&)> during_write = [](auto&) {};

  private:
    void push_with(tqlengine::HandlerList& out, uint32_t property, const tql::id_t& value);
    void push_true(tqlengine::HandlerList& out, uint32_t property);

    std::vector<std::unique_ptr<Object>> objects_;
    std::map<tql::id_t, Object*> by_id_;
};

inline void Object::tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t&) {
    ++tree_.listings;
    out.reserve(children.size());
    for (Object* child : children) out.emplace_back(child);
}

inline tqlengine::TqlIdResolver* Object::tqlIdResolver() {
    return &tree_;
}

inline void Object::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    ++encoded;
    for (const auto& [number, value] : properties)
        if (pattern.wants(number)) out[number] = value;
}

// Tests a condition on `label` by itself: it holds for objects of class Node.
inline bool Object::tqlSpecialMatch(uint32_t& result, const tql::condition_t& condition) {
    if (condition.value->property != prop::label) return false;
    result = class_number() == cls::Node ? 0 : 7;
    return true;
}

inline uint32_t Object::tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                                  const tqlengine::WriteArguments& arguments) {
    if (child_class != cls::Node)
        throw errors::tql(errors::ERR_ILLEGAL_CHILD, tql::class_name(child_class) +
                                                         " not allowed as child of " +
                                                         tql::class_name(class_number()));
    Object& made = tree_.add(child_class, new_id, this);
    const tqlengine::HandlerRef reference(&made);
    tqlengine::TqlUpdateWatcher watcher(arguments.context.engine, reference,
                                        tqlengine::watch_t::create);
    return made.tqlUpdate(arguments);
}

inline uint32_t Object::tqlUpdate(const tqlengine::WriteArguments& arguments) {
    if (arguments.version != version)
        throw errors::tql(errors::ERR_VERSION, "Someone else has updated the object");
    tree_.during_write(arguments.context);
    error::check(watched(), "TQL handler modified while not watched");
    for (const tql::value_t& value : arguments.properties) properties[value->property] = value;
    version = arguments.new_version;
    return arguments.flags & tqlengine::kIgnoreUnknownProperties ? tqlengine::kStatusPropertyIgnored
                                                                 : 0;
}

inline void Object::tqlDelete(const tqlengine::DeleteArguments& arguments) {
    if (arguments.version != version)
        throw errors::tql(errors::ERR_VERSION, "Someone else has updated the object");
    tree_.during_write(arguments.context);
}

inline void Object::tqlAddRef() {
    ++tree_.referenced;
}
inline void Object::tqlRelease() noexcept {
    --tree_.referenced;
}

inline void Tree::push_with(tqlengine::HandlerList& out, uint32_t property,
                            const tql::id_t& value) {
    for (const auto& object : objects_) {
        const auto found = object->properties.find(property);
        if (found != object->properties.end() && !found->second->is_null &&
            tql::as_object(*found->second) == value)
            out.emplace_back(object.get());
    }
}

inline void Tree::push_true(tqlengine::HandlerList& out, uint32_t property) {
    for (const auto& object : objects_) {
        const auto found = object->properties.find(property);
        if (found != object->properties.end() && !found->second->is_null &&
            static_cast<const tql::property_boolean_t&>(*found->second).value)
            out.emplace_back(object.get());
    }
}

inline bool Tree::obviousMatches(tqlengine::HandlerList& out, const tql::id_t&,
                                 const tql::pattern_t& pattern) {
    using namespace tqlengine;
    if (!use_shortcuts) return false;
    const Shortcut shortcut = choose_shortcut(pattern);
    if (std::holds_alternative<NoShortcut>(shortcut)) return false;
    const auto push = [&](const tql::id_t& id) {
        if (HandlerRef found = find(id)) out.push_back(std::move(found));
    };
    if (const auto* by_id = std::get_if<ById>(&shortcut)) push(by_id->id);
    if (const auto* by_ids = std::get_if<ByIds>(&shortcut))
        for (const tql::id_t& id : *by_ids->ids) push(id);
    if (const auto* by_object = std::get_if<ByAlertNotifyObject>(&shortcut))
        push_with(out, prop::alertNotifyObject, by_object->id);
    if (const auto* by_mark = std::get_if<ByMark>(&shortcut))
        push_true(out, by_mark->mark == prop::activeMark ? prop::active : prop::hasInherits);
    if (const auto* by_master = std::get_if<ByMasterId>(&shortcut))
        push_with(out, prop::masterId, by_master->id);
    return true;
}

}  // namespace fake
