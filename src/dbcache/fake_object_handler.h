// FakeObjectHandler: a place in the tree where no object stands yet, while references are
// translated for one that is about to be created there. It has an id and a parent; every other
// operation ends the process.
#pragma once

#include "dbcache/object_handler.h"

namespace dbcache {

class FakeObjectHandler final : public tqlengine::TqlObjectHandler {
  public:
    /// `id` may be null; `parent` may be a group without storage. Neither is looked up here.
    FakeObjectHandler(Store& store, const NodeId& id, const tql::id_t& parent);

    [[nodiscard]] tql::id_t tqlId() const override { return tql::id_t::from_node_id(id_); }
    /// Empty when the parent isn't there either.
    tqlengine::HandlerRef tqlParentHandler() override;

    // Each throws error::EFatal with "FakeObjectHandler::" and its name.
    [[nodiscard]] tql::version_t tqlVersion() const override;
    [[nodiscard]] uint32_t tqlFlags() const override;
    [[nodiscard]] tql::origin_t tqlOrigin() override;
    void tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t& pattern) override;
    tqlengine::HandlerRef tqlChild(uint32_t number) override;
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;
    uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                       const tqlengine::WriteArguments& arguments) override;
    uint32_t tqlUpdate(const tqlengine::WriteArguments& arguments) override;
    void tqlDelete(const tqlengine::DeleteArguments& arguments) override;
    void list_revalidated(tqlengine::HandlerList& out) override;

  private:
    Store& store_;
    NodeId id_;
    tql::id_t parent_;
};

}  // namespace dbcache
