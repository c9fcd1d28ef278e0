// Requests: from an event to the series store and back. Answers to what changes something are kept
// until it is durable; all others go out at once.
//
// A storage that can't be opened doesn't end the process: every request is answered with the
// reason, and the storage is tried again every few seconds. Nothing that is wrong with a request or
// the storage is thrown.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "queues/event.h"
#include "tsdb/series_store.h"

namespace tsdb {

class Requests {
  public:
    using Open = std::function<std::unique_ptr<Storage>()>;
    /// Gets the answers; throws nothing.
    using Send = std::function<void(const queues::event&)>;

    /// `open` makes the storage or throws EStorage. The clock outlives the object.
    Requests(const platform::Clock& clock, Open open, Send send);

    /// False for an event that is no request to this process.
    [[nodiscard]] bool take(const queues::event& received);

    /// Whether a commit is due: somebody waits for one, or the last is long ago. In the first case
    /// it is worth while to take what else has arrived before, up to kMostWaiting.
    [[nodiscard]] bool someone_waits() const noexcept { return !waiting_.empty(); }
    [[nodiscard]] bool must_commit() const;
    /// When must_commit() will be true if nothing happens, on the monotonic clock.
    [[nodiscard]] std::optional<uint64_t> commit_due_us() const;
    void commit();
    /// The last commit. Series that were made ahead go.
    void finish();

    /// Work that can be done while nothing arrives; false when there is none.
    [[nodiscard]] bool work_idly();

    static constexpr uint64_t kCommitEvery_us = 1'000'000;
    static constexpr size_t kMostUncommitted = 50'000;
    static constexpr size_t kMostWaiting = 256;
    static constexpr uint64_t kOpenAgain_us = 5'000'000;

  private:
    using Answers = std::vector<std::unique_ptr<queues::event>>;
    struct Waiting {
        queues::queue_t peer;
        uint32_t uid;
        Answers answers;
    };

    void open_if_due();
    void handle(const queues::event& received);
    void handle_create(const queues::event& received);
    void handle_put(const queues::event& received);
    void answer_after_commit(const queues::event& asked, std::unique_ptr<queues::event> answer);
    template <queues::event_t N, class Record>
    void answer_durable(const queues::event& asked, Record record);
    template <queues::event_t N, class Record>
    void answer_now(const queues::event& asked, Record record);
    void refuse(const queues::event& asked, const std::string& text);
    void note_change();
    void lose_uncommitted(const std::string& reason);

    const platform::Clock& clock_;
    Open open_;
    Send send_;
    std::unique_ptr<Storage> storage_;
    std::optional<SeriesStore> series_;
    std::string closed_because_;
    uint64_t open_again_us_ = 0;
    std::vector<Waiting> waiting_;
    std::optional<uint64_t> first_change_us_;
    bool purges_ = true;
};

}  // namespace tsdb
