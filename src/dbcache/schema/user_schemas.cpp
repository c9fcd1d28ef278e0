#include "dbcache/schema/user_schemas.h"

#include <algorithm>
#include <fmt/format.h>

#include "dbcache/class_table.h"
#include "dbcache/schema/public_edit.h"
#include "dbcache/schema/subtype_by_value.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "mdb/property_types.h"
#include "tql/names.h"
#include "tql/property_map.h"

namespace dbcache {

namespace {

const logging::Logger logger{"view_schema"};

constexpr uint32_t kNodeClasses[] = {cls::NodeClass};
constexpr uint32_t kViewable[] = {cls::Domain, cls::Node, cls::Check, cls::CheckAccumulation,
                                  cls::View};
// Entries that show a list, and entries that show a graph.
constexpr uint32_t kLists[] = {0};
constexpr uint32_t kGraphs[] = {1};
constexpr uint32_t kPlaced[] = {0};

// clang-format off
constexpr PropertyRow kUserRows[] = {
    {.number = prop::name, .kind = kind_t::icase_string, .flags = K},
    {.number = prop::realName, .kind = kind_t::string},
    {.number = prop::password, .kind = kind_t::password},
    {.number = prop::capSetCap, .kind = kind_t::boolean},
    {.number = prop::capUsers, .kind = kind_t::boolean},
    {.number = prop::capDomains, .kind = kind_t::boolean},
    {.number = prop::capNodes, .kind = kind_t::boolean},
    {.number = prop::capChecks, .kind = kind_t::boolean},
    {.number = prop::capGroups, .kind = kind_t::boolean, .initial = true},
    {.number = prop::capRead, .kind = kind_t::boolean, .initial = true},
    {.number = prop::capSelf, .kind = kind_t::boolean, .initial = true},
    {.number = prop::capReports, .kind = kind_t::boolean},
    {.number = prop::capAction, .kind = kind_t::boolean},
    {.number = prop::capAck, .kind = kind_t::boolean},
    {.number = prop::capGridConf, .kind = kind_t::boolean},
    {.number = prop::capClusterConf, .kind = kind_t::boolean},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
};

constexpr ChildRow kUserChildren[] = {
    {cls::AlertPath, nodetype::AlertPath},
    {cls::UserProfile, nodetype::UserProfile},
};

constexpr PropertyRow kUserProfileRows[] = {
    {.number = prop::useJava, .kind = kind_t::boolean},
    {.number = prop::disableBreadCrumbs, .kind = kind_t::boolean},
    {.number = prop::graphShowMinMax, .kind = kind_t::boolean},
    {.number = prop::graphShowNoResponse, .kind = kind_t::boolean},
    {.number = prop::graphAutoScale, .kind = kind_t::boolean},
    {.number = prop::graphTabularUptime, .kind = kind_t::boolean},
    {.number = prop::graphTabularEnum, .kind = kind_t::boolean},
    {.number = prop::refreshInterval, .kind = kind_t::i32},
    {.number = prop::showRefreshCounter, .kind = kind_t::boolean, .initial = true},
    {.number = prop::timeZone, .kind = kind_t::i32, .flags = N},
    {.number = prop::maxExpandedNodesPerDomain, .kind = kind_t::i32},
    {.number = prop::maxExpandedChecksPerNode, .kind = kind_t::i32},
};

constexpr PropertyRow kViewRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::owner, .kind = kind_t::object},
    {.number = prop::public_, .kind = kind_t::boolean},
    {.number = prop::publicEdit, .kind = kind_t::boolean},
    {.number = prop::noOfCols, .kind = kind_t::u32},
    {.number = prop::defaultAsAlertList, .kind = kind_t::boolean},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
};

constexpr ChildRow kViewChildren[] = {{cls::ViewEntry, nodetype::ViewEntry}};

constexpr PropertyRow kViewEntryRows[] = {
    {.number = prop::position, .kind = kind_t::i32, .flags = N | K},
    {.number = prop::entry, .kind = kind_t::object, .classes = kViewable, .determines_subtype = true},
    {.number = prop::label, .kind = kind_t::string},
    {.number = prop::nodeClasses, .kind = kind_t::object_set, .flags = N, .classes = kNodeClasses},
    {.number = prop::showGraph, .kind = kind_t::boolean, .initial = true, .subtypes = kGraphs},
    {.number = prop::showXAxis, .kind = kind_t::boolean, .initial = true, .subtypes = kGraphs},
    {.number = prop::showYAxis, .kind = kind_t::boolean, .initial = true, .subtypes = kGraphs},
    {.number = prop::showTopDetails, .kind = kind_t::boolean, .subtypes = kGraphs},
    {.number = prop::condensed, .kind = kind_t::boolean, .subtypes = kLists},
};

