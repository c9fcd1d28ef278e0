#include "dbcache/property_kinds.h"

#include <algorithm>
#include <cctype>
#include <strings.h>

#include "dbcache/pattern_language.h"
#include "platform/regex.h"
#include "tql/names.h"
#include "util/marl.h"

namespace dbcache {

template class PropertySchemaTemplate<mdb::PropertyUint32, tql::property_uint_t>;
template class PropertySchemaTemplate<mdb::PropertyInt32, tql::property_int_t>;
template class PropertySchemaTemplate<mdb::PropertyDouble, tql::property_real_t>;
template class PropertySchemaTemplate<mdb::PropertyDate, tql::property_date_t>;
template class BoundablePropertySchemaTemplate<mdb::PropertyUint32, tql::property_uint_t>;
template class BoundablePropertySchemaTemplate<mdb::PropertyInt32, tql::property_int_t>;
template class BoundablePropertySchemaTemplate<mdb::PropertyDouble, tql::property_real_t>;
template class BoundablePropertySchemaTemplate<mdb::PropertyDate, tql::property_date_t>;
template class PropertySchemaTemplate<mdb::PropertyBool, tql::property_boolean_t>;
template class PropertySchemaTemplate<mdb::PropertyUint32, tql::property_gid_t>;
template class PropertySchemaTemplate<mdb::PropertyVersion, tql::property_version_t>;
template class PropertySchemaTemplate<mdb::PropertyBigNum, tql::property_bignum_t>;
template class PropertySchemaTemplate<mdb::PropertyBlob, tql::property_blob_t>;
template class PropertySchemaTemplate<mdb::PropertyUint32, tql::property_string_t, IPv4Conversion>;
template class PropertySchemaTemplate<mdb::PropertySnmpOid, tql::property_oid_t>;
template class PropertySchemaTemplate<mdb::PropertyStringList, tql::property_string_list_t,
                                      StringListConversion>;
template class PropertySchemaTemplate<mdb::PropertyString, tql::property_string_t>;
template class PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t,
                                      NodeIdConversion>;
template class PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t,
                                      NodeIdConversionNoOrigin>;
template class PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t,
                                      UserIdConversion>;
template class PropertySchemaTemplate<mdb::PropertyNodeIdList, tql::property_object_set_t,
                                      NodeIdSetConversion>;

namespace {

bool is_identifier_byte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ' ' ||
           c == '-' || c == '_';
}

}  // namespace

found_t PropertyUI32WithActiveSchema::read(const PropertyChain& chain, unsigned level,
                                           mdb::Property& into) const {
    mdb::PropertyBool active(companion_);
    const found_t found = chain.read(level, active);
    if (found == found_t::value && active.value) return chain.read(level, into);
    into.inherited = found == found_t::absent ? 0 : active.inherited;
    return found_t::explicit_null;
}

void PropertyBoundedStringSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                           work_t& work) const {
    PropertyStringSchema::validate(object, chain, work);
    if (work.is_null()) return;
    const size_t length = payload(work).size();
    const bool too_long = lengths_.maximum && length > *lengths_.maximum;
    if (too_long || length < lengths_.minimum)
        fail_illegal_value(
            fmt::format("Value of property {} too {}", name(), too_long ? "long" : "short"));
}

std::string PropertyBoundedStringSchema::describe() const {
    std::string text = PropertyStringSchema::describe();
    if (lengths_.minimum == 0 && !lengths_.maximum) return text;
    if (!text.empty()) text += ' ';
    text += fmt::format("length {}..", lengths_.minimum);
    if (lengths_.maximum) text += fmt::format("{}", *lengths_.maximum);
    return text;
}

void PropertyMarlSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                  work_t& work) const {
    PropertyBoundedStringSchema::validate(object, chain, work);
    if (work.is_null()) return;
    try {
        marl::MarlConversion().parse(payload(work));
    } catch (const error::EParseError& fault) {
        fail_illegal_value(fmt::format("[{}]: {}", property, fault.text()));
    }
}

int PropertyICaseStringSchema::compare_values(const std::string& a, const std::string& b) const {
    return compare_payloads(::strcasecmp(a.c_str(), b.c_str()), 0);
}

/// Folds as strcasecmp() does, and ends where it ends.
uint64_t PropertyICaseStringSchema::hash_value(const std::string& value) const {
    std::string folded(value.c_str());
    for (char& c : folded) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return hash_payload(folded);
}

void PropertyIdentifierSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                        work_t& work) const {
    PropertyICaseStringSchema::validate(object, chain, work);
    if (work.is_null()) return;
    const std::string& value = payload(work);
    if (value.empty()) detail::fail_property(property, " must not be empty");
    if (!std::all_of(value.begin(), value.end(), is_identifier_byte))
        detail::fail_property(property, " may only contain letters (a-z), digits, space, _ and -");
}

void PropertyDomainIdentifierSchema::validate(const SchemaObject& object,
                                              const PropertyChain& chain, work_t& work) const {
    PropertyICaseStringSchema::validate(object, chain, work);
    if (work.is_null()) return;
    const std::string& value = payload(work);
    if (value.empty()) detail::fail_property(property, " must not be empty");
    if (value.find('.') != std::string::npos)
        detail::fail_property(property, " may not contain the character . (period)");
}

void PropertyRegexSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                   work_t& work) const {
    PropertyStringSchema::validate(object, chain, work);
    if (work.is_null() || payload(work).empty()) return;
    try {
        const platform::Regex compiled(payload(work));
    } catch (const platform::ERegex& fault) {
        detail::fail_property(property, ": " + fault.text());
    }
}

void PropertyPatternSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                     work_t& work) const {
    PropertyStringSchema::validate(object, chain, work);
    if (work.is_null()) return;
    const std::string fault = check_pattern(payload(work));
    if (!fault.empty()) detail::fail_property(property, fault);
}

void PropertyPasswordSchema::assign(const tql::property_t& value, const SchemaObject& object,
                                    const PropertyChain& chain, work_t& work) const {
    const bool inherit = (value.flags & kStateMask) == kStateInherited;
    if (value.is_null && !inherit) return;
    PropertyStringSchema::assign(value, object, chain, work);
}

}  // namespace dbcache
