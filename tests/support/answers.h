// What the engine answers, as it arrives at the asker: every test that looks at an answer looks at
// what has travelled.
#pragma once

#include <optional>
#include <utility>

#include "tqlengine/answers.h"

namespace support {

inline dbms::Return_Tql_Select_Data received(tqlengine::SelectAnswer answer) {
    const tqlengine::SelectEvent sent(queues::queue_t::none, 0, std::move(answer));
    return std::move(queues::data<queues::RETURN_TQL_SELECT>(*queues::as_received(sent)));
}

inline std::optional<tql::result_t> received(const tql::id_t& object,
                                             tqlengine::ResultNodePtr patch) {
    if (!patch) return std::nullopt;
    const tqlengine::PatchEvent sent(queues::queue_t::none, 0, {object, std::move(patch)});
    return std::move(
        queues::data<queues::RETURN_TQL_SELECT_PATCH>(*queues::as_received(sent)).patch);
}

}  // namespace support
