// The base of all typed values, the relative operators that compare them, and the handle that owns
// one.
//
// A value is what a query compares, an update carries and a result returns. It never touches
// storage; the schema layer turns it into stored properties and back. The kinds stand in
// tql/property_kinds.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
    /// For value_t: makes a value of the same kind in `memory` and moves the payload there.
    virtual property_t* move_to(void* memory) noexcept = 0;

  protected:
    property_t() = default;
    property_t(uint32_t property_number, bool null, uint32_t flag_bits)
        : property(property_number), is_null(null), flags(flag_bits) {}
    property_t(const property_t&) = default;
    property_t(property_t&&) = default;
    property_t& operator=(const property_t&) = default;
    property_t& operator=(property_t&&) = default;
};

/// Owns one value, or none. Copying is deep; a moved-from handle owns none. A value of a usual kind
/// that emplace() made lies inside the handle, so that results need no memory for each of their
/// values; it moves with its handle.
class value_t {
  public:
    value_t() noexcept {}
    value_t(std::unique_ptr<property_t> value) noexcept : value_(value.release()) {}
    template <class Kind>
    requires std::is_base_of_v<property_t, Kind> value_t(std::unique_ptr<Kind> value)
    noexcept : value_(value.release()) {}
    value_t(const value_t& other) : value_(other ? other.value_->clone().release() : nullptr) {}
    value_t(value_t&& other) noexcept { take(other); }
    value_t& operator=(const value_t& other) { return *this = value_t(other); }
    value_t& operator=(value_t&& other) noexcept {
        if (this == &other) return *this;
        reset();
        take(other);
        return *this;
    }
    ~value_t() { reset(); }

    /// Makes a value in the place of the present one.
    template <class Kind, class... Args>
    Kind& emplace(Args&&... args) {
        reset();
        Kind* made = nullptr;
        if constexpr (sizeof(Kind) <= kInside && alignof(Kind) <= alignof(property_t*))
            made = ::new (static_cast<void*>(inside_)) Kind(std::forward<Args>(args)...);
        else
            made = new Kind(std::forward<Args>(args)...);
        value_ = made;
        return *made;
    }

    [[nodiscard]] explicit operator bool() const noexcept { return value_ != nullptr; }
    [[nodiscard]] property_t* get() const noexcept { return value_; }
    property_t* operator->() const noexcept { return value_; }
    property_t& operator*() const noexcept { return *value_; }

    /// Both own none, or identical values.
    friend bool operator==(const value_t& a, const value_t& b) noexcept {
        return a.value_ && b.value_ ? a.value_->identical(*b.value_) : !a.value_ && !b.value_;
    }

  private:
    /// Room for a text, the largest of the usual kinds.
    static constexpr size_t kInside = 24 + sizeof(std::string);

    [[nodiscard]] bool is_inside() const noexcept {
        return static_cast<const void*>(value_) == static_cast<const void*>(inside_);
    }
    void reset() noexcept {
        if (value_ == nullptr) return;
        if (is_inside())
            value_->~property_t();
        else
            delete value_;
        value_ = nullptr;
    }
    /// This one owns none.
    void take(value_t& other) noexcept {
        if (other.is_inside()) {
            value_ = other.value_->move_to(inside_);
            other.reset();
        } else {
            value_ = std::exchange(other.value_, nullptr);
        }
    }

    property_t* value_ = nullptr;
    alignas(property_t*) std::byte inside_[kInside];
};

/// The values of a where clause, an update or a result, by property number; the interface is that
/// of std::map as far as it goes. No entry owns none. Entries lie in one piece of memory, in
/// ascending order: adding behind the last is cheap, and each addition may move all of them.
class property_map_t {
  public:
    using key_type = uint32_t;
    using mapped_type = value_t;
    using value_type = std::pair<uint32_t, value_t>;
    using iterator = std::vector<value_type>::iterator;
    using const_iterator = std::vector<value_type>::const_iterator;

    [[nodiscard]] iterator begin() noexcept { return entries_.begin(); }
    [[nodiscard]] iterator end() noexcept { return entries_.end(); }
    [[nodiscard]] const_iterator begin() const noexcept { return entries_.begin(); }
    [[nodiscard]] const_iterator end() const noexcept { return entries_.end(); }
    [[nodiscard]] size_t size() const noexcept { return entries_.size(); }
    [[nodiscard]] bool empty() const noexcept { return entries_.empty(); }
    void clear() noexcept { entries_.clear(); }
    void reserve(size_t size) { entries_.reserve(size); }
    void swap(property_map_t& other) noexcept { entries_.swap(other.entries_); }

    [[nodiscard]] iterator find(uint32_t number);
    [[nodiscard]] const_iterator find(uint32_t number) const;
    [[nodiscard]] bool contains(uint32_t number) const { return find(number) != end(); }
    [[nodiscard]] size_t count(uint32_t number) const { return contains(number) ? 1 : 0; }
    /// Throws std::out_of_range where there is no entry.
    [[nodiscard]] value_t& at(uint32_t number);
    [[nodiscard]] const value_t& at(uint32_t number) const;
    /// A new entry owns none: the caller gives it a value.
    value_t& operator[](uint32_t number);
    void insert_or_assign(uint32_t number, value_t value) { (*this)[number] = std::move(value); }
    void insert_or_assign(const_iterator /*hint*/, uint32_t number, value_t value) {
        (*this)[number] = std::move(value);
    }
    /// False, with nothing changed, where there is an entry.
    bool emplace(uint32_t number, value_t value);
    size_t erase(uint32_t number);

    friend bool operator==(const property_map_t& a, const property_map_t& b) {
        return a.entries_ == b.entries_;
    }

  private:
    std::vector<value_type> entries_;
};

}  // namespace tql
