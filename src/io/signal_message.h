// The 8-byte signals that travel through FIFOs. A signal is a 32-bit word and the 32-bit id of its
// sender, in the byte order of the host. The word is an offset or a size with a tag in its three
// low bits, or, those being 0, a code in its low byte and an argument in the upper 24 bits.
//
//   offset  size  field
//        0     4  word
//        4     4  sender   sibling id
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace io {

enum class signal_t : uint8_t {
    RequestPeer = 0,
    MessageAt = 1,
    AckMessageAt = 2,
    ExtraOffset = 3,
    ExtraSize = 4,
    IAmUp = 16,
    SiblingAt = 24,
    InitShutdown = 32,
    AckShutdown = 40,
    ExtraSiblingId = 48,
    SiblingDied = 56,
    MT_Undefined = 255,
};

struct SignalMessage {
    uint32_t word = 0;
    uint32_t sender = 0;

    /// `argument`: a multiple of 8 for the four messages with a tag, else below 2^24.
    static SignalMessage make(signal_t type, uint32_t argument, uint32_t sender);

    /// MT_Undefined for every word that is none of the known messages.
    [[nodiscard]] signal_t type() const;
    [[nodiscard]] uint32_t argument() const;
    /// Name, argument in parentheses, " [from:", sender, "]".
    [[nodiscard]] std::string text() const;

    bool operator==(const SignalMessage&) const = default;
};

inline constexpr size_t kSignalBytes = 8;
static_assert(sizeof(SignalMessage) == kSignalBytes && offsetof(SignalMessage, sender) == 4,
              "signals are copied to and from the FIFO as they stand");

}  // namespace io
