// Brings a database of an older format up to date, and makes sure that it has its mark lists: the
// last steps of the start before anything is served. Works on records, so objects of classes that
// are not known stay as they are.
//
// Each conversion may be cut off at any moment; the format number is stored when it is done, and
// until then the next start does all of it again.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "dbcache/bootstrap.h"
#include "dbcache/store.h"

namespace dbcache {

/// Makes a time series for incidents and gives its number; none when nobody is there who could.
using CreateSeries = std::function<std::optional<uint32_t>()>;

/// Runs the conversions that `sequence` asks for and stores it, with a new ring sequence, after
/// each. No handler may be in memory. Throws error::EFatal for a database that is too old, too new,
/// or whose mark lists came out wrong; what `create_series` and the store throw passes through.
/// Costs two walks over all domains, nodes and checks, and two writes of each marked object.
void convert_format(const Store::Parts& parts, Sequence& sequence,
                    const CreateSeries& create_series);

/// Builds the mark lists that the database lacks. A list in which nothing would stand counts as
/// missing at each start and costs a walk over all that could. No handler may be in memory.
void prime_mark_lists(const Store::Parts& parts);

}  // namespace dbcache
