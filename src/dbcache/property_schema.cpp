#include "dbcache/property_schema.h"

#include <fmt/format.h>

#include "dbcache/sibling_key.h"
#include "tql/names.h"

namespace dbcache {

std::string PropertySchema::name() const {
    return tql::property_name(property);
}

PropertySchema::resolved_t PropertySchema::resolve(const PropertyChain& chain, mdb::Property& into,
                                                   bool& inherited) const {
    const bool may_inherit = !has(kNoInheritance);
    const found_t own = read(chain, 0, into);
    inherited = may_inherit && into.inherited > 0;
    if (own == found_t::value) return resolved_t::value;
    if (own == found_t::explicit_null) return resolved_t::null;
    inherited = false;
    if (!may_inherit || !chain.hasParent()) return resolved_t::fallback;
    try {
        const found_t above = read(chain, 1, into);
        inherited = true;
        if (above == found_t::value) return resolved_t::value;
        return above == found_t::explicit_null ? resolved_t::null : resolved_t::fallback;
    } catch (const EInheritance&) {
        return resolved_t::fallback;  // the chain has logged why; the defaults stand in
    }
}

void PropertySchema::encode_result(const PropertyChain& chain, const NodeId& id,
                                   queues::ValueWriter& out) const {
    tql::property_map_t values;
    encode(chain, id, values);
    out.add(values);
}

void PropertySchema::validate(const SchemaObject& object, const PropertyChain& chain,
                              work_t& work) const {
    if (work.is_inherited()) fetch_inherited(object, chain, work);
    if (has(kConst) && object.is_stored()) check_const(object, chain, work);
    if (work.is_null() && !has(kNullable))
        fail_illegal_value(fmt::format("Null given for property {}", name()));
    if (unique_among_siblings && !work.is_null()) check_unique(object, work);
}

void PropertySchema::fetch_inherited(const SchemaObject& object, const PropertyChain& chain,
                                     work_t& work) const {
    std::unique_ptr<mdb::Property> stored = make_stored();
    if (has(kNoInheritance) || stored == nullptr)
        fail_illegal_value(fmt::format("Property {} does not allow inheritance", name()));
    try {
        switch (read(chain, 1, *stored)) {
            case found_t::value:
                if (stands_for_null(*stored)) stored.reset();
                work.prop = std::move(stored);
                if (translate_inherited && !work.is_null())
                    translate(object, chain.inherits(), work);
                return;
            case found_t::explicit_null:
                // The copy of a null from further up says that nobody on the chain gave a value.
                if (stored->inherited != 0)
                    use_inherit_default(work);
                else
                    work.prop.reset();
                return;
            case found_t::absent:
                use_inherit_default(work);
                return;
        }
    } catch (const EInheritance&) {
        fail_illegal_value(
            fmt::format("afterUpdate cannot set property {} to be inherited", name()));
    }
}

void PropertySchema::check_const(const SchemaObject& /*object*/, const PropertyChain& chain,
                                 const work_t& work) const {
    work_t old;
    load(chain.stored(), old);
    const bool flags_differ = ((old.flags ^ work.flags) & ~kStateSpareBit) != 0;
    if (!flags_differ && old.is_null() == work.is_null() && compare(old, work) == 0) return;
    throw errors::tql(errors::ERR_CONST_PROPERTY,
                      fmt::format("Cannot update const property {}: {:x} vs. {:x}", name(),
                                  old.flags, work.flags));
}

void PropertySchema::check_unique(const SchemaObject& object, const work_t& work) const {
    const std::set<uint32_t> own_class{object.schema_class()};
    SiblingKey key(own_class);
    key.add(*this, work);
    if (const std::optional<NodeId> sibling = object.find_equal_sibling(NodeId{}, key))
        fail_exists(*sibling, fmt::format("Duplicate value given for property {}", name()));
}

void fail_illegal_value(const std::string& text) {
    throw errors::tql(errors::ERR_ILLEGAL_VALUE, text);
}

void fail_exists(const NodeId& id, const std::string& text) {
    throw errors::tql_exists(tql::id_t::from_node_id(id),
                             fmt::format("EXISTS{{{}}} {}", id.to_string(), text));
}

}  // namespace dbcache
