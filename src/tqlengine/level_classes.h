// Which classes a step of a pattern can match among the children of one object.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "tql/names.h"
#include "tql/pattern.h"

namespace tqlengine {

/// Some classes, or all.
class ClassSet {
  public:
    void insert(uint32_t class_number) {
        if (class_number == cls::Any)
            all_ = true;
        else if (!first_)
            first_ = class_number;
        else
            others_.push_back(class_number);
    }
    [[nodiscard]] bool empty() const noexcept { return !all_ && !first_; }
    [[nodiscard]] bool admits(uint32_t class_number) const noexcept {
        return all_ || first_ == class_number ||
               std::find(others_.begin(), others_.end(), class_number) != others_.end();
    }

  private:
    bool all_ = false;
    /// Mostly there is one, and listings are too many to allocate for it.
    std::optional<uint32_t> first_;
    std::vector<uint32_t> others_;
};

/// The classes that a step, and with the recursive flag what follows it, can match at one level:
/// those of objects, and those of templates.
class LevelClasses {
  public:
    explicit LevelClasses(const tql::pattern_t& pattern) { collect(pattern); }

    [[nodiscard]] const ClassSet& objects() const noexcept { return objects_; }
    [[nodiscard]] const ClassSet& templates() const noexcept { return templates_; }

  private:
    void collect(const tql::pattern_t& pattern) {
        const bool of_templates = (pattern.flags & tql::kPatternTemplates) != 0;
        (of_templates ? templates_ : objects_).insert(pattern.class_);
        if ((pattern.flags & tql::kPatternRecursive) == 0) return;
        for (const tql::pattern_t& next : pattern.next) collect(next);
        for (const tql::pattern_t& next : pattern.cond_next) collect(next);
    }

    ClassSet objects_;
    ClassSet templates_;
};

}  // namespace tqlengine
