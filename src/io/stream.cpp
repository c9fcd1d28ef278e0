#include "io/stream.h"

#include "error/exception.h"
#include "io/selector.h"

namespace io {

void waitReady(Selectable& stream) {
    if (stream.isReady()) return;
    Selector<int> selector;
    selector.add(stream, 0);
    const Selectable& ready = selector.select(wait_t::blocking);
    error::check(&ready == &stream, "Got wrong selectable in waitReady: {}", ready.nameText());
    selector.remove(stream);
}

}  // namespace io
