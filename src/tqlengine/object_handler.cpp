#include "tqlengine/object_handler.h"

#include "error/exception.h"
#include "tql/names.h"

namespace tqlengine {

tql::internal_id_t TqlObjectHandler::tqlInternalId() const {
    return tql::internal_id_t::stored(tqlId());
}

tql::origin_t TqlObjectHandler::tqlOriginBelow(const TqlObjectHandler& /*above*/,
                                               const tql::origin_t& /*origin_above*/) {
    return tqlOrigin();
}

HandlerRef TqlObjectHandler::tqlChild(uint32_t) {
    return {};
}

bool TqlObjectHandler::tqlSpecialMatch(uint32_t&, const tql::condition_t&) {
    return false;
}

void TqlObjectHandler::tqlRevalidate(RevalidationFailures& failures) {
    const tql::pattern_t every_child(cls::Any);
    HandlerList children;
    tqlChildrenHandlers(children, every_child);
    for (const HandlerRef& child : children) child->tqlRevalidate(failures);
}

void TqlObjectHandler::fail_unreferenced() noexcept {
    error::fail_assertion("tqlRelease called on unreferenced TqlObjectHandler");
}

void TqlObjectHandler::tqlRelease() noexcept {
    delete this;
}

}  // namespace tqlengine
