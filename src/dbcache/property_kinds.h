// The kinds of properties. Each is a small schema class over PropertySchemaTemplate with the checks
// of its own; which class has which properties is said in dbcache/schema. A kind's checks come
// after the common ones, so a null has passed or failed before them.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "dbcache/property_schema_template.h"
#include "tql/pattern.h"

namespace dbcache {

// ---- numbers, truth values, moments
// ------------------------------------------------------------------------------

using PropertyUI32Schema =
    BoundablePropertySchemaTemplate<mdb::PropertyUint32, tql::property_uint_t>;
using PropertyI32Schema = BoundablePropertySchemaTemplate<mdb::PropertyInt32, tql::property_int_t>;
using PropertyRealSchema =
    BoundablePropertySchemaTemplate<mdb::PropertyDouble, tql::property_real_t>;
/// Seconds since 1970, as far as they are stored: 0 to 2^32 - 1.
using PropertyDateSchema = BoundablePropertySchemaTemplate<mdb::PropertyDate, tql::property_date_t>;
using PropertyBoolSchema = PropertySchemaTemplate<mdb::PropertyBool, tql::property_boolean_t>;
using PropertyGidSchema = PropertySchemaTemplate<mdb::PropertyUint32, tql::property_gid_t>;
using PropertyVersionSchema = PropertySchemaTemplate<mdb::PropertyVersion, tql::property_version_t>;
using PropertyBigNumSchema = PropertySchemaTemplate<mdb::PropertyBigNum, tql::property_bignum_t>;
using PropertyBlobSchema = PropertySchemaTemplate<mdb::PropertyBlob, tql::property_blob_t>;
using PropertyIPv4Schema =
    PropertySchemaTemplate<mdb::PropertyUint32, tql::property_string_t, IPv4Conversion>;
using PropertySnmpOidSchema = PropertySchemaTemplate<mdb::PropertySnmpOid, tql::property_oid_t>;
using PropertyStringListSchema =
    PropertySchemaTemplate<mdb::PropertyStringList, tql::property_string_list_t,
                           StringListConversion>;

extern template class PropertySchemaTemplate<mdb::PropertyUint32, tql::property_uint_t>;
extern template class PropertySchemaTemplate<mdb::PropertyInt32, tql::property_int_t>;
extern template class PropertySchemaTemplate<mdb::PropertyDouble, tql::property_real_t>;
extern template class PropertySchemaTemplate<mdb::PropertyDate, tql::property_date_t>;
extern template class BoundablePropertySchemaTemplate<mdb::PropertyUint32, tql::property_uint_t>;
extern template class BoundablePropertySchemaTemplate<mdb::PropertyInt32, tql::property_int_t>;
extern template class BoundablePropertySchemaTemplate<mdb::PropertyDouble, tql::property_real_t>;
extern template class BoundablePropertySchemaTemplate<mdb::PropertyDate, tql::property_date_t>;
extern template class PropertySchemaTemplate<mdb::PropertyBool, tql::property_boolean_t>;
extern template class PropertySchemaTemplate<mdb::PropertyUint32, tql::property_gid_t>;
extern template class PropertySchemaTemplate<mdb::PropertyVersion, tql::property_version_t>;
extern template class PropertySchemaTemplate<mdb::PropertyBigNum, tql::property_bignum_t>;
extern template class PropertySchemaTemplate<mdb::PropertyBlob, tql::property_blob_t>;
extern template class PropertySchemaTemplate<mdb::PropertyUint32, tql::property_string_t,
                                             IPv4Conversion>;
extern template class PropertySchemaTemplate<mdb::PropertySnmpOid, tql::property_oid_t>;
extern template class PropertySchemaTemplate<mdb::PropertyStringList, tql::property_string_list_t,
                                             StringListConversion>;
extern template class PropertySchemaTemplate<mdb::PropertyString, tql::property_string_t>;
extern template class PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t,
                                             NodeIdConversion>;
extern template class PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t,
                                             NodeIdConversionNoOrigin>;
extern template class PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t,
                                             UserIdConversion>;
extern template class PropertySchemaTemplate<mdb::PropertyNodeIdList, tql::property_object_set_t,
                                             NodeIdSetConversion>;

/// A number that counts only while a boolean property of the same object is true; null otherwise.
class PropertyUI32WithActiveSchema : public PropertyUI32Schema {
  public:
    PropertyUI32WithActiveSchema(uint32_t number, uint32_t flag_bits, uint32_t companion,
                                 Defaults<uint32_t> defaults = {}, Bounds bounds = {})
        : PropertyUI32Schema(number, flag_bits, std::move(defaults), bounds),
          companion_(companion) {}