constexpr PropertyRow kNodeViewRows[] = {
    {.number = prop::name, .kind = kind_t::icase_string, .flags = K},
    {.number = prop::checks, .kind = kind_t::object_set},
};

constexpr PropertyRow kQuickLinkRows[] = {
    {.number = prop::url, .kind = kind_t::string},
    {.number = prop::name, .kind = kind_t::icase_string, .flags = K},
    {.number = prop::visibleInSubdomains, .kind = kind_t::boolean, .initial = true},
    {.number = prop::openInNewWindow, .kind = kind_t::boolean, .initial = true},
};

constexpr PropertyRow kGraphicalViewRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::largeImage, .kind = kind_t::large_png},
    {.number = prop::owner, .kind = kind_t::object, .flags = N},
    {.number = prop::public_, .kind = kind_t::boolean},
    {.number = prop::publicEdit, .kind = kind_t::boolean},
    {.number = prop::tsdbIncident, .kind = kind_t::series, .flags = X | R},
    {.number = prop::showPopupOnAlert, .kind = kind_t::boolean, .initial = true},
    {.number = prop::showPopupOnWarning, .kind = kind_t::boolean, .initial = true},
    {.number = prop::showPopupOnUnknown, .kind = kind_t::boolean},
    {.number = prop::showPopupOnDowntime, .kind = kind_t::boolean},
    {.number = prop::showPopupOnOK, .kind = kind_t::boolean},
};

constexpr ChildRow kGraphicalViewChildren[] = {{cls::GraphicalViewNode, nodetype::GraphicalViewNode}};

constexpr PropertyRow kGraphicalViewNodeRows[] = {
    {.number = prop::entry, .kind = kind_t::object, .flags = K, .classes = kViewable, .subtypes = kPlaced},
    {.number = prop::nodeClasses, .kind = kind_t::object_set, .flags = N},
    {.number = prop::label, .kind = kind_t::string},
    {.number = prop::showLabel, .kind = kind_t::boolean, .initial = true},
    {.number = prop::xCoordinate, .kind = kind_t::u32, .initial = 0},
    {.number = prop::yCoordinate, .kind = kind_t::u32, .initial = 0},
};
// clang-format on

}  // namespace

class UserSchema : public TableSchema<NodetypeSchema> {
  public:
    UserSchema()
        : TableSchema({.nodetype = nodetype::User,
                       .tql_class = cls::User,
                       .origin_type = 5,
                       .properties = kUserRows,
                       .children = kUserChildren,
                       .sibling_name = prop::name}) {}
};

class UserProfileSchema : public TableSchema<SingletonSchema> {
  public:
    UserProfileSchema()
        : TableSchema({.nodetype = nodetype::UserProfile,
                       .tql_class = cls::UserProfile,
                       .origin_type = 5,
                       .properties = kUserProfileRows}) {}
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& /*chain*/) const override {
        return "profile";
    }
    void encodeSpecials(const SchemaObject& /*object*/, const PropertyChain& /*chain*/,
                        const tql::pattern_t& pattern, tql::property_map_t& out) const override {
        add_labels(pattern, out, "profile", "Profile", "Profile");
    }
};

class ViewSchema : public PublicEdit<> {
  public:
    ViewSchema()
        : PublicEdit(
              "Only public viewable views, can be public editable. Enable Public viewable "
              "if you wish for this view to be public editable.",
              ClassTable{.nodetype = nodetype::View,
                         .tql_class = cls::View,
                         .properties = kViewRows,
                         .children = kViewChildren,
                         .sibling_name = prop::name}) {}
};

