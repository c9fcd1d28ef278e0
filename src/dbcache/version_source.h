// VersionSource: gives every request that changes something a version of its own. One per server,
// made by the composition root. The ring sequence is a new one at each start (bootstrap.h), so that
// no version is ever given twice although the counter isn't stored.
#pragma once

#include "tql/version.h"

namespace dbcache {

class VersionSource {
  public:
    explicit VersionSource(uint64_t ring_sequence) : last_{ring_sequence, 0} {}

    /// Counts on and gives the new version.
    [[nodiscard]] tql::version_t next() noexcept {
        ++last_.counter;
        return last_;
    }
    /// The version given last.
    [[nodiscard]] const tql::version_t& current() const noexcept { return last_; }

  private:
    tql::version_t last_;
};

}  // namespace dbcache
