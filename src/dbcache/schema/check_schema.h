// CheckSchema: the base of the four classes of checks. It keeps a check's time series in line with
// its values, answers the read-only values that all checks have, and counts active checks. How a
// check is told apart, judged and labelled is said by the class derived from it.
//
// The helpers below read single values for labels and rules; a value that isn't there reads as its
// natural empty one.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "dbcache/class_table.h"
#include "queues/records/tsdb_records.h"

namespace dbcache {

// ---- single values -----------------------------------------------------------------------------

/// What the object itself holds, without inheritance.
[[nodiscard]] std::string own_text(const PropertyChain& chain, uint32_t number);
[[nodiscard]] std::optional<uint32_t> own_number(const PropertyChain& chain, uint32_t number);
[[nodiscard]] std::optional<uint32_t> own_enum(const PropertyChain& chain, uint32_t number);
[[nodiscard]] bool own_flag(const PropertyChain& chain, uint32_t number);
[[nodiscard]] NodeId own_object(const PropertyChain& chain, uint32_t number);
/// In dotted form.
[[nodiscard]] std::string own_oid(const PropertyChain& chain, uint32_t number);
/// `own_oid` of the stored object `id`, and so on; empty when it is gone.
[[nodiscard]] std::string text_of(const PropertyChain& chain, const NodeId& id, uint32_t number);
[[nodiscard]] std::string oid_of(const PropertyChain& chain, const NodeId& id, uint32_t number);

/// The same of the new values of an object of `subtype`.
[[nodiscard]] const work_t* find_work(const NodetypeSchema& schema, const WorkArray& work,
                                      uint32_t number, uint32_t subtype = kAllSubtypes);
[[nodiscard]] bool flag_in(const NodetypeSchema& schema, const WorkArray& work, uint32_t number,
                           uint32_t subtype = kAllSubtypes);
/// The value of an enumeration that determines the subtype. Throws errors::tql with code 10 and
/// "Null given for property " and its name.
[[nodiscard]] uint32_t subtype_enum_in(const NodetypeSchema& schema, const WorkArray& work,
                                       uint32_t number);
[[nodiscard]] NodeId subtype_object_in(const NodetypeSchema& schema, const WorkArray& work,
                                       uint32_t number);
[[noreturn]] void fail_null(uint32_t number);
[[noreturn]] void fail_invalid(uint32_t number);

// ---- labels ------------------------------------------------------------------------------------

[[nodiscard]] bool wants_labels(const tql::pattern_t& pattern);
/// "LABEL (NAME)", or the name alone without a label.
[[nodiscard]] std::string labelled(const std::string& label, const std::string& name);
/// The long label of a check named `name` with this record, made from the names of the groups
/// above it by the innermost group's format. A format with a fault is logged, and the usual one
/// taken.
[[nodiscard]] std::string check_long_label(const PropertyChain& chain, const std::string& name);
/// The names of the groups above and of this one, joined.
[[nodiscard]] std::string group_long_label(const PropertyChain& chain, const std::string& name);

// ---- the base ----------------------------------------------------------------------------------

class CheckSchema : public TableSchema<NodetypeSchema> {
  public:
    using Layout = tsdb::time_series_layout_t;

    /// `counter` is what a check that counts adds one to.
    CheckSchema(const ClassTable& table, uint32_t counter)
        : TableSchema(table), counter_(counter) {}

    void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override;
    void afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                     WorkArray& work) const override;
    [[nodiscard]] uint32_t tsdbGetDataType(const PropertyChain& chain,
                                           uint32_t property) const override;
    /// One while the check is active.
    void getUse(const WorkArray& work, UseMap& use) const override;

  protected:
    struct Labels {
        std::string tree;
        std::string long_label;
    };
    [[nodiscard]] virtual Labels labels(const PropertyChain& chain) const = 0;
    /// How the series of such a check is made; null for a check without one. `type` is the value of
    /// type_property().
    [[nodiscard]] virtual const Layout* layout(uint32_t subtype, uint32_t type) const = 0;
    /// The enumeration that decides on the layout beside the subtype; 0 for none.
    [[nodiscard]] virtual uint32_t type_property() const { return 0; }
    /// The binary form of the unit of a class that stores none; empty for none.
    [[nodiscard]] virtual std::vector<uint8_t> computed_unit(const PropertyChain& /*chain*/) const {
        return {};
    }
    /// Before the series are looked after.
    virtual void before_series(WorkArray& /*work*/, uint32_t /*subtype*/) const {}
    [[nodiscard]] uint32_t counter() const noexcept { return counter_; }

  private:
    [[nodiscard]] const Layout* stored_layout(const PropertyChain& chain) const;

    const uint32_t counter_;
};

}  // namespace dbcache
