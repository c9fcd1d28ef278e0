#include "dbms/tsdb_callbacks.h"

#include "error/exception.h"
#include "io/exception.h"
#include "log/log.h"

namespace dbms {

namespace {
const logging::Logger logger{"dbms_tsdb"};
}

bool AsyncTsdbCallback::dec_ref() {
    error::check(references_ > 0, "AsyncTsdbCallback::decRefCount would go below zero");
    return --references_ == 0;
}

void TsdbCallbacks::enter(uint32_t uid, Callback callback) {
    callback->add_ref();
    waiting_[uid] = std::move(callback);
}

bool TsdbCallbacks::take(const queues::event& received) {
    if (received.peer != queues::queue_t::tsdb) return false;
    const auto found = waiting_.find(received.uid);
    if (found == waiting_.end()) return false;
    const Callback callback = std::move(found->second);
    waiting_.erase(found);
    if (received.number() == queues::MESSAGE_EXCEPTION)
        finish(*callback, nullptr, static_cast<const queues::exevent&>(received).text);
    else
        finish(*callback, &received, {});
    return true;
}

void TsdbCallbacks::fail_all(const std::string& text) {
    const auto failed = std::move(waiting_);
    waiting_.clear();
    for (const auto& [uid, callback] : failed) finish(*callback, nullptr, text);
}

/// An asker that is gone meanwhile holds up nobody.
void TsdbCallbacks::finish(AsyncTsdbCallback& callback, const queues::event* reply,
                           const std::string& error) {
    const bool last = callback.dec_ref();
    try {
        if (reply != nullptr)
            callback.on_reply(*reply);
        else
            callback.on_error(error);
        if (last) callback.on_done();
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
    }
    logger.debug("Callback: {}", callback.name());
}

}  // namespace dbms
