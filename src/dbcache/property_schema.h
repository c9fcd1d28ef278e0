// PropertySchema: one property of one class: how it is stored, how it looks to a query, which
// values it takes. Built once at start, read-only afterwards; it holds no state of any object. The
// kinds stand in property_kinds.h, the family that most of them are made from in
// property_schema_template.h.
//
// An operation walks a class's schemas beside an array of work_t:
//
//   create   initial ---+                                  +-- store
//   update   load ------+-- assign (for each value given) --+-- validate (each) --+-- store
//   select   encode
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "dbcache/schema_object.h"
#include "dbcache/work.h"
#include "queues/encoded_values.h"
#include "tql/errors.h"
#include "tql/property.h"

namespace dbcache {

/// Bits of PropertySchema::flags; the low bits of the flags of an encoded value are the same.
/// Further bits below bit 31 are free for marks of a class's own.
inline constexpr uint32_t kConst = tql::kFlagConst;        ///< given at creation, never changed
inline constexpr uint32_t kNullable = tql::kFlagNullable;  ///< null is a legal final value
inline constexpr uint32_t kComputed = tql::kFlagComputed;  ///< made by the server, not by clients
inline constexpr uint32_t kNoInheritance =
    tql::kFlagNoInheritance;                                   ///< never reads through `inherits`
inline constexpr uint32_t kPrimaryKey = tql::kFlagPrimaryKey;  ///< must differ among siblings
inline constexpr uint32_t kInherited = tql::kFlagInherited;    ///< on encoded values only

class PropertySchema {
  public:
    PropertySchema(uint32_t property_number, uint32_t flag_bits)
        : property(property_number), flags(flag_bits) {}
    PropertySchema(const PropertySchema&) = delete;
    PropertySchema& operator=(const PropertySchema&) = delete;
    virtual ~PropertySchema() = default;

    const uint32_t property;
    /// Changed only while classes are registered.
    uint32_t flags;
    /// When set and false for an object, the property isn't encoded at all.
    std::function<bool(const PropertyChain&)> applies;
    /// No two siblings of one class may have the same value.
    bool unique_among_siblings = false;
    /// The name of the kind, "identifier" for instance; a literal.
    std::string_view kind = "";
    /// Ids got by inheritance are translated to the inheriting object's own subtree.
    bool translate_inherited = true;

    [[nodiscard]] bool has(uint32_t flag) const noexcept { return (flags & flag) != 0; }
    [[nodiscard]] std::string name() const;

    /// The start value of a new object.
    virtual void initial(work_t& out) const = 0;
    /// The value that an object has, its own or inherited; `out` is overwritten.
    virtual void load(const PropertyChain& chain, work_t& out) const = 0;
    /// Takes a client's value: a null, a payload or the request to inherit. Throws errors::tql with
    /// code 9 for a value of another kind, and where a kind refuses values.
    virtual void assign(const tql::property_t& value, const SchemaObject& object,
                        const PropertyChain& chain, work_t& work) const = 0;
    /// Whether `work` may be stored; fetches the value of an inheriting one. Throws errors::tql.
    /// The checks of a kind come after those of this base.
    virtual void validate(const SchemaObject& object, const PropertyChain& chain,
                          work_t& work) const;
    /// Adds the record to the new version of the object. `old` is what the object held before, for
    /// kinds whose value owns storage outside the object; empty for a new object.
    virtual void store(const NodeId& id, const PropertyChain& chain, const work_t& work,
                       const work_t& old, RecordSink& sink) const = 0;
    virtual void release(work_t& work) const { work.prop.reset(); }
    /// -1, 0 or 1 by payload; a null sorts before every value.
    [[nodiscard]] virtual int compare(const work_t& a, const work_t& b) const = 0;
    /// Equal for values that compare() finds equal; 0 for all where a kind has nothing better.
    [[nodiscard]] virtual uint64_t hash(const work_t& /*work*/) const { return 0; }
    /// Whether the value owns storage outside the object.
    [[nodiscard]] virtual bool has_backend() const { return false; }
    /// Whether the value changes by writes to other objects, in ObjectHandler::rewrite_records().
    [[nodiscard]] virtual bool kept_by_system() const { return false; }
    [[nodiscard]] virtual bool applies_now(const PropertyChain& chain) const {
        return !applies || applies(chain);
    }
    /// The value as a query sees it, with the schema's flags and bit 31 for an inherited one.
    [[nodiscard]] virtual std::unique_ptr<tql::property_t> to_tql(
        const work_t& work, const PropertyChain& chain) const = 0;
    /// The same for a value that a template suggests: a null where none is allowed is logged and
    /// becomes zero, as in encode().
    [[nodiscard]] virtual std::unique_ptr<tql::property_t> to_template_tql(
        const work_t& work, const PropertyChain& chain) const {
        return to_tql(work, chain);
    }
    /// Whether objects that inherit can have the value from their parent; false too for kinds that
    /// store none.
    [[nodiscard]] bool is_inheritable() const {
        return !has(kNoInheritance) && make_stored() != nullptr;
    }
    /// Adds the object's value to `out`, unless it doesn't apply. `id` is for log lines. A damaged
    /// value is logged and reads as null or zero. Cheapest when `out` has no higher number yet.
    virtual void encode(const PropertyChain& chain, const NodeId& id,
                        tql::property_map_t& out) const = 0;
    /// The same in the form in which values travel; default: by way of encode().
    virtual void encode_result(const PropertyChain& chain, const NodeId& id,
                               queues::ValueWriter& out) const;

    /// Defaults, limits and allowed classes as text, for people; may be empty.
    [[nodiscard]] virtual std::string describe() const { return {}; }

  protected:
    /// What reading through the chain came to: `fallback` says that there is no record to go by.
    enum class resolved_t : uint8_t { value, null, fallback };
    /// Reads by the rules of inheritance; the same for load and encode. `inherited` tells the state
    /// of the result.
    [[nodiscard]] resolved_t resolve(const PropertyChain& chain, mdb::Property& into,
                                     bool& inherited) const;
    /// The raw read of one level; kinds whose value hangs on more than its own record overwrite it.
    [[nodiscard]] virtual found_t read(const PropertyChain& chain, unsigned level,
                                       mdb::Property& into) const {
        return chain.read(level, into);
    }
    /// A record to read into; null for kinds without one, which can't be inherited.
    [[nodiscard]] virtual std::unique_ptr<mdb::Property> make_stored() const { return nullptr; }
    /// Whether a stored value stands for null.
    [[nodiscard]] virtual bool stands_for_null(const mdb::Property& /*stored*/) const {
        return false;
    }
    /// Puts the end of the inheritance chain into `work`: a default, or null when there is none.
    virtual void use_inherit_default(work_t& work) const { work.prop.reset(); }
    /// Replaces ids in an inherited value; for kinds that hold ids.
    virtual void translate(const SchemaObject& /*object*/, const NodeId& /*inherits*/,
                           work_t& /*work*/) const {}

  private:
    void fetch_inherited(const SchemaObject& object, const PropertyChain& chain,
                         work_t& work) const;
    void check_const(const SchemaObject& object, const PropertyChain& chain,
                     const work_t& work) const;
    void check_unique(const SchemaObject& object, const work_t& work) const;
};

/// Throws errors::tql with code 10.
[[noreturn]] void fail_illegal_value(const std::string& text);

/// Throws errors::tql_exists with "EXISTS{", the id, "} " and the text.
[[noreturn]] void fail_exists(const NodeId& id, const std::string& text);

}  // namespace dbcache
