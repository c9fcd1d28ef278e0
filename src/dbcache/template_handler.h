// TemplateHandler: a child that could be created, shown to clients as a suggestion with its default
// values; sending those back creates it. It has no storage and no id of its own, and stands where
// the object would: under a stored object, under one of its groups, or under another template, so
// that a whole subtree can be suggested. Made for each listing and deleted with its last reference.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "dbcache/nodetype_schema.h"
#include "dbcache/store.h"

namespace tqlengine {
class ClassSet;
}

namespace dbcache {

/// Origin type of a template whose class has that of its parent.
inline constexpr uint32_t kTemplateOrigin = 33;

class TemplateHandler final : public tqlengine::TqlObjectHandler {
  public:
    struct Place {
        /// The would-be parent, as a query sees it.
        tqlengine::HandlerRef parent;
        /// The stored object that `parent` is, or is a group of; empty under a template.
        ObjectHandlerRef object;
        Store& store;
    };
    /// Appends the preset values of each template of a class.
    using ListValues = std::function<void(const NodetypeSchema&, std::vector<TemplateValues>&)>;

    /// Appends the templates of those of `child_classes`, nodetypes by class, that `classes`
    /// admits, numbered from 0 for each class. A nodetype without schema is logged.
    static void list(const Place& place, const std::map<uint32_t, uint32_t>& child_classes,
                     const tqlengine::ClassSet& classes, const ListValues& list_values,
                     tqlengine::HandlerList& out);

    TemplateHandler(Place place, const NodetypeSchema& schema, uint32_t ordinal,
                    TemplateValues values);

    /// That of the parent; empty when the parent is a template itself.
    [[nodiscard]] tql::id_t tqlId() const override;
    [[nodiscard]] tql::version_t tqlVersion() const override { return {}; }
    [[nodiscard]] uint32_t tqlFlags() const override { return tqlengine::kObjectTemplate; }
    [[nodiscard]] tql::internal_id_t tqlInternalId() const override;
    [[nodiscard]] tql::origin_t tqlOrigin() override;
    /// The templates of what could stand below, as the schemas of the children suggest it.
    void tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t& pattern) override;
    tqlengine::HandlerRef tqlParentHandler() override { return place_.parent; }
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

    // Each throws errors::tql with "Cannot create children of templates" and so on.
    uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                       const tqlengine::WriteArguments& arguments) override;
    uint32_t tqlUpdate(const tqlengine::WriteArguments& arguments) override;
    void tqlDelete(const tqlengine::DeleteArguments& arguments) override;

  private:
    /// Gives the subtype that the values make.
    uint32_t assign_values(const PropertyChain& chain, WorkArray& work) const;
    void encode_values(const PropertyChain& chain, const WorkArray& work, uint32_t subtype,
                       const tql::pattern_t& pattern, tql::property_map_t& out) const;
    /// Runs `step`; what fails becomes errors::tql with code 14 that begins "Error ", `doing`.
    template <class Step>
    void run_step(const char* doing, Step&& step) const;

    const Place place_;
    const NodetypeSchema& schema_;
    const uint32_t ordinal_;
    const TemplateValues values_;
};

}  // namespace dbcache
