#include "dbcache/special_kinds.h"

#include <algorithm>
#include <array>

#include "dbcache/object_handler.h"
#include "tql/enumerations.h"
#include "tql/names.h"
#include "util/unit_expression.h"

namespace dbcache {

namespace {

constexpr std::array<uint8_t, 8> kPngSignature = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};

void check_png(const std::vector<uint8_t>& bytes, uint32_t property) {
    if (bytes.size() < kPngSignature.size() ||
        !std::equal(kPngSignature.begin(), kPngSignature.end(), bytes.begin()))
        detail::fail_property(property, ": Not a valid png image");
}

[[noreturn]] void fail_computed(uint32_t property) {
    throw errors::tql(errors::ERR_CONST_PROPERTY, fmt::format("Cannot update computed property {}",
                                                              tql::property_name(property)));
}

const work_t& work_of(const ObjectHandler& handler, const WorkArray& work, uint32_t property) {
    const NodetypeSchema& schema = handler.schema();
    const std::optional<size_t> index = schema.lookupProperty(property, kAllSubtypes);
    return work[index ? *index : schema.findProperty(property, schema.subtypeFromWork(work))];
}

/// The bytes of a large object: those given, or those in the file.
std::vector<uint8_t> lob_bytes(const work_t& work, const PropertyChain& chain) {
    const auto& value = static_cast<const LargeValue&>(*work.prop);
    return value.fresh_bytes ? *value.fresh_bytes : chain.read_lob(value.value);
}

void check_unit(const std::vector<uint8_t>& bytes, uint32_t property) {
    try {
        static_cast<void>(UnitExpression::from_blob(bytes));
    } catch (const error::EParseError& fault) {
        detail::fail_property(property, ": Not a valid unit: " + fault.text());
    }
}

/// Whether `work` has these bytes already. What can't be read is to be replaced.
bool holds(const work_t& work, const PropertyChain& chain, const std::vector<uint8_t>& bytes) {
    try {
        return !work.is_null() && lob_bytes(work, chain) == bytes;
    } catch (const mdb::error_internal&) {
        return false;
    }
}

}  // namespace

void PropertyBoundedEnumSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                         work_t& work) const {
    PropertyEnumSchema::validate(object, chain, work);
    if (work.is_null()) return;
    const auto& value = static_cast<const mdb::PropertyEnum<enum_value_t>&>(*work.prop);
    if (static_cast<uint32_t>(value.value) > highest_)
        fail_illegal_value("Value for " + name() + " too high");
}

std::string PropertyBoundedEnumSchema::describe() const {
    return fmt::format("{} ..{}", PropertyEnumSchema::describe(), highest_);
}

PropertyStateActionSchema::PropertyStateActionSchema(uint32_t number, uint32_t flag_bits,
                                                     const StateEnumeration& states,
                                                     Defaults<enum_value_t> defaults)
    : PropertyEnumSchema(number, flag_bits, tql::enumeration::StateAction, std::move(defaults)),
      states_(states) {
    error::check(
        number >= prop::stateAction0 && number - prop::stateAction0 < prop::kStateActionCount,
        "Property {} is no state action", number);
}

bool PropertyStateActionSchema::applies_now(const PropertyChain& chain) const {
    return states_.exists(chain, property - prop::stateAction0) &&
           PropertyEnumSchema::applies_now(chain);
}

void PropertyActionSchema::load(const PropertyChain& /*chain*/, work_t& out) const {
    out = {};
}

void PropertyActionSchema::assign(const tql::property_t& /*value*/, const SchemaObject& /*object*/,
                                  const PropertyChain& /*chain*/, work_t& work) const {
    work.flags |= kStateRequested;
}

void PropertyActionSchema::validate(const SchemaObject& /*object*/, const PropertyChain& /*chain*/,
                                    work_t& /*work*/) const {}

void PropertyActionSchema::store(const NodeId& /*id*/, const PropertyChain& /*chain*/,
                                 const work_t& /*work*/, const work_t& /*old*/,
                                 RecordSink& /*sink*/) const {}

int PropertyActionSchema::compare(const work_t& /*a*/, const work_t& /*b*/) const {
    return 0;
}

std::unique_ptr<tql::property_t> PropertyActionSchema::to_tql(
    const work_t& /*work*/, const PropertyChain& /*chain*/) const {
    return std::make_unique<tql::property_action_t>(tql::property_action_t::null(property, flags));
}

void PropertyActionSchema::encode(const PropertyChain& chain, const NodeId& /*id*/,
                                  tql::property_map_t& out) const {
    if (applies_now(chain))
        out.insert_or_assign(out.end(), property, tql::value_t(to_tql({}, chain)));
}

void PropertyCountSchema::assign(const tql::property_t& /*value*/, const SchemaObject& /*object*/,
                                 const PropertyChain& /*chain*/, work_t& /*work*/) const {
    fail_computed(property);
}

bool marks_active(const ObjectHandler& handler, const WorkArray& work) {
    const work_t& active = work_of(handler, work, prop::active);
    return !active.is_null() && static_cast<const mdb::PropertyBool&>(*active.prop).value;
}

bool marks_inheriting(const ObjectHandler& handler, const WorkArray& work) {
    return !work_of(handler, work, prop::inherits).is_null();
}

bool marks_always(const ObjectHandler& /*handler*/, const WorkArray& /*work*/) {
    return true;
}

PropertyMarkIndexSchema::PropertyMarkIndexSchema(uint32_t number, MarkPredicate predicate)
    : PropertySchemaTemplate(number, kComputed | kNoInheritance),
      predicate_(std::move(predicate)) {}

