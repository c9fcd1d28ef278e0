// NodetypeSchema: one class of stored objects: its properties, its children and groups, the rules
// that tie values together, and the hooks by which a class takes part in the life of its objects.
// Built once at start through SchemaTable, read-only afterwards; it holds no state of any object.
//
// A class is written as a ClassTable (class_table.h) and, where a table can't say it, overridden
// hooks. What the hooks get of an object is SchemaObject and PropertyChain (schema_object.h); hooks
// that act on the store get the ObjectHandler.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "dbcache/property_schema.h"
#include "tql/origin.h"
#include "tql/pattern.h"
#include "tql/version.h"
#include "tqlengine/object_handler.h"

namespace dbcache {

class ObjectHandler;
class SchemaTable;

/// Stands for every subtype, and for a subtype that isn't known yet.
inline constexpr uint32_t kAllSubtypes = 0xFFFFFFFF;
/// origin_type of a class whose objects have their parent's origin unchanged.
inline constexpr uint32_t kParentsOrigin = 37;

/// What an object counts for, or a difference of it: by property number of a counter.
using UseMap = std::map<uint32_t, int32_t>;
/// The values that a template presets.
using TemplateValues = std::vector<tql::value_t>;

class NodetypeSchema {
  public:
    struct Entry {
        uint32_t property = 0;
        uint32_t subtype = kAllSubtypes;
        bool determines_subtype = false;
        std::shared_ptr<PropertySchema> schema;

        [[nodiscard]] bool applies_to(uint32_t object_subtype) const noexcept {
            return subtype == kAllSubtypes || subtype == object_subtype;
        }
    };
    struct Group {
        uint32_t tql_class = 0;
        std::map<uint32_t, uint32_t> child_classes;
        std::set<uint32_t> children;
    };
    struct Restriction {
        uint32_t property_1 = 0;
        uint32_t property_2 = 0;
        uint32_t subtype = kAllSubtypes;
        std::function<bool(const work_t&, const work_t&)> holds;
        std::string message;
    };

    /// `nodetype` is the number in the store, `tql_class` the one that clients see.
    NodetypeSchema(uint32_t nodetype, uint32_t tql_class, uint32_t origin_type = kParentsOrigin);
    NodetypeSchema(const NodetypeSchema&) = delete;
    NodetypeSchema& operator=(const NodetypeSchema&) = delete;
    virtual ~NodetypeSchema() = default;

    const uint32_t nodetype;
    const uint32_t tql_class;
    const uint32_t origin_type;

    // ---- declaring a class; breaking a rule is a fatal assertion
    // -------------------------------------------------

    /// The entry goes to its sorted place. The same number and subtype twice is fatal.
    void addPropertySchema(std::shared_ptr<PropertySchema> schema, uint32_t subtype = kAllSubtypes,
                           bool determines_subtype = false);
    /// Replaces the entry for all subtypes by one for each of `first_subtype` to `last_subtype`,
    /// but for `subtype`, whose entry the caller adds. For further subtypes of the same range the
    /// entry of that subtype is taken out.
    void addPropertySchemaSpecialization(uint32_t number, uint32_t subtype, uint32_t first_subtype,
                                         uint32_t last_subtype);
    void addChildClass(uint32_t child_class, uint32_t child_nodetype);
    void addGroup(int32_t group_id, uint32_t group_class);
    void addGroupChild(uint32_t child_class, int32_t group_id, uint32_t child_nodetype);
    /// `holds` gets the values of both properties; they may be null.
    void addRestriction(uint32_t property_1, uint32_t property_2, uint32_t subtype,
                        std::function<bool(const work_t&, const work_t&)> holds,
                        std::string message);
    /// One more class among whose objects the primary key must be unique.
    void addKeyClass(uint32_t other_class) { key_classes_.insert(other_class); }

    // ---- what a class is
    // ---------------------------------------------------------------------------------------

