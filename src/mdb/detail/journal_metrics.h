// The metrics of the journal, fed from its several source files.
#pragma once

#include "meter/meter.h"

namespace mdb::detail::journal_metrics {

extern meter::IntegerCounter bytes;
extern meter::IntegerCounter commits;
extern meter::IntegerCounter aborts;
extern meter::IntegerCounter flips;
extern meter::MicroSecondTiming sync;

}  // namespace mdb::detail::journal_metrics
