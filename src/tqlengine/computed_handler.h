// Bases of objects without storage: computed ones, which stand somewhere below a stored or computed
// object, and singletons, which stand for a whole class and are reached by class number instead of
// an id.
#pragma once

#include "tqlengine/object_handler.h"

namespace tqlengine {

/// An object that is made up when it is asked for. Can't be written.
class TqlComputedObjectHandler : public TqlObjectHandler {
  public:
    [[nodiscard]] tql::id_t tqlId() const override { return {}; }
    [[nodiscard]] tql::version_t tqlVersion() const override { return {}; }
    [[nodiscard]] uint32_t tqlFlags() const override { return kObjectComputed; }
    [[nodiscard]] tql::origin_t tqlOrigin() override { return {}; }

    uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                       const WriteArguments& arguments) override;
    uint32_t tqlUpdate(const WriteArguments& arguments) override;
    void tqlDelete(const DeleteArguments& arguments) override;

  protected:
    using TqlObjectHandler::TqlObjectHandler;
};

/// The only object of its class; registered with Engine::add_singleton() and owned by who made it.
class TqlSingletonHandler : public TqlComputedObjectHandler {
  public:
    [[nodiscard]] uint32_t tqlFlags() const override { return kObjectStored; }
    [[nodiscard]] tql::internal_id_t tqlInternalId() const override;
    /// A singleton has no parent: a fatal assertion.
    HandlerRef tqlParentHandler() override;

    uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                       const WriteArguments& arguments) override;
    uint32_t tqlUpdate(const WriteArguments& arguments) override;
    void tqlDelete(const DeleteArguments& arguments) override;

  protected:
    using TqlComputedObjectHandler::TqlComputedObjectHandler;
    /// Lives until the process ends: nothing happens when the last reference goes.
    void tqlRelease() noexcept override {}
};

}  // namespace tqlengine
