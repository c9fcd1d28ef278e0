#include "io/signal_message.h"

#include <fmt/format.h>

#include "error/exception.h"

namespace io {

namespace {

constexpr uint32_t kTagMask = 7;
constexpr unsigned kArgumentShift = 8;
constexpr uint32_t kMaxArgument = 0xFFFFFF;

const char* name_of(signal_t type) {
    switch (type) {
        case signal_t::RequestPeer:
            return "RequestPeer";
        case signal_t::MessageAt:
            return "MessageAt";
        case signal_t::AckMessageAt:
            return "AckMessageAt";
        case signal_t::ExtraOffset:
            return "ExtraOffset";
        case signal_t::ExtraSize:
            return "ExtraSize";
        case signal_t::IAmUp:
            return "IAmUp";
        case signal_t::SiblingAt:
            return "SiblingAt";
        case signal_t::InitShutdown:
            return "InitShutdown";
        case signal_t::AckShutdown:
            return "AckShutdown";
        case signal_t::ExtraSiblingId:
            return "ExtraSiblingId";
        case signal_t::SiblingDied:
            return "SiblingDied";
        case signal_t::MT_Undefined:
            break;
    }
    return "MT_Undefined";
}

}  // namespace

SignalMessage SignalMessage::make(signal_t type, uint32_t argument, uint32_t sender) {
    const auto code = static_cast<uint32_t>(type);
    if ((code & kTagMask) != 0) {
        error::check(argument % 8 == 0, "Misaligned argument of {}: {}", name_of(type), argument);
        return {argument | code, sender};
    }
    error::check(argument <= kMaxArgument, "Argument of {} too large: {}", name_of(type), argument);
    return {argument << kArgumentShift | code, sender};
}

signal_t SignalMessage::type() const {
    const uint32_t tag = word & kTagMask;
    if (tag >= 1 && tag <= 4) return static_cast<signal_t>(tag);
    if (tag != 0) return signal_t::MT_Undefined;
    switch (const auto code = static_cast<signal_t>(word & 0xFF)) {
        case signal_t::RequestPeer:
        case signal_t::IAmUp:
        case signal_t::SiblingAt:
        case signal_t::InitShutdown:
        case signal_t::AckShutdown:
        case signal_t::ExtraSiblingId:
        case signal_t::SiblingDied:
            return code;
        default:
            return signal_t::MT_Undefined;
    }
}

uint32_t SignalMessage::argument() const {
    return (word & kTagMask) != 0 ? word & ~kTagMask : word >> kArgumentShift;
}

std::string SignalMessage::text() const {
    return fmt::format("{}({}) [from:{}]", name_of(type()), argument(), sender);
}

}  // namespace io
