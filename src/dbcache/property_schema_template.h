// PropertySchemaTemplate: the family that most kinds of properties are made from. It differs in the
// stored class, the value that a query sees, and the conversion between the two; all rules of
// inheritance, defaults and nulls are here.
#pragma once

#include <concepts>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "dbcache/conversions.h"
#include "dbcache/detail/damage.h"
#include "dbcache/property_schema.h"

namespace dbcache {

/// Start value of a new object and end of the inheritance chain; often one and the same value. A
/// stored value equal to `null_value` reads as null.
template <class Value>
struct Defaults {
    std::shared_ptr<const Value> create_default;
    std::shared_ptr<const Value> inherit_default;
    std::optional<Value> null_value;

    static Defaults none() { return {}; }
    static Defaults both(Value value) {
        auto shared = std::make_shared<const Value>(std::move(value));
        return {shared, shared, {}};
    }
};

/// -1, 0 or 1; numbers that don't compare count as equal.
template <class Value>
[[nodiscard]] int compare_payloads(const Value& a, const Value& b) {
    if constexpr (requires { a < b; })
        return a < b ? -1 : b < a ? 1 : 0;
    else
        return a == b ? 0 : 1;  // no order: unequal is all that counts
}

/// Equal for payloads that compare_payloads() finds equal; 0 where that can't be told.
template <class Value>
[[nodiscard]] uint64_t hash_payload(const Value& value) {
    if constexpr (std::is_integral_v<Value> || std::is_enum_v<Value> ||
                  std::is_same_v<Value, std::string> || std::is_same_v<Value, NodeId>) {
        return std::hash<Value>{}(value);
    } else if constexpr (requires { hash_payload(*value.begin()); }) {
        uint64_t hash = value.size();
        for (const auto& element : value) hash = hash * 0x100000001B3U ^ hash_payload(element);
        return hash;
    } else {
        return 0;  // of real numbers some are equal to all
    }
}

template <class Stored, class Wire, class Conversion = Assign>
class PropertySchemaTemplate : public PropertySchema {
  public:
    using stored_t = Stored;
    using value_type = typename Stored::value_t;

    PropertySchemaTemplate(uint32_t number, uint32_t flag_bits, Defaults<value_type> defaults = {})
        : PropertySchema(number, flag_bits), defaults_(std::move(defaults)) {}

    void initial(work_t& out) const override {
        out.flags = 0;
        out.prop = holding(defaults_.create_default.get());
    }

    void load(const PropertyChain& chain, work_t& out) const override {
        auto stored = std::make_unique<Stored>(property);
        bool inherited = false;
        const resolved_t result = resolve(chain, *stored, inherited);
        out.flags = inherited ? kStateInherited : 0;
        if (result == resolved_t::value && !stands_for_null(*stored))
            out.prop = std::move(stored);
        else if (result == resolved_t::fallback)
            use_inherit_default(out);
        else
            out.prop.reset();
    }

    void assign(const tql::property_t& value, const SchemaObject& /*object*/,
                const PropertyChain& /*chain*/, work_t& work) const override {
        if ((value.flags & kStateMask) == kStateInherited) {
            work.prop.reset();
            work.set_inherited(true);
            return;
        }
        if (value.type() != Wire::kType) detail::fail_type_mismatch(property);
        check_wire(static_cast<const Wire&>(value));
        work.set_inherited(false);
        if (value.is_null) {
            work.prop.reset();
            return;
        }
        auto stored = std::make_unique<Stored>(property);
        Conversion::to_stored(static_cast<const Wire&>(value), *stored, property);
        work.prop = std::move(stored);
    }

    void store(const NodeId& /*id*/, const PropertyChain& chain, const work_t& work,
               const work_t& /*old*/, RecordSink& sink) const override {
        const bool inherits = !has(kNoInheritance) && chain.hasParent();
        if (!work.is_null()) {
            work.prop->inherited = work.is_inherited() ? 1 : 0;
            sink.add(*work.prop);
        } else if (inherits || defaults_.inherit_default != nullptr) {
            Stored null_record(property);
            null_record.inherited = inherits && work.is_inherited() ? 1 : 0;
            sink.add_null(null_record);
        }
    }

