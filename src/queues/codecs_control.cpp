#include "queues/detail/make_codecs.h"
#include "queues/records/control.h"

namespace queues::detail {

std::span<const codec_t> control_codecs() {
    return kCodecs<kFirstControl, kFirstChecks>;
}

}  // namespace queues::detail
