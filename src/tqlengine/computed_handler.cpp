#include "tqlengine/computed_handler.h"

#include "error/exception.h"
#include "tql/errors.h"

namespace tqlengine {

namespace {

// No code says "this kind of object can't be written at all"; what comes nearest is that nobody is
// allowed to.
[[noreturn]] void refuse(const char* text) {
    throw errors::tql(errors::ERR_ACCESS_DENIED, text);
}

}  // namespace

uint32_t TqlComputedObjectHandler::tqlCreate(const tql::id_t&, uint32_t, const WriteArguments&) {
    refuse("Cannot create children of computed objects");
}

uint32_t TqlComputedObjectHandler::tqlUpdate(const WriteArguments&) {
    refuse("Cannot update computed objects");
}

void TqlComputedObjectHandler::tqlDelete(const DeleteArguments&) {
    refuse("Cannot delete computed objects");
}

tql::internal_id_t TqlSingletonHandler::tqlInternalId() const {
    return tql::internal_id_t::singleton(class_number());
}

HandlerRef TqlSingletonHandler::tqlParentHandler() {
    error::fail_assertion("tqlParentHandler() invoked");
}

uint32_t TqlSingletonHandler::tqlCreate(const tql::id_t&, uint32_t, const WriteArguments&) {
    refuse("Cannot create children of ClusterInfo");
}

uint32_t TqlSingletonHandler::tqlUpdate(const WriteArguments&) {
    refuse("Cannot update ClusterInfo");
}

void TqlSingletonHandler::tqlDelete(const DeleteArguments&) {
    refuse("Cannot delete ClusterInfo");
}

}  // namespace tqlengine
