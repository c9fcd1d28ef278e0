// What is thrown for a record that cannot be read.
#pragma once

#include "error/exception.h"

namespace queues {

/// A record on the wire claims something that cannot be: more bytes or elements than a record may
/// have, an id of four numbers, a type code that nobody knows. The place in the stream is lost with
/// it, and so is the peer's trust: it ends the process.
class EMalformedRecord : public error::EFatal {
  public:
    using EFatal::EFatal;
};

}  // namespace queues
