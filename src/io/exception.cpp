#include "io/exception.h"

namespace io {

namespace {

std::string eos_text(std::string_view stream_name, std::string_view reason) {
    std::string text = "EOS from ";
    text += stream_name;
    if (!reason.empty()) {
        text += ": ";
        text += reason;
    }
    return text;
}

}  // namespace

EEndOfStream::EEndOfStream(std::string_view stream_name, std::string_view reason,
                           std::optional<uint32_t> peer_id)
    : Exception(eos_text(stream_name, reason)), reason_(reason), peer_id_(peer_id) {}

ENotReady::ENotReady(std::string_view name)
    : Exception("Selectable " + std::string(name) + " not ready") {}

ENoConnection::ENoConnection() : Exception("No connection to other SiblingMessenger") {}

}  // namespace io