    [[nodiscard]] int compare(const work_t& a, const work_t& b) const override {
        if (a.is_null() || b.is_null())
            return static_cast<int>(b.is_null()) - static_cast<int>(a.is_null());
        return compare_values(payload(a), payload(b));
    }

    [[nodiscard]] uint64_t hash(const work_t& work) const override {
        return work.is_null() ? 0 : hash_value(payload(work));
    }

    [[nodiscard]] std::unique_ptr<tql::property_t> to_tql(
        const work_t& work, const PropertyChain& /*chain*/) const override {
        const uint32_t flag_bits = flags | (work.is_inherited() ? kInherited : 0);
        auto made = std::make_unique<Wire>();
        if (work.is_null()) {
            set_null(*made, flag_bits);
        } else {
            Stored copy(static_cast<const Stored&>(*work.prop));
            set_value(*made, copy, flag_bits);
        }
        return made;
    }

    [[nodiscard]] std::unique_ptr<tql::property_t> to_template_tql(
        const work_t& work, const PropertyChain& chain) const override {
        if (!work.is_null() || has(kNullable | kComputed)) return to_tql(work, chain);
        detail::log_missing_value(property, {});
        Stored zero(property);
        zero.value = value_type{};
        auto made = std::make_unique<Wire>();
        set_value(*made, zero, flags);
        return made;
    }

    void encode(const PropertyChain& chain, const NodeId& id,
                tql::property_map_t& out) const final {
        if (!applies_now(chain)) return;
        // In its place at once: what it throws ends the request, and the map with it.
        read_wire(chain, id, out[property].template emplace<Wire>());
    }

    void encode_result(const PropertyChain& chain, const NodeId& id,
                       queues::ValueWriter& out) const final {
        if (!applies_now(chain)) return;
        if constexpr (kFromBytes)
            if (encode_own_bytes(chain, out)) return;
        Wire made;
        read_wire(chain, id, made);
        out.add(made);
    }

    [[nodiscard]] std::string describe() const override {
        std::string text = describe_default("default ", defaults_.create_default.get());
        if (defaults_.inherit_default != defaults_.create_default)
            text += describe_default(" inherited default ", defaults_.inherit_default.get());
        return text;
    }

  protected:
    [[nodiscard]] const Defaults<value_type>& defaults() const noexcept { return defaults_; }
    /// The payload of a non-null work_t.
    [[nodiscard]] static const value_type& payload(const work_t& work) {
        return static_cast<const Stored&>(*work.prop).value;
    }

    [[nodiscard]] virtual int compare_values(const value_type& a, const value_type& b) const {
        return compare_payloads(a, b);
    }
    /// To be overwritten where compare_values() is.
    [[nodiscard]] virtual uint64_t hash_value(const value_type& value) const {
        return hash_payload(value);
    }
    /// For kinds that refuse values by more than their class; throws errors::tql with code 9.
    virtual void check_wire(const Wire& /*value*/) const {}
    /// Whether an object without a value shows a null; it is damage otherwise.
    [[nodiscard]] virtual bool shows_null() const { return has(kNullable); }
    /// Makes a new value a null one; for kinds that have more than a class of their own.
    virtual void set_null(Wire& made, uint32_t flag_bits) const {
        made.property = property;
        made.is_null = true;
        made.flags = flag_bits;
    }

    [[nodiscard]] std::unique_ptr<mdb::Property> make_stored() const override {
        return std::make_unique<Stored>(property);
    }
    [[nodiscard]] bool stands_for_null(const mdb::Property& stored) const override {
        return defaults_.null_value &&
               compare_values(static_cast<const Stored&>(stored).value, *defaults_.null_value) == 0;
    }
    void use_inherit_default(work_t& work) const override {
        work.prop = holding(defaults_.inherit_default.get());
    }

  private:
    using codec_type = typename Stored::codec_type;
    static constexpr bool kText = std::is_same_v<codec_type, mdb::codec::Text>;
    /// A value that travels as it is stored, but for the order of its bytes.
    static constexpr bool kFromBytes =
        std::is_same_v<Conversion, Assign> &&
        (kText || std::is_same_v<codec_type, mdb::codec::Boolean> ||
         std::is_same_v<codec_type, mdb::codec::Word32<uint32_t, 1>> ||
         std::is_same_v<codec_type, mdb::codec::Word32<int32_t, 2>>);

