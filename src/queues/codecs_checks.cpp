#include "queues/detail/make_codecs.h"
#include "queues/records/dbms_checks.h"
#include "queues/records/tsdb_requests.h"

namespace queues::detail {

std::span<const codec_t> checks_codecs() {
    return kCodecs<kFirstChecks, kFirstTql>;
}

}  // namespace queues::detail
