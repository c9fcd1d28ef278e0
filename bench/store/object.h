// The objects of workload W1: twelve properties each, numbers, short texts and one text of 60
// bytes, with a key for each of the six indexes; twenty children to a parent. Every store keeps the
// same record bytes, so that packing and unpacking cost all of them the same.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "mdb/property_types.h"
#include "mdb/serializer.h"
#include "util/node_id.h"

namespace bench {

inline constexpr uint32_t kChildrenPerParent = 20;

/// Numbers of the properties that no index takes.
namespace prop {
inline constexpr uint32_t name = 1001, label = 1002, comment = 1003, limit = 1004, counter = 1005,
                          version = 1006;
}

struct Object {
    Object() = default;
    /// The object with this ordinal, always the same.
    explicit Object(uint32_t ordinal);

    /// All properties in the order in which they are stored.
    [[nodiscard]] std::array<const mdb::Property*, 12> properties() const;
    /// Takes every property from the records.
    void decode(const mdb::ObjectRecords& records);
    /// Whether decode() has brought what Object(ordinal) has, but for the counter.
    [[nodiscard]] bool is(uint32_t ordinal) const;

    mdb::PropertyNodeId id{0}, parent{2}, inherits{59}, master{3800}, notify{3901};
    mdb::PropertyBool active{502};
    mdb::PropertyString name{prop::name}, label{prop::label}, comment{prop::comment};
    mdb::PropertyUint32 limit{prop::limit};
    mdb::PropertyUint64 counter{prop::counter};
    mdb::PropertyVersion version{prop::version};
};

/// What a list of children shows of each.
struct Child {
    NodeId id;
    std::string name;
};

[[nodiscard]] NodeId id_of(uint32_t ordinal);
[[nodiscard]] NodeId parent_of(uint32_t ordinal);
/// Takes id and name from the records.
void decode_child(const mdb::ObjectRecords& records, Child& child);

/// The form in which the peers keep an object: a byte for the kind, then a slot as in our own
/// blocks, 341 bytes in all.
class PackedObject {
  public:
    static constexpr size_t kHead = 1;
    /// The packed object; lives until the next call.
    [[nodiscard]] std::span<const std::byte> pack(const Object& object);
    /// A copy of packed bytes with another counter; lives until the next call.
    [[nodiscard]] std::span<const std::byte> with_counter(std::span<const std::byte> packed,
                                                          uint64_t counter);
    /// The records in packed bytes.
    [[nodiscard]] static mdb::ObjectRecords records(std::span<const std::byte> packed);

  private:
    mdb::Serializer serializer_{4096};
    std::vector<std::byte> bytes_;
};

/// Ordinals in a fixed random order with repetition.
class Shuffle {
  public:
    Shuffle(uint64_t seed, uint32_t count) : state_(seed), count_(count) {}
    [[nodiscard]] uint32_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<uint32_t>((state_ >> 16) % count_);
    }

  private:
    uint64_t state_;
    uint32_t count_;
};

}  // namespace bench
