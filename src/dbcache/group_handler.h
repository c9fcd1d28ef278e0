// GroupHandler: a group of an object's children, which has no storage of its own: the third
// component of an id. Made for each listing or look-up and deleted with its last reference.
#pragma once

#include "dbcache/object_handler.h"

namespace dbcache {

class GroupHandler final : public tqlengine::TqlObjectHandler {
  public:
    /// `parent` must have the group `group_id` in its schema.
    GroupHandler(ObjectHandlerRef parent, int32_t group_id);

    [[nodiscard]] tql::id_t tqlId() const override;
    /// The version of the object that has the group.
    [[nodiscard]] tql::version_t tqlVersion() const override { return parent_->tqlVersion(); }
    [[nodiscard]] tql::origin_t tqlOrigin() override { return parent_->tqlOrigin(); }
    void tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t& pattern) override;
    tqlengine::HandlerRef tqlParentHandler() override { return parent_; }
    tqlengine::TqlIdResolver* tqlIdResolver() override { return parent_->tqlIdResolver(); }
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;
    uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                       const tqlengine::WriteArguments& arguments) override;
    /// Does nothing and reports success.
    uint32_t tqlUpdate(const tqlengine::WriteArguments& arguments) override;
    /// Throws "Cannot delete this object".
    void tqlDelete(const tqlengine::DeleteArguments& arguments) override;

  private:
    [[nodiscard]] const NodetypeSchema::Group& group() const;

    ObjectHandlerRef parent_;
    int32_t group_id_;
};

}  // namespace dbcache
