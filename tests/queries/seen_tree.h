// The tree of a real store as the model of patterns sees it: read anew after each write, by asking
// every object for all its children and all its values and nothing more clever than that.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/pattern_model.h"
#include "tql/property_map.h"
#include "tqlengine/object_handler.h"

namespace queries {

class Seen {
  public:
    explicit Seen(tqlengine::HandlerRef handler) : handler_(std::move(handler)) {}

    [[nodiscard]] uint32_t class_number() const { return handler_->class_number(); }
    [[nodiscard]] uint32_t tqlFlags() const { return handler_->tqlFlags(); }
    [[nodiscard]] tql::id_t tqlId() const { return handler_->tqlId(); }
    [[nodiscard]] tql::internal_id_t tqlInternalId() const { return handler_->tqlInternalId(); }
    [[nodiscard]] tql::version_t tqlVersion() const { return handler_->tqlVersion(); }
    [[nodiscard]] tql::origin_t tqlOrigin() const { return handler_->tqlOrigin(); }
    /// Whether its id is its own and not that of an object above, or empty.
    [[nodiscard]] bool is_named() const {
        return tqlFlags() != tqlengine::kObjectTemplate && !tqlId().empty();
    }
    [[nodiscard]] bool is_stored() const {
        return tqlFlags() == tqlengine::kObjectStored && tqlId().size() == 2;
    }

    const tql::property_map_t& values() {
        if (!values_) {
            values_.emplace();
            handler_->tqlEncode(tql::pattern_t(cls::Any, tql::kPatternAllProperties), *values_);
        }
        return *values_;
    }
    const std::vector<Seen*>& children() {
        if (listed_) return children_;
        listed_ = true;
        for (const uint32_t flags : {0U, tql::kPatternTemplates}) {
            tqlengine::HandlerList list;
            handler_->tqlChildrenHandlers(list, tql::pattern_t(cls::Any, flags));
            for (tqlengine::HandlerRef& child : list) {
                const bool is_template = child->tqlFlags() == tqlengine::kObjectTemplate;
                if (is_template != (flags != 0)) continue;
                owned_.push_back(std::make_unique<Seen>(std::move(child)));
                children_.push_back(owned_.back().get());
            }
        }
        return children_;
    }

  private:
    tqlengine::HandlerRef handler_;
    std::optional<tql::property_map_t> values_;
    bool listed_ = false;
    std::vector<std::unique_ptr<Seen>> owned_;
    std::vector<Seen*> children_;
};

inline const tql::property_map_t& values_of(Seen& object) {
    return object.values();
}
inline const std::vector<Seen*>& children_of(Seen& object) {
    return object.children();
}
inline std::optional<bool> special_match(const Seen&, const tql::condition_t&) {
    return std::nullopt;
}

/// The whole tree. Holds references to handlers, so it must go before the next write.
class SeenTree {
  public:
    using Way = model::Way<Seen>;

    explicit SeenTree(tqlengine::HandlerRef root) : root_(std::move(root)) {
        Way way{&root_};
        visit(way, [&](const Way& to) {
            if (to.back()->is_named()) ways_.emplace(to.back()->tqlId(), to);
        });
    }

    /// The objects from the root down to the one with this id; empty when there is none.
    [[nodiscard]] Way way_to(const tql::id_t& id) const {
        const auto found = ways_.find(id);
        return found == ways_.end() ? Way() : found->second;
    }
    [[nodiscard]] const std::map<tql::id_t, Way>& ways() const { return ways_; }

    /// All but templates, with the values that say something.
    [[nodiscard]] std::string text() {
        std::string all;
        Way way{&root_};
        visit(way, [&](const Way& to) {
            Seen& object = *to.back();
            all += std::string(2 * to.size(), ' ') + tql::class_name(object.class_number()) + " " +
                   object.tqlId().to_string();
            for (const auto& [number, value] : object.values())
                if (!value->is_null && (value->flags & tql::kFlagComputed) == 0)
                    all += " " + tql::property_name(number) + "=" + value->print();
            all += "\n";
        });
        return all;
    }

  private:
    static void visit(Way& way, const std::function<void(const Way&)>& action) {
        action(way);
        for (Seen* child : way.back()->children()) {
            // A template stands for nothing that could be found, nor does what is below it.
            if (child->tqlFlags() == tqlengine::kObjectTemplate) continue;
            way.push_back(child);
            visit(way, action);
            way.pop_back();
        }
    }

    Seen root_;
    std::map<tql::id_t, Way> ways_;
};

}  // namespace queries
