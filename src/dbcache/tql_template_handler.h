// TqlTemplateHandler: base of ready-made templates of checks, which the childrenHook of a class
// offers under a group of checks. They have no schema behind them: a derived class writes fixed
// values in its tqlEncode.
//
// Such a handler knows no parent and is made for one listing, so it comes into the world with the
// one reference that it has until it goes: make_template() gives that.
#pragma once

#include "tqlengine/object_handler.h"

namespace dbcache {

class TqlTemplateHandler : public tqlengine::TqlObjectHandler {
  public:
    [[nodiscard]] tql::id_t tqlId() const final { return id_; }
    [[nodiscard]] tql::version_t tqlVersion() const final { return version_; }
    [[nodiscard]] uint32_t tqlFlags() const final { return tqlengine::kObjectTemplate; }
    [[nodiscard]] tql::internal_id_t tqlInternalId() const final;
    [[nodiscard]] tql::origin_t tqlOrigin() final { return origin_; }
    void tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t& pattern) final;
    /// A fatal assertion.
    tqlengine::HandlerRef tqlParentHandler() final;

    // Each throws errors::tql with "Cannot create children of templates" and so on.
    uint32_t tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                       const tqlengine::WriteArguments& arguments) final;
    uint32_t tqlUpdate(const tqlengine::WriteArguments& arguments) final;
    void tqlDelete(const tqlengine::DeleteArguments& arguments) final;

  protected:
    /// A template of a check under `place`, of which it takes id, version and the origin of a
    /// check there; `ordinal` is its number among the templates offered there.
    TqlTemplateHandler(TqlObjectHandler& place, uint32_t ordinal);

    /// A fatal assertion: the first reference is there from the start.
    void tqlAddRef() final;

  private:
    const tql::id_t id_;
    const tql::version_t version_;
    tql::origin_t origin_;
    const uint32_t ordinal_;
};

/// Whether a listing by this pattern is to show templates of checks.
[[nodiscard]] bool asks_for_check_templates(const tql::pattern_t& pattern);

/// Makes a template of a class derived from TqlTemplateHandler.
template <class Template, class... Args>
[[nodiscard]] tqlengine::HandlerRef make_template(Args&&... args) {
    return tqlengine::HandlerRef::adopt(new Template(std::forward<Args>(args)...));
}

}  // namespace dbcache
