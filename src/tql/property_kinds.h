// The nineteen kinds of values.
//
// Each kind is property_t with a payload named `value`. Ordering, print form and names of a kind
// stand in property_kinds.cpp; what a stored property of that kind looks like is not known here.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tql/id.h"
#include "tql/origin.h"
#include "tql/property.h"
#include "tql/version.h"
#include "util/big_num.h"

namespace tql {

/// What all kinds share; Self is the kind, Value its payload.
template <class Self, class Value, property_type_t Type>
class basic_property : public property_t {
  public:
    using value_type = Value;
    static constexpr property_type_t kType = Type;

    Value value{};

    basic_property() = default;
    basic_property(uint32_t property_number, Value payload, uint32_t flag_bits = 0)
        : property_t(property_number, false, flag_bits), value(std::move(payload)) {}

    /// A null value of this kind.
    [[nodiscard]] static Self null(uint32_t property_number, uint32_t flag_bits = 0) {
        Self made;
        made.property = property_number;
        made.is_null = true;
        made.flags = flag_bits;
        return made;
    }

    [[nodiscard]] property_type_t type() const noexcept final { return Type; }
    [[nodiscard]] std::unique_ptr<property_t> clone() const final {
        return std::make_unique<Self>(static_cast<const Self&>(*this));
    }
    property_t* move_to(void* memory) noexcept final {
        return ::new (memory) Self(std::move(static_cast<Self&>(*this)));
    }
    [[nodiscard]] std::string print() const override;
    [[nodiscard]] std::string type_name() const override;
    [[nodiscard]] bool compare(relop_t op, const property_t& other) const override;
    [[nodiscard]] bool identical(const property_t& other) const noexcept override;
};

class property_string_t final
    : public basic_property<property_string_t, std::string, property_type_t::string> {
  public:
    using basic_property::basic_property;
    [[nodiscard]] bool compare(relop_t op, const property_t& other) const override;
};

class property_string_list_t final
    : public basic_property<property_string_list_t, std::vector<std::string>,
                            property_type_t::string_list> {
  public:
    using basic_property::basic_property;
};

/// Where an entry of an object set comes from; both ids are empty when nobody said.
struct entry_origin_t {
    id_t domain_id;
    id_t user_id;

    friend bool operator==(const entry_origin_t&, const entry_origin_t&) = default;
};

class property_object_set_t final
    : public basic_property<property_object_set_t, std::set<id_t>, property_type_t::object_set> {
  public:
    using basic_property::basic_property;
    /// Origins of entries of `value` that have one. They travel with the entries and are never
    /// compared.
    std::map<id_t, entry_origin_t> origins;

    [[nodiscard]] bool compare(relop_t op, const property_t& other) const override;
    [[nodiscard]] bool identical(const property_t& other) const noexcept override;
};

class property_object_t final
    : public basic_property<property_object_t, id_t, property_type_t::object> {
  public:
    using basic_property::basic_property;
    /// Travels with the reference and is never compared.
    origin_t origin;

    [[nodiscard]] bool compare(relop_t op, const property_t& other) const override;
    [[nodiscard]] bool identical(const property_t& other) const noexcept override;
};

class property_version_t final
    : public basic_property<property_version_t, version_t, property_type_t::version> {
  public:
    using basic_property::basic_property;
};

class property_action_t final
    : public basic_property<property_action_t, int32_t, property_type_t::action> {
  public:
    using basic_property::basic_property;
};

class property_real_t final
    : public basic_property<property_real_t, double, property_type_t::real> {
  public:
    using basic_property::basic_property;
};

class property_bignum_t final
    : public basic_property<property_bignum_t, BigNum, property_type_t::bignum> {
  public:
    using basic_property::basic_property;
};

class property_gid_t final : public basic_property<property_gid_t, uint32_t, property_type_t::gid> {
  public:
    using basic_property::basic_property;
};

class property_gid_list_t final
    : public basic_property<property_gid_list_t, std::vector<uint32_t>, property_type_t::gid_list> {
  public:
    using basic_property::basic_property;
};

/// Seconds since 1970.
class property_date_t final
    : public basic_property<property_date_t, int64_t, property_type_t::date> {
  public:
    using basic_property::basic_property;
};

class property_index_t final
    : public basic_property<property_index_t, uint32_t, property_type_t::index> {
  public:
    using basic_property::basic_property;
};

class property_int_t final : public basic_property<property_int_t, int32_t, property_type_t::int_> {
  public:
    using basic_property::basic_property;
};

class property_uint_t final
    : public basic_property<property_uint_t, uint32_t, property_type_t::uint> {
  public:
    using basic_property::basic_property;
};

class property_boolean_t final
    : public basic_property<property_boolean_t, bool, property_type_t::boolean> {
  public:
    using basic_property::basic_property;
};

class property_blob_t final
    : public basic_property<property_blob_t, std::vector<uint8_t>, property_type_t::blob> {
  public:
    using basic_property::basic_property;
};

/// A large object, whole.
class property_lob_t final
    : public basic_property<property_lob_t, std::vector<uint8_t>, property_type_t::lob> {
  public:
    using basic_property::basic_property;
};

class property_oid_t final
    : public basic_property<property_oid_t, std::vector<uint32_t>, property_type_t::oid> {
  public:
    using basic_property::basic_property;
};

/// A value of an enumeration. Values of different enumerations don't compare, not even two nulls.
class property_enum_t final
    : public basic_property<property_enum_t, uint32_t, property_type_t::enum_> {
  public:
    using basic_property::basic_property;
    property_enum_t(uint32_t property_number, uint32_t enumeration_id, uint32_t enumeration_value,
                    uint32_t flag_bits)
        : basic_property(property_number, enumeration_value, flag_bits),
          enumeration(enumeration_id) {}
    /// A null value of one enumeration.
    [[nodiscard]] static property_enum_t null(uint32_t property_number, uint32_t enumeration_id,
                                              uint32_t flag_bits) {
        property_enum_t made = basic_property::null(property_number, flag_bits);
        made.enumeration = enumeration_id;
        return made;
    }

    /// Id of the enumeration, 0x10000 and a small number; the marshalled value follows it.
    uint32_t enumeration = 0;

    [[nodiscard]] std::string print() const override;
    [[nodiscard]] std::string type_name() const override;
    [[nodiscard]] bool compare(relop_t op, const property_t& other) const override;
    [[nodiscard]] bool identical(const property_t& other) const noexcept override;
};

/// A fresh value of the kind with that type code, with default payload; none for an unknown code.
[[nodiscard]] value_t make_value(property_type_t type);

/// Calls `visit` with a `const Kind&` (or `Kind&`) of the value's own kind; gives what it gives.
/// Every property_t is one of the kinds above.
template <class Property, class Visit>
decltype(auto) visit_kind(Property& value, Visit&& visit);

}  // namespace tql

#include "tql/detail/visit_kind.h"