    /// Takes a plain value of the object's own from its record; false, with nothing done, for
    /// whatever needs a closer look.
    bool encode_own_bytes(const PropertyChain& chain,
                          queues::ValueWriter& out) const requires kFromBytes {
        if (defaults_.null_value) return false;
        const std::optional<mdb::RecordView> record = chain.own_record(property);
        if (!record || !record->is_plain(Stored::kTypeId)) return false;
        if constexpr (kText) {
            const std::optional<std::string_view> text = codec_type::view(record->payload());
            if (text) out.add_text(Wire::kType, property, flags, *text);
            return text.has_value();
        } else {
            value_type value{};
            const bool whole = codec_type::load(record->payload(), value);
            if (whole) out.add_word(Wire::kType, property, flags, static_cast<uint32_t>(value));
            return whole;
        }
    }

    [[nodiscard]] std::unique_ptr<Stored> holding(const value_type* value) const {
        return value == nullptr ? nullptr : std::make_unique<Stored>(property, *value);
    }
    /// Takes the payload out of `stored`.
    void set_value(Wire& made, Stored& stored, uint32_t flag_bits) const {
        set_null(made, flag_bits);
        made.is_null = false;
        Conversion::to_wire(stored, made);
    }

    /// encode() without the map: no work_t, so that the read path allocates nothing but the result.
    void read_wire(const PropertyChain& chain, const NodeId& id, Wire& made) const {
        Stored stored(property);
        bool inherited = false;
        try {
            const resolved_t result = resolve(chain, stored, inherited);
            const uint32_t flag_bits = flags | (inherited ? kInherited : 0);
            if (result == resolved_t::value && !stands_for_null(stored))
                return set_value(made, stored, flag_bits);
            if (result == resolved_t::fallback && defaults_.inherit_default != nullptr) {
                stored.value = *defaults_.inherit_default;
                return set_value(made, stored, flag_bits);
            }
            if (shows_null()) return set_null(made, flag_bits);
            detail::log_missing_value(property, id);
            stored.value = value_type{};
            return set_value(made, stored, flag_bits);
        } catch (const error::EParseError& fault) {
            detail::log_unreadable_value(property, fault.text());
        } catch (const mdb::error_wrongtype& fault) {
            detail::log_unreadable_value(property, fault.text());
        }
        set_null(made, flags);
    }

    [[nodiscard]] std::string describe_default(const char* head, const value_type* value) const {
        if (value == nullptr) return {};
        Stored stored(property, *value);
        Wire made;
        set_value(made, stored, 0);
        return head + made.print();
    }

    Defaults<value_type> defaults_;
};

/// A number with an optional minimum and maximum.
template <class Stored, class Wire, class Conversion = Assign>
class BoundablePropertySchemaTemplate : public PropertySchemaTemplate<Stored, Wire, Conversion> {
    using Base = PropertySchemaTemplate<Stored, Wire, Conversion>;

  public:
    using typename Base::value_type;
    struct Bounds {
        std::optional<value_type> minimum;
        std::optional<value_type> maximum;
    };

    BoundablePropertySchemaTemplate(uint32_t number, uint32_t flag_bits,
                                    Defaults<value_type> defaults = {}, Bounds bounds = {})
        : Base(number, flag_bits, std::move(defaults)), bounds_(bounds) {}

    void validate(const SchemaObject& object, const PropertyChain& chain,
                  work_t& work) const override {
        Base::validate(object, chain, work);
        if (work.is_null()) return;
        const value_type& value = Base::payload(work);
        if (bounds_.minimum && value < *bounds_.minimum)
            detail::fail_out_of_bounds(this->property, "low");
        if (bounds_.maximum && value > *bounds_.maximum)
            detail::fail_out_of_bounds(this->property, "high");
    }

