// The switch behind tql::visit_kind, kept apart from the list of the kinds. Included by it alone.
#pragma once

#include <type_traits>

#include "error/exception.h"
#include "tql/property_kinds.h"

namespace tql {

template <class Property, class Visit>
decltype(auto) visit_kind(Property& value, Visit&& visit) {
    const auto as = [&]<class Kind>(std::type_identity<Kind>) -> decltype(auto) {
        if constexpr (std::is_const_v<Property>)
            return visit(static_cast<const Kind&>(value));
        else
            return visit(static_cast<Kind&>(value));
    };
    switch (value.type()) {
        case property_type_t::string:
            return as(std::type_identity<property_string_t>());
        case property_type_t::string_list:
            return as(std::type_identity<property_string_list_t>());
        case property_type_t::object_set:
            return as(std::type_identity<property_object_set_t>());
        case property_type_t::object:
            return as(std::type_identity<property_object_t>());
        case property_type_t::version:
            return as(std::type_identity<property_version_t>());
        case property_type_t::action:
            return as(std::type_identity<property_action_t>());
        case property_type_t::real:
            return as(std::type_identity<property_real_t>());
        case property_type_t::bignum:
            return as(std::type_identity<property_bignum_t>());
        case property_type_t::gid:
            return as(std::type_identity<property_gid_t>());
        case property_type_t::gid_list:
            return as(std::type_identity<property_gid_list_t>());
        case property_type_t::date:
            return as(std::type_identity<property_date_t>());
        case property_type_t::index:
            return as(std::type_identity<property_index_t>());
        case property_type_t::int_:
            return as(std::type_identity<property_int_t>());
        case property_type_t::uint:
            return as(std::type_identity<property_uint_t>());
        case property_type_t::boolean:
            return as(std::type_identity<property_boolean_t>());
        case property_type_t::blob:
            return as(std::type_identity<property_blob_t>());
        case property_type_t::lob:
            return as(std::type_identity<property_lob_t>());
        case property_type_t::oid:
            return as(std::type_identity<property_oid_t>());
        case property_type_t::enum_:
            return as(std::type_identity<property_enum_t>());
        case property_type_t::none:
            break;
    }
    error::fail_assertion("a value without a kind");
}

}  // namespace tql
