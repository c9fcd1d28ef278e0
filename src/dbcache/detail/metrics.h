// The metrics of the object layer, fed from its several source files. Those of the object cache
// stand with it.
#pragma once

#include "meter/meter.h"

namespace dbcache::detail::metrics {

/// Listings of the children of an object, and the children that came out of them.
extern meter::IntegerCounter children;
extern meter::IntegerCounter children_count;
/// Of those listings, the ones that could ask for one child by its name, and that found it.
extern meter::IntegerCounter with_sibling;
extern meter::IntegerCounter with_sibling_found;
/// Creates that the rules of the tree and of the class refused.
extern meter::IntegerCounter create_fails;
/// Records of stored objects that were read.
extern meter::IntegerCounter load_inside_tx;
extern meter::IntegerCounter load_outside_tx;
/// Objects that came into memory.
extern meter::IntegerCounter num_cache_objs;
extern meter::MicroSecondTiming primary_key_time;
extern meter::MicroSecondTiming encode_time;

}  // namespace dbcache::detail::metrics
