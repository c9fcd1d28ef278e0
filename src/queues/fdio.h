// fdio: whole events over the byte streams of one peer.
//
//   header   number, peer, uid, exception (0 or 1), 4 bytes each
//   record   the data record of the number; for an exception event its text instead
//
// The last block of an event holds no other event, so that an event can be read as soon as it was
// written.
#pragma once

#include <memory>

#include "protocol/ioprim.h"
#include "queues/event.h"

namespace queues {

class fdio {
  public:
    /// The streams must outlive this object.
    fdio(io::IStream& in, io::OStream& out) : prim_(in, out) {}

    /// Writes one event and publishes it; waits as long as there is no room. A number outside 1 to
    /// 204 is a fatal assertion. io::EEndOfStream if the peer ended: the event is lost then, whole
    /// or from some block on.
    void write(const event& sent);

    /// The next event; waits for each block of it. io::EEndOfStream if the peer ended. A number
    /// outside 1 to 204 is a fatal assertion, a record that cannot be one is an EMalformedRecord.
    [[nodiscard]] std::unique_ptr<event> read();

  private:
    std::unique_ptr<event> read_body(event_t number);

    protocol::ioprim prim_;
    event_t last_number_ = INVALID_HEAD;
    queue_t last_peer_ = queue_t::none;
};

/// The event as its receiver gets it: written and read in this process. For events that have no
/// record before they are sent.
[[nodiscard]] std::unique_ptr<event> as_received(const event& sent);

}  // namespace queues