    [[nodiscard]] std::string describe() const override {
        std::string text = Base::describe();
        if (bounds_.minimum || bounds_.maximum) {
            if (!text.empty()) text += ' ';
            if (bounds_.minimum) text += fmt::format("{}", *bounds_.minimum);
            text += "..";
            if (bounds_.maximum) text += fmt::format("{}", *bounds_.maximum);
        }
        return text;
    }

  private:
    Bounds bounds_;
};

/// A property whose stored class changed between versions of the database. A record of the new
/// class is read first; where there is none of it, one of the old class, under `old_number`, is
/// read and converted. Only the new class is written, so objects convert one by one as they are
/// updated. `Schema` is the schema class of the new form. An old value that can't be converted
/// (error::EParseError) is damage, as a record of a wrong class is: error_wrongtype.
template <class Old, class Schema, class Convert>
class PropertyConversionSchemaTemplate : public Schema {
    using New = typename Schema::stored_t;

  public:
    template <class... Args>
    explicit PropertyConversionSchemaTemplate(uint32_t old_number, Args&&... args)
        : Schema(std::forward<Args>(args)...), old_number_(old_number) {}

  protected:
    [[nodiscard]] found_t read(const PropertyChain& chain, unsigned level,
                               mdb::Property& into) const override {
        try {
            const found_t found = chain.read(level, into);
            if (found != found_t::absent || old_number_ == this->property) return found;
        } catch (const mdb::error_wrongtype&) {
            if (old_number_ != this->property) throw;
        }
        Old old_form(old_number_);
        const found_t found = chain.read(level, old_form);
        into.inherited = old_form.inherited;
        try {
            if (found == found_t::value) Convert::convert(old_form, static_cast<New&>(into));
        } catch (const error::EParseError& fault) {
            throw mdb::error_wrongtype(
                fault.text(),
                {.property = old_number_, .found = old_form.type_id(), .wanted = into.type_id()});
        }
        return found;
    }

  private:
    uint32_t old_number_;
};

/// A property whose record stands under another number, `stored_number`, since a change of its
/// stored class; otherwise as PropertyConversionSchemaTemplate. A record of the old class stands
/// under the property's own number. Queries know that number alone.
template <class Old, class Schema, class Convert>
class PropertyMovedSchemaTemplate : public Schema {
    using New = typename Schema::stored_t;

  public:
    template <class... Args>
    explicit PropertyMovedSchemaTemplate(uint32_t stored_number, Args&&... args)
        : Schema(std::forward<Args>(args)...), stored_number_(stored_number) {}

    void store(const NodeId& id, const PropertyChain& chain, const work_t& work, const work_t& old,
               RecordSink& sink) const override {
        RenamingSink renaming(sink, stored_number_);
        Schema::store(id, chain, work, old, renaming);
    }

  protected:
    [[nodiscard]] found_t read(const PropertyChain& chain, unsigned level,
                               mdb::Property& into) const override {
        New moved(stored_number_);
        const found_t found = chain.read(level, moved);
        if (found != found_t::absent) {
            into.inherited = moved.inherited;
            static_cast<New&>(into).value = std::move(moved.value);
            return found;
        }
        Old old_form(this->property);
        const found_t found_old = chain.read(level, old_form);
        into.inherited = old_form.inherited;
        if (found_old == found_t::value) Convert::convert(old_form, static_cast<New&>(into));
        return found_old;
    }

  private:
    /// Hands records on under the other number.
    class RenamingSink final : public RecordSink {
      public:
        RenamingSink(RecordSink& sink, uint32_t number) : sink_(sink), number_(number) {}
        void add(const mdb::Property& property) override { sink_.add(renamed(property)); }
        void add_null(const mdb::Property& property) override { sink_.add_null(renamed(property)); }
        [[nodiscard]] uint32_t write_lob(std::span<const uint8_t> bytes) override {
            return sink_.write_lob(bytes);
        }
        void free_lob(uint32_t block) override { sink_.free_lob(block); }

      private:
        [[nodiscard]] New renamed(const mdb::Property& property) const {
            New copy = static_cast<const New&>(property);
            copy.id = number_;
            return copy;
        }
        RecordSink& sink_;
        uint32_t number_;
    };

    uint32_t stored_number_;
};

}  // namespace dbcache