    /// Sorted by number, then subtype; a work array is parallel to it.
    [[nodiscard]] std::span<const Entry> properties() const noexcept { return properties_; }
    /// Index of the entry for exactly this subtype, or for all. Throws errors::tql with code 7,
    /// "Unknown property " and the name in quotes.
    [[nodiscard]] size_t findProperty(uint32_t number, uint32_t subtype) const;
    /// The same; none where findProperty() throws.
    [[nodiscard]] std::optional<size_t> lookupProperty(uint32_t number,
                                                       uint32_t subtype) const noexcept;
    /// Whether objects of the class are made to stand in mark lists.
    [[nodiscard]] bool has_marks() const noexcept;
    /// Index of the entry of `number` that determines the subtype; none if it doesn't.
    [[nodiscard]] std::optional<size_t> subtypeProperty(uint32_t number) const noexcept;

    /// The numbers of the counters, ascending.
    [[nodiscard]] const std::vector<uint32_t>& counter_properties() const noexcept {
        return counter_properties_;
    }
    /// The numbers of the properties that are large objects, in some subtype at least; ascending.
    [[nodiscard]] const std::vector<uint32_t>& large_object_properties() const noexcept {
        return large_object_properties_;
    }
    /// Whether the property is one in objects of this subtype.
    [[nodiscard]] bool is_large_object(uint32_t number, uint32_t subtype) const noexcept;
    /// Class to nodetype of all children, those in groups included.
    [[nodiscard]] const std::map<uint32_t, uint32_t>& child_classes() const noexcept {
        return child_classes_;
    }
    /// Nodetypes of the children that stand directly under an object, and of all.
    [[nodiscard]] const std::set<uint32_t>& direct_children() const noexcept {
        return direct_children_;
    }
    [[nodiscard]] const std::set<uint32_t>& all_children() const noexcept { return all_children_; }
    [[nodiscard]] const std::map<int32_t, Group>& groups() const noexcept { return groups_; }
    /// The group that takes children of this nodetype; none for direct children.
    [[nodiscard]] std::optional<int32_t> group_of_child(uint32_t child_nodetype) const;
    [[nodiscard]] const std::set<uint32_t>& key_classes() const noexcept { return key_classes_; }
    [[nodiscard]] const std::vector<Restriction>& restrictions() const noexcept {
        return restrictions_;
    }
    [[nodiscard]] std::string class_name() const;
    /// Whether at most one object of the class stands under a parent of that class.
    [[nodiscard]] virtual bool is_singleton_under(uint32_t /*parent_class*/) const { return false; }
    /// Whether the class may do without a primary key.
    [[nodiscard]] virtual bool is_singleton() const { return false; }

    // ---- hooks
    // ---------------------------------------------------------------------------------------------------

