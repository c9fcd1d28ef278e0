// What goes wrong on streams without being anybody's fault: the peer ended, the stream was used too
// early, or there is no road to the peer yet.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "error/exception.h"

namespace io {

/// The other end of a stream ended, or what is left of a shutdown forbids to use it.
class EEndOfStream : public error::Exception {
  public:
    /// Text: "EOS from " and the stream's name, then ": " and the reason if one is given. `peer_id`
    /// is the sibling at the other end, where that is one.
    explicit EEndOfStream(std::string_view stream_name, std::string_view reason = {},
                          std::optional<uint32_t> peer_id = std::nullopt);

    /// Why the stream ended; may be empty.
    [[nodiscard]] const std::string& reason() const noexcept { return reason_; }
    /// Whose stream it was; none for a stream that is no sibling's.
    [[nodiscard]] std::optional<uint32_t> peer_id() const noexcept { return peer_id_; }

  private:
    std::string reason_;
    std::optional<uint32_t> peer_id_;
};

/// Something was used although it was not ready, or a select that must not block found nothing.
class ENotReady : public error::Exception {
  public:
    /// Text: "Selectable ", the name, " not ready".
    explicit ENotReady(std::string_view name);
};

/// The peer's FIFO is not open: it was not introduced, or it doesn't run.
class ENoConnection : public error::Exception {
  public:
    /// Text: "No connection to other SiblingMessenger".
    ENoConnection();
};

}  // namespace io
