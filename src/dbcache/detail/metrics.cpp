#include "dbcache/detail/metrics.h"

namespace dbcache::detail::metrics {

namespace {
meter::Group group{"dbcache"};
meter::Group time_group{&group, "time"};
}  // namespace

meter::IntegerCounter children{&group, "children", "", "Listings of the children of an object"};
meter::IntegerCounter children_count{&group, "children_count", "",
                                     "Children that came out of those listings"};
meter::IntegerCounter with_sibling{&group, "with_sibling", "",
                                   "Look-ups of a child by its sibling name"};
meter::IntegerCounter with_sibling_found{&group, "with_sibling_found", "",
                                         "Look-ups by sibling name that found the child in memory"};
meter::IntegerCounter create_fails{
    &group, "create_fails", "",
    "Number of times creation of an object fails because of constraints"};
meter::IntegerCounter load_inside_tx{&group, "load_inside_tx", "",
                                     "Loads inside transaction context"};
meter::IntegerCounter load_outside_tx{&group, "load_outside_tx", "",
                                      "Loads outside transaction context"};
meter::IntegerCounter num_cache_objs{&group, "num_cache_objs", "",
                                     "Number of objects cached in ram"};
meter::MicroSecondTiming primary_key_time{&group, "primary_key_time",
                                          "The time spent checking for duplicate primary keys"};
meter::MicroSecondTiming encode_time{&time_group, "encode", "Time spent encoding TQL properties"};

}  // namespace dbcache::detail::metrics
