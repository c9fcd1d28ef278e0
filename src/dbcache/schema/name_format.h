// The format language in which a group says how the long labels of its checks are made from the
// names on the way down to them.
//
//   %<n>l  %<n>r       the n-th name from the left or from the right, counted from 0
//   %cDfDsDtD          the names from f to t, each an index as above, with s between them; D is any
//                      character and closes each field: "%c,0l, - ,0r," joins all names by " - "
//   anything else      stands for itself
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "error/exception.h"

namespace errors {

/// A name format that can't be applied.
class format : public stdanomaly {
  public:
    using stdanomaly::stdanomaly;
};

}  // namespace errors

namespace dbcache {

/// The label of a check and, without its last name, of a group.
inline constexpr std::string_view kCheckNameFormat = "%c,0l, - ,1r, for %0r";
/// All names, as groups themselves show them.
inline constexpr std::string_view kGroupNameFormat = "%c,0l, - ,0r,";

/// Applies `format` to `names`. Throws errors::format.
[[nodiscard]] std::string format_names(std::string_view format,
                                       const std::vector<std::string>& names);

}  // namespace dbcache