/// One entry of a view: a list, or a graph of what is measured.
class ViewEntrySchema : public TableSchema<NodetypeSchema> {
  public:
    ViewEntrySchema()
        : TableSchema({.nodetype = nodetype::ViewEntry,
                       .tql_class = cls::ViewEntry,
                       .properties = kViewEntryRows}) {}

    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& chain) const override {
        mdb::PropertyInt32 position(prop::position);
        if (chain.read(0, position) != found_t::value) return "viewentry(null)";
        return fmt::format("viewentry{}", position.value);
    }

    [[nodiscard]] uint32_t subtypeFromChain(const PropertyChain& chain) const override {
        mdb::PropertyNodeId entry(prop::entry);
        if (chain.read(0, entry) != found_t::value) return kList;
        uint32_t subtype = kList;
        chain.visit_object(entry.value, [&](const PropertyChain& shown) {
            subtype = subtype_by(shown, entry.value, chain);
        });
        return subtype;
    }
    [[nodiscard]] uint32_t subtype(const SchemaObject& object,
                                   const WorkArray& work) const override {
        const work_t& entry = work[findProperty(prop::entry, kAllSubtypes)];
        if (entry.is_null()) return kList;
        uint32_t subtype = kList;
        object.visit_object(static_cast<const mdb::PropertyNodeId&>(*entry.prop).value,
                            [&](const PropertyChain& shown) {
                                subtype = is_measured(class_of(shown)) ? kGraph : kList;
                            });
        return subtype;
    }

  private:
    static constexpr uint32_t kList = 0;
    static constexpr uint32_t kGraph = 1;

    [[nodiscard]] static uint32_t class_of(const PropertyChain& object) {
        StoredEnum type(prop::nodeType);
        if (object.read(0, type) != found_t::value) return cls::Any;
        return tql::find_nodetype_class(static_cast<uint32_t>(type.value)).value_or(cls::Any);
    }
    [[nodiscard]] static bool is_measured(uint32_t class_number) {
        return class_number == cls::Check || class_number == cls::CheckAccumulation;
    }
    [[nodiscard]] static uint32_t subtype_by(const PropertyChain& shown, const NodeId& id,
                                             const PropertyChain& entry) {
        const uint32_t shown_class = class_of(shown);
        if (std::ranges::find(kViewable, shown_class) == std::end(kViewable)) {
            mdb::PropertyNodeId own(prop::id);
            static_cast<void>(entry.read(0, own));
            logger.error("Error: unexpected class {}:{} refered from ViewEntry:{}",
                         tql::class_name(shown_class), id.to_string(), own.value.to_string());
        }
        return is_measured(shown_class) ? kGraph : kList;
    }
};

class NodeViewSchema : public TableSchema<NodetypeSchema> {
  public:
    NodeViewSchema()
        : TableSchema({.nodetype = nodetype::NodeView,
                       .tql_class = cls::NodeView,
                       .origin_type = 17,
                       .properties = kNodeViewRows,
                       .sibling_name = prop::name}) {}
};

class QuickLinkSchema : public TableSchema<NodetypeSchema> {
  public:
    QuickLinkSchema()
        : TableSchema({.nodetype = nodetype::QuickLink,
                       .tql_class = cls::QuickLink,
                       .origin_type = 24,
                       .properties = kQuickLinkRows,
                       .sibling_name = prop::name}) {}
};

class GraphicalViewSchema : public PublicEdit<> {
  public:
    GraphicalViewSchema()
        : PublicEdit(
              "Only public viewable graphical views, can be public editable. Enable Public "
              "viewable if you wish for this graphical  view to be public editable.",
              ClassTable{.nodetype = nodetype::GraphicalView,
                         .tql_class = cls::GraphicalView,
                         .properties = kGraphicalViewRows,
                         .children = kGraphicalViewChildren,
                         .sibling_name = prop::name}) {}
};

class GraphicalViewNodeSchema : public TableSchema<NodetypeSchema> {
  public:
    GraphicalViewNodeSchema()
        : TableSchema({.nodetype = nodetype::GraphicalViewNode,
                       .tql_class = cls::GraphicalViewNode,
                       .properties = kGraphicalViewNodeRows}) {}
};

namespace schema {

void declare_users(SchemaTable& table) {
    table.registerSchema(std::make_unique<UserSchema>());
    table.registerSchema(std::make_unique<UserProfileSchema>());
    table.registerSchema(std::make_unique<ViewSchema>());
    table.registerSchema(std::make_unique<ViewEntrySchema>());
    table.registerSchema(std::make_unique<NodeViewSchema>());
    table.registerSchema(std::make_unique<QuickLinkSchema>());
    table.registerSchema(std::make_unique<GraphicalViewSchema>());
    table.registerSchema(std::make_unique<GraphicalViewNodeSchema>());
}

}  // namespace schema

}  // namespace dbcache
