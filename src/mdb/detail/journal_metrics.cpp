#include "mdb/detail/journal_metrics.h"

namespace mdb::detail::journal_metrics {

namespace {
meter::Group group{"journal"};
}

meter::IntegerCounter bytes{&group, "bytes", "", "Number of bytes written to journal"};
meter::IntegerCounter commits{&group, "commits", "", "Number of transactions commit'ed"};
meter::IntegerCounter aborts{&group, "aborts", "", "Number of transactions abort'ed"};
meter::IntegerCounter flips{&group, "flips", "", "Number of transactions flips"};
meter::MicroSecondTiming sync{&group, "sync", "Time spent sync'ing journal"};

}  // namespace mdb::detail::journal_metrics
