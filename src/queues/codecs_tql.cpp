#include "queues/detail/make_codecs.h"
#include "queues/records/dbms_tql.h"

namespace queues::detail {

std::span<const codec_t> tql_codecs() {
    return kCodecs<kFirstTql, kFirstAccess>;
}

}  // namespace queues::detail
