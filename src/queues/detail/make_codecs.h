// Makes entries of the codec table. Include this only in the codecs_*.cpp files, behind the
// records.
#pragma once

#include <array>
#include <utility>

#include "queues/detail/codec.h"
#include "queues/detail/print.h"
#include "queues/detail/same.h"

namespace queues::detail {

template <event_t N>
[[nodiscard]] constexpr codec_t make_codec() {
    using Data = record_t<N>;
    return {
        .make = [](queue_t peer, std::uint32_t uid) -> std::unique_ptr<event> {
            return std::make_unique<devent<N>>(peer, uid);
        },
        .read = [](Reader& in, void* record) { get(in, *static_cast<Data*>(record)); },
        .write = [](Writer& out,
                    const void* record) { put(out, *static_cast<const Data*>(record)); },
        .print =
            [](std::ostream& out, const void* record) {
                Printer printer(out);
                if constexpr (Record<Data>)
                    show_fields(printer, *static_cast<const Data*>(record));
                else
                    show(printer, {}, *static_cast<const Data*>(record));
            },
        .same =
            [](const void* left, const void* right) {
                return same(*static_cast<const Data*>(left), *static_cast<const Data*>(right));
            },
    };
}

template <int First, int... Offsets>
[[nodiscard]] constexpr auto make_codecs(std::integer_sequence<int, Offsets...>) {
    return std::array<codec_t, sizeof...(Offsets)>{
        make_codec<static_cast<event_t>(First + Offsets)>()...};
}

/// Entries of the numbers First up to, but without, End.
template <int First, int End>
inline constexpr auto kCodecs = make_codecs<First>(std::make_integer_sequence<int, End - First>());

}  // namespace queues::detail
