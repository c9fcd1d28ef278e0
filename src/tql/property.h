// The base of all typed values, the relative operators that compare them, and the handle that owns
// one.
//
// A value is what a query compares, an update carries and a result returns. It never touches
// storage; the schema layer turns it into stored properties and back. The kinds stand in
// tql/property_kinds.h.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace tql {

/// Type codes of the kinds, as they travel.
enum class property_type_t : uint32_t {
    none = 0,  ///< on the wire: no value
    string = 7,
    string_list = 8,
    object_set = 9,
    object = 10,
    version = 11,
    action = 12,
    real = 13,
    bignum = 14,
    gid = 15,
    gid_list = 16,
    date = 17,
    index = 18,
    int_ = 19,
    uint = 20,
    boolean = 21,
    blob = 22,
    lob = 23,
    oid = 24,
    enum_ = 25,
};

enum class relop_t : uint32_t {
    eq = 1,
    gt = 2,
    lt = 3,
    ge = 4,
    le = 5,
    ne = 6,
    ieq = 7,          ///< strings: equal but for case; other kinds: equal
    ine = 8,          ///< strings: unequal even ignoring case; other kinds: unequal
    subset = 9,       ///< object sets only
    superset = 10,    ///< object sets only
    intersects = 11,  ///< object sets only
    in = 12,          ///< an object on the left, an object set on the right
    contains = 13,    ///< legal in a pattern, refused when run
    isubstr = 14,     ///< strings only: the right side occurs in the left, ignoring case
};

/// The operator as a pattern shows it, with a blank on either side; " ? " for an unknown number.
[[nodiscard]] std::string_view relop_text(relop_t op) noexcept;

/// Bits of `flags` that belong to the encoding of a value; the others are the schema's.
inline constexpr uint32_t kFlagConst = 0x20000;
inline constexpr uint32_t kFlagNullable = 0x40000;
inline constexpr uint32_t kFlagComputed = 0x80000;
inline constexpr uint32_t kFlagNoInheritance = 0x200000;
inline constexpr uint32_t kFlagPrimaryKey = 0x400000;
inline constexpr uint32_t kFlagInherited = 0x80000000;

/// A typed value of one property. A null value has no payload that may be read, but keeps its kind.
class property_t {
  public:
    uint32_t property = 0;  ///< property number
    bool is_null = false;
    uint32_t flags = 0;

    [[nodiscard]] virtual property_type_t type() const noexcept = 0;
    virtual ~property_t() = default;
    /// A deep copy.
    [[nodiscard]] virtual std::unique_ptr<property_t> clone() const = 0;
    /// The payload as text for logs and error texts; meaningless for a null value.
    [[nodiscard]] virtual std::string print() const = 0;
    /// The name of the kind.
    [[nodiscard]] virtual std::string type_name() const = 0;
    /// Applies `op` with this value on the left. Throws errors::tql_incomparable when the kinds
    /// differ or the operator isn't one for this kind. Null equals null and sorts before every
    /// value.
    [[nodiscard]] virtual bool compare(relop_t op, const property_t& other) const = 0;
    /// True for a value of the same kind, property number, flags and nullness with the same
    /// payload, bit for bit; the payloads of two nulls don't count. Never throws on account of
    /// kinds.
    [[nodiscard]] virtual bool identical(const property_t& other) const noexcept = 0;

  protected:
    property_t() = default;
    property_t(uint32_t property_number, bool null, uint32_t flag_bits)
        : property(property_number), is_null(null), flags(flag_bits) {}
    property_t(const property_t&) = default;
    property_t(property_t&&) = default;
    property_t& operator=(const property_t&) = default;
    property_t& operator=(property_t&&) = default;
};

/// Owns one value, or none. Copying is deep; a moved-from handle owns none.
class value_t {
  public:
    value_t() = default;
    value_t(std::unique_ptr<property_t> value) : value_(std::move(value)) {}
    template <class Kind>
    requires std::is_base_of_v<property_t, Kind> value_t(std::unique_ptr<Kind> value)
        : value_(std::move(value)) {}
    value_t(const value_t& other) : value_(other.value_ ? other.value_->clone() : nullptr) {}
    value_t(value_t&&) noexcept = default;
    value_t& operator=(const value_t& other) { return *this = value_t(other); }
    value_t& operator=(value_t&&) noexcept = default;
    ~value_t() = default;

    [[nodiscard]] explicit operator bool() const noexcept { return value_ != nullptr; }
    [[nodiscard]] property_t* get() const noexcept { return value_.get(); }
    property_t* operator->() const noexcept { return value_.get(); }
    property_t& operator*() const noexcept { return *value_; }

    /// Both own none, or identical values.
    friend bool operator==(const value_t& a, const value_t& b) noexcept {
        return a.value_ && b.value_ ? a.value_->identical(*b.value_) : !a.value_ && !b.value_;
    }

  private:
    std::unique_ptr<property_t> value_;
};

/// The values of a where clause, an update or a result, by property number. No entry owns none.
using property_map_t = std::map<uint32_t, value_t>;

}  // namespace tql
