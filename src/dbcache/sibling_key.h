// SiblingKey: the values in which an object must differ from its siblings, and how such values are
// found in other objects. It compares and hashes; it knows no tree and keeps nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "dbcache/schema_object.h"
#include "dbcache/work.h"
#include "util/node_id.h"

namespace dbcache {

class PropertySchema;

/// The values of one object, for one comparison with its siblings. Schemas, values and classes
/// belong to the caller and outlive the key.
class SiblingKey {
  public:
    /// Only siblings of these classes count.
    explicit SiblingKey(const std::set<uint32_t>& classes) : classes_(classes) {}

    /// One more value that must be equal; no null. A key without values is equal to that of every
    /// sibling.
    void add(const PropertySchema& schema, const work_t& value);

    [[nodiscard]] const std::set<uint32_t>& classes() const noexcept { return classes_; }
    [[nodiscard]] const std::vector<const PropertySchema*>& schemas() const noexcept {
        return schemas_;
    }
    /// Whether `sibling` has the same values; a null of it equals nothing. Stops at the first
    /// difference. Throws mdb::error_generic for a value that can't be read.
    [[nodiscard]] bool equals(const PropertyChain& sibling) const;
    /// Equal for equal keys.
    [[nodiscard]] uint64_t hash() const;

  private:
    const std::set<uint32_t>& classes_;
    std::vector<const PropertySchema*> schemas_;
    std::vector<const work_t*> values_;
};

/// What can be told of the key of a stored object without comparing it.
struct StoredKeyHash {
    enum state_t : uint8_t {
        known,    ///< `hash` is that of its key for as long as its own record stays as it is
        no_key,   ///< a part is null: it equals nothing for that long
        unknown,  ///< the key hangs on another object, or can't be read: it must be compared
    };
    state_t state = unknown;
    uint64_t hash = 0;
};

/// Hashes the values that `object` has for `schemas`, as SiblingKey::hash() does.
[[nodiscard]] StoredKeyHash hash_stored_key(std::span<const PropertySchema* const> schemas,
                                            const PropertyChain& object);

}  // namespace dbcache
