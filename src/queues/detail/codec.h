// The table behind reading, writing, printing and comparing events: one entry for each number, made
// from the catalogue. The entries are instantiated in the codecs_*.cpp files, by family, so that
// nobody else pays for it in compile time.
#pragma once

#include <array>
#include <iosfwd>
#include <memory>
#include <span>

#include "queues/detail/wire.h"
#include "queues/event.h"

namespace queues::detail {

/// What can be done with the record of one event number.
struct codec_t {
    std::unique_ptr<event> (*make)(queue_t peer,
                                   std::uint32_t uid);  ///< a devent with an empty record
    void (*read)(Reader& in, void* record);
    void (*write)(Writer& out, const void* record);
    void (*print)(std::ostream& out, const void* record);
    bool (*same)(const void* left, const void* right);
};

/// The families, in the order of their numbers.
[[nodiscard]] std::span<const codec_t> control_codecs();   //   1 ..  25
[[nodiscard]] std::span<const codec_t> checks_codecs();    //  26 ..  75
[[nodiscard]] std::span<const codec_t> tql_codecs();       //  76 ..  97
[[nodiscard]] std::span<const codec_t> access_codecs();    //  98 .. 130
[[nodiscard]] std::span<const codec_t> siblings_codecs();  // 131 .. 203

inline constexpr int kFirstControl = 1;
inline constexpr int kFirstChecks = CREATE_TIMESERIES;
inline constexpr int kFirstTql = GET_TQL_CLASS_NAMES;
inline constexpr int kFirstAccess = TSDB_GET_DATA;
inline constexpr int kFirstSiblings = SCHEDULE_EVENT_ABSOLUTE;

/// The entry of a number from 1 to 203.
[[nodiscard]] const codec_t& get_codec(event_t number);

}  // namespace queues::detail
