#include "tqlengine/update_watcher.h"

#include "error/exception.h"
#include "tqlengine/engine.h"

namespace tqlengine {

TqlUpdateWatcher::TqlUpdateWatcher(Engine& engine, HandlerRef handler, watch_t mode)
    : engine_(engine), handler_(std::move(handler)), mode_(mode) {
    error::check(!handler_->watched_, "Object {} watched twice", handler_->tqlId());
    handler_->watched_ = true;
    if (mode_ == watch_t::existing) engine_.notify_pass(*handler_);
}

TqlUpdateWatcher::~TqlUpdateWatcher() {
    close();
}

void TqlUpdateWatcher::close() noexcept {
    if (!handler_) return;
    const bool created = mode_ == watch_t::create;
    engine_.notify(*handler_, created ? object_operation_t::created : object_operation_t::updated);
    engine_.notify_pass(*handler_);
    handler_->watched_ = false;
    handler_->tqlUpdateDone();
    handler_.reset();
}

HandlerRef TqlUpdateWatcher::forget() {
    error::check(static_cast<bool>(handler_), "forget on nothing in TqlUpdateWatcher");
    handler_->watched_ = false;
    return std::move(handler_);
}

}  // namespace tqlengine
