// What waits for a reply of the time series store while the server goes on: by the dialog id of the
// request, until the reply comes or the store is gone.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "queues/childqueue.h"
#include "queues/event.h"
#include "queues/records/dbms_tsdb.h"

namespace dbms {

/// One who waits, perhaps for several replies.
class AsyncTsdbCallback {
  public:
    /// `asker` gets the answer, under `asker_uid`.
    AsyncTsdbCallback(queues::queue_t asker, uint32_t asker_uid)
        : asker_(asker), asker_uid_(asker_uid) {}
    virtual ~AsyncTsdbCallback() = default;
    AsyncTsdbCallback(const AsyncTsdbCallback&) = delete;
    AsyncTsdbCallback& operator=(const AsyncTsdbCallback&) = delete;

    virtual void on_reply(const queues::event& reply) = 0;
    virtual void on_error(const queues::exevent& failure) = 0;
    /// After the last reply.
    virtual void on_done() {}
    /// Its name in the event trace and the log.
    [[nodiscard]] virtual const char* name() const = 0;

    void add_ref() noexcept { ++references_; }
    /// Whether the last reply has come. Below zero is a fatal assertion.
    [[nodiscard]] bool dec_ref();

  protected:
    [[nodiscard]] bool is_awaited() const noexcept { return queues::wants_reply(asker_uid_); }
    template <queues::event_t N>
    void answer(queues::childqueue& queue, queues::record_t<N> record) const {
        if (is_awaited()) queue.send(queues::devent<N>(asker_, asker_uid_, std::move(record)));
    }

  private:
    queues::queue_t asker_;
    uint32_t asker_uid_;
    int32_t references_ = 0;
};

/// All who wait.
class TsdbCallbacks {
  public:
    using Callback = std::shared_ptr<AsyncTsdbCallback>;

    /// `callback` waits for one reply more, that to `uid`.
    void enter(uint32_t uid, Callback callback);
    [[nodiscard]] bool awaits(const queues::event& received) const;
    /// Hands an event that is awaited to who waits for it, whose name this gives.
    std::string take(const queues::event& received);
    /// The store is gone: each reply that is awaited becomes an error with `text`.
    void fail_all(const std::string& text);
    [[nodiscard]] size_t pending() const noexcept { return waiting_.size(); }

  private:
    static void finish(AsyncTsdbCallback& callback, const queues::event& reply);

    std::map<uint32_t, Callback> waiting_;
};

}  // namespace dbms
