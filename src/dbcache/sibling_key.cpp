#include "dbcache/sibling_key.h"

#include "dbcache/property_schema.h"
#include "mdb/errors.h"

namespace dbcache {

namespace {

/// Of a key without values.
constexpr uint64_t kEmptyHash = 0x2545F4914F6CDD1D;

/// Order counts: a key of two names isn't that of the names exchanged.
uint64_t combine(uint64_t seed, uint64_t part) {
    uint64_t mixed = (seed ^ part) * 0x9E3779B97F4A7C15U;
    mixed ^= mixed >> 29;
    return mixed * 0xBF58476D1CE4E5B9U;
}

/// Passes all reads on and notes whether one went beyond the object's own record.
class OwnRecordWatch final : public PropertyChain {
  public:
    explicit OwnRecordWatch(const PropertyChain& chain) : chain_(chain) {}

    [[nodiscard]] bool read_above() const noexcept { return read_above_; }

    found_t read(unsigned level, mdb::Property& property) const override {
        read_above_ = read_above_ || level > 0;
        return chain_.read(level, property);
    }
    [[nodiscard]] NodeId inherits() const override { return chain_.inherits(); }
    bool visit_object(const NodeId& id, const Visit& visit) const override {
        read_above_ = true;
        return chain_.visit_object(id, visit);
    }
    void visit_children(const NodeId& parent, uint32_t child_class,
                        const Visit& visit) const override {
        read_above_ = true;
        chain_.visit_children(parent, child_class, visit);
    }
    [[nodiscard]] std::vector<uint8_t> read_lob(uint32_t block) const override {
        return chain_.read_lob(block);
    }

  private:
    const PropertyChain& chain_;
    mutable bool read_above_ = false;
};

}  // namespace

void SiblingKey::add(const PropertySchema& schema, const work_t& value) {
    schemas_.push_back(&schema);
    values_.push_back(&value);
}

bool SiblingKey::equals(const PropertyChain& sibling) const {
    for (size_t i = 0; i < schemas_.size(); ++i) {
        work_t other;
        schemas_[i]->load(sibling, other);
        if (other.is_null() || schemas_[i]->compare(*values_[i], other) != 0) return false;
    }
    return true;
}

uint64_t SiblingKey::hash() const {
    uint64_t hash = kEmptyHash;
    for (size_t i = 0; i < schemas_.size(); ++i)
        hash = combine(hash, schemas_[i]->hash(*values_[i]));
    return hash;
}

StoredKeyHash hash_stored_key(std::span<const PropertySchema* const> schemas,
                              const PropertyChain& object) {
    StoredKeyHash result{StoredKeyHash::known, kEmptyHash};
    const OwnRecordWatch own(object);
    try {
        for (const PropertySchema* schema : schemas) {
            work_t value;
            schema->load(own, value);
            if (own.read_above()) return {StoredKeyHash::unknown, 0};
            if (value.is_null()) return {StoredKeyHash::no_key, 0};
            result.hash = combine(result.hash, schema->hash(value));
        }
    } catch (const mdb::error_generic&) {
        return {StoredKeyHash::unknown, 0};  // who compares it meets the fault again
    }
    return result;
}

}  // namespace dbcache
