// Conversions between what a query carries and what an object stores, one structure each, for
// PropertySchemaTemplate.
//
// Each has to_stored(wire, stored, number), which throws errors::tql with code 10 for a payload
// that can't be stored, and to_wire(stored, wire), which may take the payload out of `stored` and
// throws error::EParseError for a stored value that no longer reads. Both work on a non-null value;
// nulls never come here.
#pragma once

#include <cstdint>
#include <string>

#include "mdb/property_types.h"
#include "tql/property_kinds.h"

namespace dbcache {

/// Plain copy of the payload.
struct Assign {
    template <class Wire, class Stored>
    static void to_stored(const Wire& wire, Stored& stored, uint32_t number) {
        copy(wire.value, stored.value, number);
    }
    template <class Stored, class Wire>
    static void to_wire(Stored& stored, Wire& wire) {
        back(stored.value, wire.value);
    }

  private:
    template <class From, class To>
    static void copy(const From& from, To& to, uint32_t) {
        to = static_cast<To>(from);
    }
    static void copy(const tql::version_t& from, mdb::StoredVersion& to, uint32_t) {
        to = {from.ring_sequence, from.counter};
    }
    /// A stored text ends at its first NUL, so one that holds a NUL is refused.
    static void copy(const std::string& from, std::string& to, uint32_t number);

    template <class From, class To>
    static void back(From& from, To& to) {
        to = static_cast<To>(std::move(from));
    }
    static void back(mdb::StoredVersion& from, tql::version_t& to) {
        to = {from.sequence, from.counter};
    }
};

/// A reference; whether it may point there is checked by the schema. An id with a number inside an
/// object is refused.
struct NodeIdConversion {
    static void to_stored(const tql::property_object_t& wire, mdb::PropertyNodeId& stored,
                          uint32_t number);
    static void to_wire(mdb::PropertyNodeId& stored, tql::property_object_t& wire);
};

/// A reference that is never checked: ids of another server, for instance.
struct NodeIdConversionNoOrigin : NodeIdConversion {};

struct NodeIdSetConversion {
    static void to_stored(const tql::property_object_set_t& wire, mdb::PropertyNodeIdList& stored,
                          uint32_t number);
    static void to_wire(mdb::PropertyNodeIdList& stored, tql::property_object_set_t& wire);
};

/// A user; the empty id, stored as the null NodeId, is the built-in user and no missing value.
struct UserIdConversion : NodeIdConversion {};

struct StringListConversion {
    static void to_stored(const tql::property_string_list_t& wire, mdb::PropertyStringList& stored,
                          uint32_t number);
    static void to_wire(mdb::PropertyStringList& stored, tql::property_string_list_t& wire);
};

/// A dotted address in four numbers of 0 to 255, stored as one number with the first on top.
struct IPv4Conversion {
    static void to_stored(const tql::property_string_t& wire, mdb::PropertyUint32& stored,
                          uint32_t number);
    static void to_wire(mdb::PropertyUint32& stored, tql::property_string_t& wire);
};

/// Numbers joined by points, with or without a leading point, stored one by one. A query sees the
/// numbers.
struct string_to_oid_conversion_t {
    /// Throws error::EParseError.
    static std::vector<uint32_t> parse(const std::string& text);
    static void convert(const mdb::PropertyString& old_form, mdb::PropertySnmpOid& new_form) {
        new_form.value = parse(old_form.value);
    }
};

/// The text of a unit expression, stored in its binary form. Every text is one.
struct UnitStringToUnitBlobAssign {
    static void to_stored(const tql::property_string_t& wire, mdb::PropertyBlob& stored, uint32_t);
    static void convert(const mdb::PropertyString& old_form, mdb::PropertyBlob& new_form);
};

/// For PropertyConversionSchemaTemplate: the old payload is the new one, widened.
struct OldToNewAssign {
    template <class Old, class New>
    static void convert(const Old& old_form, New& new_form) {
        new_form.value = static_cast<typename New::value_t>(old_form.value);
    }
};

}  // namespace dbcache
