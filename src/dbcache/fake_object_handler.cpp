#include "dbcache/fake_object_handler.h"

#include <fmt/format.h>

#include "dbcache/resolver.h"

namespace dbcache {

namespace {

[[noreturn]] void refuse(const char* operation) {
    throw error::EFatal(fmt::format("FakeObjectHandler::{}", operation));
}

}  // namespace

FakeObjectHandler::FakeObjectHandler(Store& store, const NodeId& id, const tql::id_t& parent)
    : TqlObjectHandler(0), store_(store), id_(id), parent_(parent) {}

tqlengine::HandlerRef FakeObjectHandler::tqlParentHandler() {
    return store_.resolver().find(parent_);
}

tql::version_t FakeObjectHandler::tqlVersion() const {
    refuse("tqlVersion");
}

uint32_t FakeObjectHandler::tqlFlags() const {
    refuse("tqlFlags");
}

tql::origin_t FakeObjectHandler::tqlOrigin() {
    refuse("tqlOrigin");
}

void FakeObjectHandler::tqlChildrenHandlers(tqlengine::HandlerList&, const tql::pattern_t&) {
    refuse("tqlChildrenHandlers");
}

tqlengine::HandlerRef FakeObjectHandler::tqlChild(uint32_t) {
    refuse("tqlChild");
}

void FakeObjectHandler::tqlEncode(const tql::pattern_t&, tql::property_map_t&) {
    refuse("tqlEncode");
}

uint32_t FakeObjectHandler::tqlCreate(const tql::id_t&, uint32_t,
                                      const tqlengine::WriteArguments&) {
    refuse("tqlCreate");
}

uint32_t FakeObjectHandler::tqlUpdate(const tqlengine::WriteArguments&) {
    refuse("tqlUpdate");
}

void FakeObjectHandler::tqlDelete(const tqlengine::DeleteArguments&) {
    refuse("tqlDelete");
}

void FakeObjectHandler::list_revalidated(tqlengine::HandlerList&) {
    refuse("tqlRevalidate");
}

}  // namespace dbcache
