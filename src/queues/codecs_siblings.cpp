#include "queues/detail/make_codecs.h"
#include "queues/records/alarms.h"
#include "queues/records/alert.h"
#include "queues/records/checks.h"
#include "queues/records/network.h"

namespace queues::detail {

std::span<const codec_t> siblings_codecs() {
    return kCodecs<kFirstSiblings, MESSAGE_EXCEPTION>;
}

}  // namespace queues::detail