  protected:
    [[nodiscard]] found_t read(const PropertyChain& chain, unsigned level,
                               mdb::Property& into) const override;

  private:
    uint32_t companion_;
};

/// A real that older objects hold as an unsigned number.
using PropertyRealIntConvSchema =
    PropertyConversionSchemaTemplate<mdb::PropertyUint32, PropertyRealSchema, OldToNewAssign>;

/// An OID that older objects hold as text.
using PropertySnmpOidConvSchema =
    PropertyConversionSchemaTemplate<mdb::PropertyString, PropertySnmpOidSchema,
                                     string_to_oid_conversion_t>;

// ---- texts
// ---------------------------------------------------------------------------------------------------------

using PropertyStringSchema = PropertySchemaTemplate<mdb::PropertyString, tql::property_string_t>;

/// Lengths in bytes.
class PropertyBoundedStringSchema : public PropertyStringSchema {
  public:
    struct Lengths {
        size_t minimum = 0;
        std::optional<size_t> maximum;
    };
    PropertyBoundedStringSchema(uint32_t number, uint32_t flag_bits, Lengths lengths,
                                Defaults<std::string> defaults = {})
        : PropertyStringSchema(number, flag_bits, std::move(defaults)), lengths_(lengths) {}
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
    [[nodiscard]] std::string describe() const override;

  private:
    Lengths lengths_;
};

class PropertyNonEmptyStringSchema : public PropertyBoundedStringSchema {
  public:
    PropertyNonEmptyStringSchema(uint32_t number, uint32_t flag_bits,
                                 Defaults<std::string> defaults = {})
        : PropertyBoundedStringSchema(number, flag_bits, {.minimum = 1, .maximum = {}},
                                      std::move(defaults)) {}
};

/// Markup; the parser's text reaches the client behind the property's number in brackets.
class PropertyMarlSchema : public PropertyBoundedStringSchema {
  public:
    using PropertyBoundedStringSchema::PropertyBoundedStringSchema;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

/// Compared without regard to case.
class PropertyICaseStringSchema : public PropertyStringSchema {
  public:
    using PropertyStringSchema::PropertySchemaTemplate;

  protected:
    [[nodiscard]] int compare_values(const std::string& a, const std::string& b) const override;
    [[nodiscard]] uint64_t hash_value(const std::string& value) const override;
};

/// Letters, digits, blank, '-' and '_', at least one.
class PropertyIdentifierSchema : public PropertyICaseStringSchema {
  public:
    using PropertyICaseStringSchema::PropertyICaseStringSchema;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

/// Anything without a period, at least one byte.
class PropertyDomainIdentifierSchema : public PropertyICaseStringSchema {
  public:
    using PropertyICaseStringSchema::PropertyICaseStringSchema;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

/// Empty, or a POSIX extended regular expression.
class PropertyRegexSchema : public PropertyStringSchema {
  public:
    using PropertyStringSchema::PropertySchemaTemplate;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

/// Quoted texts joined by "and", "or", "not" and parentheses; see pattern_language.h.
class PropertyPatternSchema : public PropertyStringSchema {
  public:
    using PropertyStringSchema::PropertySchemaTemplate;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

/// An update that sends no password keeps the stored one.
class PropertyPasswordSchema : public PropertyStringSchema {
  public:
    using PropertyStringSchema::PropertySchemaTemplate;
    void assign(const tql::property_t& value, const SchemaObject& object,
                const PropertyChain& chain, work_t& work) const override;
};

/// One letter per state, read by the clients alone.
class PropertyStateColorsSchema : public PropertyStringSchema {
  public:
    using PropertyStringSchema::PropertySchemaTemplate;
};

// ---- references
// ----------------------------------------------------------------------------------------------------

/// Where a reference may point. With neither restriction nothing is checked; a reference to an
/// object that is gone passes always.
struct ReferenceRules {
    /// Empty: any class.
    std::set<uint32_t> allowed_classes;
    /// Only into the domains that lie above the object.
    bool own_domains_only = false;
    std::set<NodeId> exempt_ids;