void PropertyMarkIndexSchema::assign(const tql::property_t& /*value*/,
                                     const SchemaObject& /*object*/, const PropertyChain& /*chain*/,
                                     work_t& /*work*/) const {
    fail_computed(property);
}

void PropertyMarkIndexSchema::validate(const SchemaObject& /*object*/,
                                       const PropertyChain& /*chain*/, work_t& /*work*/) const {
    // A white object has no record, and that is as good as any mark.
}

void PropertyTSDBBlockSchema::assign(const tql::property_t& /*value*/,
                                     const SchemaObject& /*object*/, const PropertyChain& /*chain*/,
                                     work_t& /*work*/) const {
    throw errors::tql(errors::ERR_CONST_PROPERTY, "Attempted update of TSDB index");
}

void PropertyPNGDataSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                     work_t& work) const {
    PropertySchemaTemplate::validate(object, chain, work);
    if (!work.is_null()) check_png(payload(work), property);
}

void PropertyUnitSchema::assign(const tql::property_t& value, const SchemaObject& object,
                                const PropertyChain& chain, work_t& work) const {
    const bool inherit = (value.flags & kStateMask) == kStateInherited;
    if (inherit || value.type() != tql::property_string_t::kType) {
        if (!inherit && !value.is_null && value.type() == tql::property_blob_t::kType)
            check_unit(static_cast<const tql::property_blob_t&>(value).value, property);
        return PropertySchemaTemplate::assign(value, object, chain, work);
    }
    work.set_inherited(false);
    work.prop.reset();
    if (value.is_null) return;
    auto stored = std::make_unique<mdb::PropertyBlob>(property);
    UnitStringToUnitBlobAssign::to_stored(static_cast<const tql::property_string_t&>(value),
                                          *stored, property);
    work.prop = std::move(stored);
}

void PropertyLobSchema::load(const PropertyChain& chain, work_t& out) const {
    auto stored = std::make_unique<LargeValue>(property);
    bool inherited = false;
    const bool found = resolve(chain, *stored, inherited) == resolved_t::value;
    out.flags = 0;
    out.prop = found ? std::move(stored) : nullptr;
}

void PropertyLobSchema::assign(const tql::property_t& value, const SchemaObject& /*object*/,
                               const PropertyChain& chain, work_t& work) const {
    if ((value.flags & kStateMask) == kStateInherited) {
        work.prop.reset();
        work.set_inherited(true);  // refused by validate
        return;
    }
    if (value.type() != tql::property_lob_t::kType) detail::fail_type_mismatch(property);
    const auto& bytes = static_cast<const tql::property_lob_t&>(value).value;
    work.set_inherited(false);
    if (!value.is_null && holds(work, chain, bytes)) return;
    work.prop.reset();
    if (value.is_null) return;
    auto fresh = std::make_unique<LargeValue>(property);
    fresh->fresh_bytes = bytes;
    work.prop = std::move(fresh);
}

void PropertyLobSchema::store(const NodeId& /*id*/, const PropertyChain& /*chain*/,
                              const work_t& work, const work_t& old, RecordSink& sink) const {
    const auto* kept = static_cast<const LargeValue*>(work.prop.get());
    if (!old.is_null()) {
        const auto& before = static_cast<const LargeValue&>(*old.prop);
        if (kept == nullptr || kept->fresh_bytes) sink.free_lob(before.value);
    }
    if (kept == nullptr) return;
    mdb::PropertyUint32 record(property, kept->value);
    if (kept->fresh_bytes) record.value = sink.write_lob(*kept->fresh_bytes);
    sink.add(record);
}

int PropertyLobSchema::compare(const work_t& a, const work_t& b) const {
    if (a.is_null() || b.is_null())
        return static_cast<int>(b.is_null()) - static_cast<int>(a.is_null());
    const auto& left = static_cast<const LargeValue&>(*a.prop);
    const auto& right = static_cast<const LargeValue&>(*b.prop);
    if (left.fresh_bytes || right.fresh_bytes) return left.fresh_bytes == right.fresh_bytes ? 0 : 1;
    return compare_payloads(left.value, right.value);
}

std::unique_ptr<tql::property_t> PropertyLobSchema::to_tql(const work_t& work,
                                                           const PropertyChain& chain) const {
    if (work.is_null())
        return std::make_unique<tql::property_lob_t>(tql::property_lob_t::null(property, flags));
    return std::make_unique<tql::property_lob_t>(property, lob_bytes(work, chain), flags);
}

void PropertyLobSchema::encode(const PropertyChain& chain, const NodeId& id,
                               tql::property_map_t& out) const {
    if (!applies_now(chain)) return;
    work_t work;
    load(chain, work);
    tql::value_t value;
    try {
        if (work.is_null() && !has(kNullable)) detail::log_missing_value(property, id);
        value = to_tql(work, chain);
    } catch (const mdb::error_generic&) {
        detail::log_missing_value(property, id);
        value = to_tql({}, chain);
    }
    out.insert_or_assign(out.end(), property, std::move(value));
}

void PropertyLargePNGDataSchema::validate(const SchemaObject& object, const PropertyChain& chain,
                                          work_t& work) const {
    PropertyLobSchema::validate(object, chain, work);
    if (work.is_null()) return;
    const auto& value = static_cast<const LargeValue&>(*work.prop);
    if (value.fresh_bytes) check_png(*value.fresh_bytes, property);
}

}  // namespace dbcache
