// What the engine answers, as events: the trees of a select and of a patch, which are written to
// the stream from where the engine has put them together. On the way they are the records of
// queues/records/dbms_tql.h, and that is what arrives.
#pragma once

#include <list>
#include <memory>
#include <utility>
#include <vector>

#include "queues/event.h"
#include "queues/fdio.h"
#include "queues/records/dbms_tql.h"
#include "tqlengine/result_node.h"

namespace tqlengine {

/// Travels as a dbms::Return_Tql_Select_Data.
struct SelectAnswer {
    uint32_t status = 0;
    std::list<dbms::detail_t> details;
    std::vector<ResultNodePtr> results;

    void write(protocol::ioprim& out) const;
};

/// Travels as a dbms::Return_Tql_Select_Patch_Data.
struct PatchAnswer {
    tql::id_t id;
    ResultNodePtr patch;

    void write(protocol::ioprim& out) const;
};

/// An event of number N to be sent, whose record is `content`. There is no record to look at before
/// it has arrived: raw_data() is null, and a copy is the event as it arrives.
template <queues::event_t N, class Content>
class AnswerEvent final : public queues::event {
  public:
    AnswerEvent(queues::queue_t peer_queue, std::uint32_t dialog, Content made)
        : event(N, peer_queue, dialog, false, nullptr), content(std::move(made)) {}

    [[nodiscard]] std::unique_ptr<queues::event> clone() const override {
        return queues::as_received(*this);
    }
    void write_record(protocol::ioprim& out) const override { content.write(out); }
    void print(std::ostream& out) const override { queues::as_received(*this)->print(out); }

    Content content;
};

using SelectEvent = AnswerEvent<queues::RETURN_TQL_SELECT, SelectAnswer>;
using PatchEvent = AnswerEvent<queues::RETURN_TQL_SELECT_PATCH, PatchAnswer>;

}  // namespace tqlengine
