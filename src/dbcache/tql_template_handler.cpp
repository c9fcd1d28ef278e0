#include "dbcache/tql_template_handler.h"

#include "dbcache/detail/template_refusals.h"
#include "error/exception.h"
#include "tql/names.h"
#include "tqlengine/level_classes.h"

namespace dbcache {

namespace {

/// Origin type of the class of checks.
constexpr uint32_t kCheckOrigin = 3;

}  // namespace

TqlTemplateHandler::TqlTemplateHandler(TqlObjectHandler& place, uint32_t ordinal)
    : TqlObjectHandler(cls::Check, kReferenced),
      id_(place.tqlId()),
      version_(place.tqlVersion()),
      origin_(place.tqlOrigin()),
      ordinal_(ordinal) {
    origin_.type = kCheckOrigin;
}

tql::internal_id_t TqlTemplateHandler::tqlInternalId() const {
    return tql::internal_id_t::by_place(class_number(), ordinal_);
}

void TqlTemplateHandler::tqlChildrenHandlers(tqlengine::HandlerList&, const tql::pattern_t&) {}

tqlengine::HandlerRef TqlTemplateHandler::tqlParentHandler() {
    error::fail_assertion("tqlParentHandler() invoked");
}

void TqlTemplateHandler::tqlAddRef() {
    error::fail_assertion("TqlTemplateHandler::tqlAddRef() invoked");
}

uint32_t TqlTemplateHandler::tqlCreate(const tql::id_t&, uint32_t,
                                       const tqlengine::WriteArguments&) {
    detail::refuse_template_create();
}

uint32_t TqlTemplateHandler::tqlUpdate(const tqlengine::WriteArguments&) {
    detail::refuse_template_update();
}

void TqlTemplateHandler::tqlDelete(const tqlengine::DeleteArguments&) {
    detail::refuse_template_delete();
}

bool asks_for_check_templates(const tql::pattern_t& pattern) {
    return tqlengine::LevelClasses(pattern).templates().admits(cls::Check);
}

}  // namespace dbcache