    /// Throws errors::tql with code 10 unless `object` may refer to `target` by `property`.
    void check(const SchemaObject& object, const NodeId& target, uint32_t property) const;
    [[nodiscard]] bool is_restricted() const noexcept {
        return !allowed_classes.empty() || own_domains_only;
    }
    [[nodiscard]] std::string describe() const;
};

class PropertyNodeIdSchema
    : public PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t, NodeIdConversion> {
  public:
    PropertyNodeIdSchema(uint32_t number, uint32_t flag_bits, ReferenceRules rules = {},
                         Defaults<NodeId> defaults = {})
        : PropertySchemaTemplate(number, flag_bits, std::move(defaults)),
          rules_(std::move(rules)) {}
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
    [[nodiscard]] std::string describe() const override;
    [[nodiscard]] const ReferenceRules& rules() const noexcept { return rules_; }

  protected:
    void translate(const SchemaObject& object, const NodeId& inherits, work_t& work) const override;

  private:
    ReferenceRules rules_;
};

/// An id that stands for an object of another server.
class PropertyForeignIdSchema
    : public PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t,
                                    NodeIdConversionNoOrigin> {
  public:
    using PropertySchemaTemplate::PropertySchemaTemplate;
};

class PropertyNodeIdSetSchema
    : public PropertySchemaTemplate<mdb::PropertyNodeIdList, tql::property_object_set_t,
                                    NodeIdSetConversion> {
  public:
    PropertyNodeIdSetSchema(uint32_t number, uint32_t flag_bits, ReferenceRules rules = {},
                            Defaults<std::vector<NodeId>> defaults = {})
        : PropertySchemaTemplate(number, flag_bits, std::move(defaults)),
          rules_(std::move(rules)) {}
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
    [[nodiscard]] std::string describe() const override;

  protected:
    void translate(const SchemaObject& object, const NodeId& inherits, work_t& work) const override;

  private:
    ReferenceRules rules_;
};

/// Edges of a graph that must stay without cycles. Costs a walk over all that is reachable from the
/// new targets.
class PropertyDACEdgeSchema : public PropertyNodeIdSetSchema {
  public:
    using PropertyNodeIdSetSchema::PropertyNodeIdSetSchema;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

class PropertyUserIdSchema
    : public PropertySchemaTemplate<mdb::PropertyNodeId, tql::property_object_t, UserIdConversion> {
  public:
    PropertyUserIdSchema(uint32_t number, uint32_t flag_bits, ReferenceRules rules = {},
                         Defaults<NodeId> defaults = {})
        : PropertySchemaTemplate(number, flag_bits, std::move(defaults)),
          rules_(std::move(rules)) {}
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
    [[nodiscard]] std::string describe() const override;

  private:
    ReferenceRules rules_;
};

/// The user of the last write; what a client sends doesn't count. Stays while no user is in
/// progress.
class PropertyLastUpdatedByUserIdSchema : public PropertyUserIdSchema {
  public:
    using PropertyUserIdSchema::PropertyUserIdSchema;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

}  // namespace dbcache
