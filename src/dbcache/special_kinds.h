// The kinds of properties that are more than a value with a check: enumerations, actions, counters,
// marks, series, images, large objects and units. The server makes the values of counters, marks
// and series; clients can't set them.
#pragma once

#include <functional>
#include <memory>

#include "dbcache/property_schema_template.h"
#include "tql/property_map.h"

namespace dbcache {

class ObjectHandler;

class NodetypeSchema;

/// The payload of a stored enumeration whose values have no names in code.
enum class enum_value_t : uint32_t {};

/// Stored and query form of a value of an enumeration.
struct EnumConversion {
    template <class Stored>
    static void to_stored(const tql::property_enum_t& wire, Stored& stored, uint32_t) {
        stored.value = static_cast<typename Stored::value_t>(wire.value);
    }
    template <class Stored>
    static void to_wire(Stored& stored, tql::property_enum_t& wire) {
        wire.value = static_cast<uint32_t>(stored.value);
    }
};

/// A value of the enumeration with the id `enumeration`. Any number is taken: what the numbers mean
/// may be known to the clients alone.
template <class E>
class PropertyEnumSchema
    : public PropertySchemaTemplate<mdb::PropertyEnum<E>, tql::property_enum_t, EnumConversion> {
    using Base = PropertySchemaTemplate<mdb::PropertyEnum<E>, tql::property_enum_t, EnumConversion>;

  public:
    PropertyEnumSchema(uint32_t number, uint32_t flag_bits, uint32_t enumeration,
                       Defaults<E> defaults = {})
        : Base(number, flag_bits, std::move(defaults)), enumeration_(enumeration) {}
    [[nodiscard]] std::string describe() const override {
        std::string text = Base::describe();
        return text.empty() ? fmt::format("enumeration {:x}", enumeration_) : text;
    }

  protected:
    void check_wire(const tql::property_enum_t& value) const override {
        if (!value.is_null) static_cast<void>(tql::as_enum(value, enumeration_));
    }
    void set_null(tql::property_enum_t& made, uint32_t flag_bits) const override {
        Base::set_null(made, flag_bits);
        made.enumeration = enumeration_;
    }

  private:
    uint32_t enumeration_;
};

/// One of which every value up to `highest` means something to this server.
class PropertyBoundedEnumSchema : public PropertyEnumSchema<enum_value_t> {
  public:
    PropertyBoundedEnumSchema(uint32_t number, uint32_t flag_bits, uint32_t enumeration,
                              uint32_t highest, Defaults<enum_value_t> defaults = {})
        : PropertyEnumSchema(number, flag_bits, enumeration, std::move(defaults)),
          highest_(highest) {}
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
    [[nodiscard]] std::string describe() const override;

  private:
    uint32_t highest_;
};

/// Which of the 32 states a check has. Lives as long as the process.
class StateEnumeration {
  public:
    virtual ~StateEnumeration() = default;
    [[nodiscard]] virtual bool exists(const PropertyChain& chain, uint32_t state) const = 0;
};

/// What to do in one state of a check, one property for each state; encoded only for states that
/// the check has.
class PropertyStateActionSchema : public PropertyEnumSchema<enum_value_t> {
  public:
    /// `number` is that of stateAction0 plus the state.
    PropertyStateActionSchema(uint32_t number, uint32_t flag_bits, const StateEnumeration& states,
                              Defaults<enum_value_t> defaults = {});
    [[nodiscard]] bool applies_now(const PropertyChain& chain) const override;