    /// The name by which the object is found among its siblings; none for a class without. Cheap:
    /// it is asked for at every load of an object.
    [[nodiscard]] virtual std::optional<std::string> siblingName(const PropertyChain& chain) const;
    /// Whether the name, where there is one, is a value of the object's own record and what
    /// encodeSpecials() gives, so that it changes with writes to the object alone.
    [[nodiscard]] virtual bool stores_sibling_name() const { return false; }
    /// Adds the computed properties that `pattern` wants, behind the stored ones. The base adds
    /// siblingName.
    virtual void encodeSpecials(const SchemaObject& object, const PropertyChain& chain,
                                const tql::pattern_t& pattern, tql::property_map_t& out) const;
    /// The same for a group; `chain` is that of the object that has the group.
    virtual void encodeGroupSpecials(const PropertyChain& chain, int32_t group_id,
                                     const tql::pattern_t& pattern, tql::property_map_t& out) const;
    /// The same for a template of this class. `parent` is null under a parent that is a template
    /// itself.
    virtual void encodeTemplateSpecials(const SchemaObject* parent, const TemplateValues& values,
                                        const tql::pattern_t& pattern,
                                        tql::property_map_t& out) const;
    /// First thing when children are listed: may fill `out` and return true, which ends the
    /// listing.
    virtual bool childrenHook(ObjectHandler& handler, const tql::pattern_t& pattern,
                              tqlengine::HandlerList& out) const;
    /// Appends the preset values of each template of this class under `parent`.
    virtual void listTemplates(const SchemaObject& parent, std::vector<TemplateValues>& out) const;
    /// The same under a parent that is a template.
    virtual void listChildTemplates(const TemplateValues& parent,
                                    std::vector<TemplateValues>& out) const;
    /// Last step of validation: primary key, then mutual restrictions. `new_parent` is null unless
    /// the object moves. Throws errors::tql.
    virtual void validate(const SchemaObject& object, const PropertyChain& chain, WorkArray& work,
                          const NodeId& new_parent) const;
    /// In the transaction, with the new values known and not yet written: the stored object is
    /// still that of before. `context` tells who asks and under which version.
    virtual void afterUpdate(ObjectHandler& handler, tqlengine::RequestContext& context,
                             WorkArray& work) const;
    /// In the transaction, with the new version written.
    virtual void afterStore(ObjectHandler& handler) const;
    /// First thing in a delete; may throw errors::tql_dont_delete.
    virtual void beforeDelete(ObjectHandler& handler) const;
    /// Must follow from the object's place in the tree alone: it is kept until a place changes.
    [[nodiscard]] virtual tql::origin_t tqlOrigin(const SchemaObject& object) const;
    /// The kind of data in a series of this object, a series_data_t (time_series.h). The base knows
    /// that tsdbIncident holds incidents and throws errors::db_anomaly for all others.
    [[nodiscard]] virtual uint32_t tsdbGetDataType(const PropertyChain& chain,
                                                   uint32_t property) const;
    /// The subtype of a stored object, and the one that new values make.
    [[nodiscard]] virtual uint32_t subtypeFromChain(const PropertyChain& chain) const;
    [[nodiscard]] virtual uint32_t subtypeFromWork(const WorkArray& work) const;
    /// The latter for an object whose place or references count as well; the base forwards to
    /// subtypeFromWork().
    [[nodiscard]] virtual uint32_t subtype(const SchemaObject& object, const WorkArray& work) const;
    /// What the object counts for by itself; the base empties the map.
    virtual void getUse(const WorkArray& work, UseMap& use) const;
    /// Turns a difference that came from below into the one that goes on upward. Fatal for a class
    /// that gets one and has no accounting.
    virtual void account(const SchemaObject& object, const WorkArray& work, UseMap& use) const;

  protected:
    /// Throws errors::tql_exists when a sibling has the same values in all of `keys`, indices into
    /// properties().
    void check_primary_key(const SchemaObject& object, const WorkArray& work,
                           const std::vector<size_t>& keys, const NodeId& new_parent) const;

  private:
    friend class SchemaTable;

    void check_restrictions(const SchemaObject& object, const WorkArray& work,
                            uint32_t own_subtype) const;
    void check_sorted() const;
    /// Takes out children whose nodetype isn't in `known`.
    void keep_children(const std::function<bool(uint32_t)>& known);

    std::vector<Entry> properties_;
    std::vector<uint32_t> counter_properties_;
    std::vector<uint32_t> large_object_properties_;
    std::map<uint32_t, uint32_t> child_classes_;
    std::set<uint32_t> direct_children_;
    std::set<uint32_t> all_children_;
    std::map<int32_t, Group> groups_;
    std::map<uint32_t, int32_t> group_of_child_;
    std::set<uint32_t> key_classes_;
    std::vector<Restriction> restrictions_;
};

/// A class of which at most one object stands under a parent. It needs no primary key.
class SingletonSchema : public NodetypeSchema {
  public:
    using NodetypeSchema::NodetypeSchema;
    [[nodiscard]] bool is_singleton_under(uint32_t /*parent_class*/) const override { return true; }
    [[nodiscard]] bool is_singleton() const override { return true; }
};

/// The same under a mount point only; elsewhere an ordinary class.
class SingletonIfChildOfMountPointSchema : public SingletonSchema {
  public:
    using SingletonSchema::SingletonSchema;
    [[nodiscard]] bool is_singleton_under(uint32_t parent_class) const override;
    [[nodiscard]] bool is_singleton() const override { return false; }
};

}  // namespace dbcache
