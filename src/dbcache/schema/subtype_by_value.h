// SubtypeByValue: base of classes whose subtype follows from the value of one property.
#pragma once

#include <memory>

#include "dbcache/class_table.h"
#include "dbcache/special_kinds.h"
#include "tql/names.h"

namespace dbcache {

/// The stored form of the enumerations of class tables.
using StoredEnum = mdb::PropertyEnum<enum_value_t>;

/// `Stored` is the stored form of the property that determines the subtype: StoredEnum,
/// mdb::PropertyBool or mdb::PropertyUint32. An object whose property is missing has subtype 0; new
/// values without it are refused with code 10, missing_text() and its name.
template <class Stored, class Base = NodetypeSchema>
class SubtypeByValue : public TableSchema<Base> {
  public:
    SubtypeByValue(const ClassTable& table, uint32_t number)
        : TableSchema<Base>(table), number_(number) {}

    [[nodiscard]] uint32_t subtypeFromChain(const PropertyChain& chain) const override {
        Stored stored(number_);
        if (chain.read(0, stored) != found_t::value) return 0;
        return subtype_of(static_cast<uint32_t>(stored.value));
    }
    [[nodiscard]] uint32_t subtypeFromWork(const WorkArray& work) const override {
        const work_t& given = work[*this->subtypeProperty(number_)];
        if (given.is_null()) fail_illegal_value(missing_text() + tql::property_name(number_));
        const auto value = static_cast<uint32_t>(static_cast<const Stored&>(*given.prop).value);
        check_given(value);
        return subtype_of(value);
    }

  protected:
    /// The subtype that a value makes; by itself the value is the subtype.
    [[nodiscard]] virtual uint32_t subtype_of(uint32_t value) const { return value; }
    /// What stands before the property's name when new values are without it.
    [[nodiscard]] virtual std::string missing_text() const { return "Null given for property "; }
    /// Throws errors::tql for a value that no client may give.
    virtual void check_given(uint32_t /*value*/) const {}

  private:
    const uint32_t number_;
};

}  // namespace dbcache
