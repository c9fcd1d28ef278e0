#include "queues/detail/make_codecs.h"
#include "queues/records/dbms_checks.h"
#include "queues/records/dbms_replication.h"
#include "queues/records/dbms_tql.h"
#include "queues/records/dbms_tsdb.h"

namespace queues::detail {

std::span<const codec_t> access_codecs() {
    return kCodecs<kFirstAccess, kFirstSiblings>;
}

}  // namespace queues::detail
