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

bool TsdbCallbacks::awaits(const queues::event& received) const {
    return received.peer == queues::queue_t::tsdb && waiting_.contains(received.uid);
}

std::string TsdbCallbacks::take(const queues::event& received) {
    const Callback callback = std::move(waiting_.extract(received.uid).mapped());
    finish(*callback, received);
    return callback->name();
}

void TsdbCallbacks::fail_all(const std::string& text) {
    const auto failed = std::move(waiting_);
    waiting_.clear();
    for (const auto& [uid, callback] : failed)
        finish(*callback, queues::exevent(queues::queue_t::tsdb, uid, text));
}

/// An asker that is gone meanwhile holds up nobody.
void TsdbCallbacks::finish(AsyncTsdbCallback& callback, const queues::event& reply) {
    const bool last = callback.dec_ref();
    try {
        if (reply.number() == queues::MESSAGE_EXCEPTION)
            callback.on_error(static_cast<const queues::exevent&>(reply));
        else
            callback.on_reply(reply);
        if (last) callback.on_done();
    } catch (const io::EEndOfStream& gone) {
        logger.info("Lost peer: {}", gone.text());
    }
    logger.debug("Callback: {}", callback.name());
}

}  // namespace dbms