  private:
    const StateEnumeration& states_;
};

/// Nothing is stored: assigning any value requests the action (kStateRequested), which the class's
/// afterUpdate runs.
class PropertyActionSchema : public PropertySchema {
  public:
    using PropertySchema::PropertySchema;
    void initial(work_t& out) const override { out = {}; }
    void load(const PropertyChain& chain, work_t& out) const override;
    void assign(const tql::property_t& value, const SchemaObject& object,
                const PropertyChain& chain, work_t& work) const override;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
    void store(const NodeId& id, const PropertyChain& chain, const work_t& work, const work_t& old,
               RecordSink& sink) const override;
    [[nodiscard]] int compare(const work_t& a, const work_t& b) const override;
    [[nodiscard]] std::unique_ptr<tql::property_t> to_tql(
        const work_t& work, const PropertyChain& chain) const override;
    void encode(const PropertyChain& chain, const NodeId& id,
                tql::property_map_t& out) const override;
};

/// A usage counter. It starts at 0 and is changed by accounting alone; one that no record holds
/// reads as 0.
class PropertyCountSchema
    : public PropertySchemaTemplate<mdb::PropertyCount, tql::property_uint_t> {
  public:
    PropertyCountSchema(uint32_t number, uint32_t flag_bits)
        : PropertySchemaTemplate(number, flag_bits | kComputed | kNoInheritance,
                                 Defaults<common::count_t>::both(0)) {}
    void assign(const tql::property_t& value, const SchemaObject& object,
                const PropertyChain& chain, work_t& work) const override;
    [[nodiscard]] bool kept_by_system() const override { return true; }
};

/// Whether an object, with the values in the work array of its class, is a member of a mark's list.
using MarkPredicate = std::function<bool(const ObjectHandler&, const WorkArray&)>;
/// The usual ones. `active`, which the class must have, is true.
[[nodiscard]] bool marks_active(const ObjectHandler& handler, const WorkArray& work);
/// `inherits`, which the class must have, is set.
[[nodiscard]] bool marks_inheriting(const ObjectHandler& handler, const WorkArray& work);
[[nodiscard]] bool marks_always(const ObjectHandler& handler, const WorkArray& work);

struct MarkConversion {
    static void to_stored(const tql::property_index_t&, mdb::PropertyMarkIndex&, uint32_t) {}
    static void to_wire(mdb::PropertyMarkIndex& stored, tql::property_index_t& wire) {
        wire.value = stored.value.marked ? 1 : 0;
    }
};

/// A mark: the object's place in a list threaded through the tree (mark_index.h). The record is
/// carried from version to version by the code of the lists alone, not by store(). A query sees 1
/// for a member, 0 for a mere link, null for neither.
class PropertyMarkIndexSchema
    : public PropertySchemaTemplate<mdb::PropertyMarkIndex, tql::property_index_t, MarkConversion> {
  public:
    /// A null predicate means never.
    PropertyMarkIndexSchema(uint32_t number, MarkPredicate predicate);
    [[nodiscard]] bool is_member(const ObjectHandler& handler, const WorkArray& work) const {
        return predicate_ && predicate_(handler, work);
    }
    void assign(const tql::property_t& value, const SchemaObject& object,
                const PropertyChain& chain, work_t& work) const override;
    /// Nothing to check: the lists keep their own rules.
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;

  protected:
    [[nodiscard]] bool shows_null() const override { return true; }

  private:
    MarkPredicate predicate_;
};

/// The index of a time series; kNoSeries while there is none. Whoever deletes the object frees the
/// series.
class PropertyTSDBBlockSchema
    : public PropertySchemaTemplate<mdb::PropertySeries, tql::property_index_t> {
  public:
    static constexpr uint32_t kNoSeries = 0xFFFFFFFF;
    PropertyTSDBBlockSchema(uint32_t number, uint32_t flag_bits)
        : PropertySchemaTemplate(number, flag_bits, Defaults<uint32_t>::both(kNoSeries)) {}
    void assign(const tql::property_t& value, const SchemaObject& object,
                const PropertyChain& chain, work_t& work) const override;
    [[nodiscard]] bool has_backend() const override { return true; }
};

/// An image in the object itself; must begin with the signature of the format.
class PropertyPNGDataSchema
    : public PropertySchemaTemplate<mdb::PropertyBlob, tql::property_blob_t> {
  public:
    using PropertySchemaTemplate::PropertySchemaTemplate;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

/// A unit expression in its binary form. A client gives the bytes, which must be one, or its text.
class PropertyUnitSchema : public PropertySchemaTemplate<mdb::PropertyBlob, tql::property_blob_t> {
  public:
    using PropertySchemaTemplate::PropertySchemaTemplate;
    void assign(const tql::property_t& value, const SchemaObject& object,
                const PropertyChain& chain, work_t& work) const override;
};

/// A unit that older objects hold as text.
using PropertyUnitConvSchema =
    PropertyConversionSchemaTemplate<mdb::PropertyString, PropertyUnitSchema,
                                     UnitStringToUnitBlobAssign>;

/// The working form of a large object: its first block, and its bytes while they have not been
/// written.
class LargeValue : public mdb::PropertyUint32 {
  public:
    using PropertyUint32 = mdb::PropertyUint32;
    explicit LargeValue(uint32_t number) : PropertyUint32(number) {}

    /// Engaged for bytes that a client gave; store() writes them.
    std::optional<std::vector<uint8_t>> fresh_bytes;
};

/// Bytes in a chain of blocks outside the object, which holds the number of the first one. Not
/// inherited.
class PropertyLobSchema : public PropertySchema {
  public:
    PropertyLobSchema(uint32_t number, uint32_t flag_bits)
        : PropertySchema(number, flag_bits | kNoInheritance) {}
    void initial(work_t& out) const override { out = {}; }
    void load(const PropertyChain& chain, work_t& out) const override;
    /// The bytes that are stored already are no change, so their blocks stay.
    void assign(const tql::property_t& value, const SchemaObject& object,
                const PropertyChain& chain, work_t& work) const override;
    /// Writes fresh bytes, and frees the chain of `old` when another value takes its place.
    void store(const NodeId& id, const PropertyChain& chain, const work_t& work, const work_t& old,
               RecordSink& sink) const override;
    [[nodiscard]] int compare(const work_t& a, const work_t& b) const override;
    [[nodiscard]] std::unique_ptr<tql::property_t> to_tql(
        const work_t& work, const PropertyChain& chain) const override;
    void encode(const PropertyChain& chain, const NodeId& id,
                tql::property_map_t& out) const override;
};

/// The same check as PropertyPNGDataSchema, on a large object.
class PropertyLargePNGDataSchema : public PropertyLobSchema {
  public:
    using PropertyLobSchema::PropertyLobSchema;
    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override;
};

}  // namespace dbcache
