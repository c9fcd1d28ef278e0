// Two-sided byte streams: the reader and the writer work in place, in memory that the stream gives
// them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "io/selectable.h"

namespace io {

/// Ready when readBegin() can be called without blocking.
class IStream : public virtual Selectable {
  public:
    /// Points `out` at what can be read and gives its number of bytes, at least one; valid until
    /// readCommit(). ENotReady if there is nothing yet, EEndOfStream at the end.
    virtual size_t readBegin(const uint8_t*& out) = 0;
    /// `count` bytes from the pointer on were read; may be fewer than offered.
    virtual void readCommit(size_t count) = 0;
    virtual void closeRead() = 0;
};

/// Ready when writeBegin() can be called without blocking.
class OStream : public virtual Selectable {
  public:
    /// Points `out` at room for bytes and gives its size, at least one; valid until writeCommit().
    /// ENotReady if there is no room yet, EEndOfStream if the other side ended.
    virtual size_t writeBegin(uint8_t*& out) = 0;
    /// `count` bytes from the pointer on were written and are to go out; may be fewer than offered.
    virtual void writeCommit(size_t count) = 0;
    /// True while bytes committed here did not leave yet.
    [[nodiscard]] virtual bool hasPendingData() const = 0;
    virtual void closeWrite() = 0;
};

/// Returns once `stream` is ready. What lies below the stream is served meanwhile; nothing else is.
void waitReady(Selectable& stream);

}  // namespace io
