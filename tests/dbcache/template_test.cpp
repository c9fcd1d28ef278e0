// Templates: where they are listed, what a query sees of them, and what they refuse.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dbcache/class_table.h"
#include "dbcache/inheritance.h"
#include "dbcache/property_kinds.h"
#include "dbcache/schema_table.h"
#include "dbcache/template_handler.h"
#include "dbcache/tql_template_handler.h"
#include "support/answers.h"
#include "support/test_store.h"
#include "tql/property_map.h"
#include "tql/query_text.h"
#include "tqlengine/requests.h"

using namespace dbcache_test;
using namespace dbcache;

namespace {

// Domains with views below them and checks in a group. A view suggests entries, of which only the
// second form has a position.
// clang-format off
constexpr uint32_t kAdviceOnly[] = {1};
constexpr PropertyRow kDomainRows[] = {{.number = prop::name, .kind = kind_t::string, .flags = K}};
constexpr PropertyRow kViewRows[] = {
    {.number = prop::name, .kind = kind_t::string, .flags = K},
    {.number = prop::type, .kind = kind_t::u32, .flags = C, .initial = 0, .determines_subtype = true},
    {.number = prop::label, .kind = kind_t::string, .flags = N},
    {.number = prop::comment, .kind = kind_t::string, .initial = "advice", .subtypes = kAdviceOnly},
    {.number = prop::order, .kind = kind_t::u32},
};
constexpr PropertyRow kEntryRows[] = {{.number = prop::name, .kind = kind_t::string, .flags = K}};
constexpr ChildRow kDomainChildren[] = {{cls::Domain, nodetype::Domain}, {cls::View, nodetype::View}};
constexpr ChildRow kViewChildren[] = {{cls::ViewEntry, nodetype::ViewEntry}, {cls::View, nodetype::View}};
constexpr ChildRow kChecks[] = {{cls::Check, nodetype::NetCheck}};
constexpr GroupRow kGroups[] = {{0, cls::CheckGroup, kChecks, "checks", "Checks", "Checks on "}};
// clang-format on

using Listing = std::vector<TemplateValues>;

/// A schema whose templates are what a test says.
class SuggestedSchema : public TableSchema<NodetypeSchema> {
  public:
    SuggestedSchema(const ClassTable& table, const Listing& templates)
        : TableSchema(table), templates_(templates) {}
    void listTemplates(const SchemaObject&, Listing& out) const override { out = templates_; }
    uint32_t subtypeFromWork(const WorkArray& work) const override {
        const auto type = subtypeProperty(prop::type);
        if (!type) return 0;
        return static_cast<const mdb::PropertyUint32&>(*work[*type].prop).value;
    }
    void encodeTemplateSpecials(const SchemaObject* parent, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override {
        add_labels(pattern, out, std::to_string(values.size()),
                   parent ? "under " + parent->node_id().to_string() : "under a template", "");
    }

  private:
    const Listing& templates_;
};

/// Entries are suggested for suggested views alone, under the view's name.
class EntrySchema : public TableSchema<NodetypeSchema> {
  public:
    EntrySchema()
        : TableSchema({.nodetype = nodetype::ViewEntry,
                       .tql_class = cls::ViewEntry,
                       .properties = kEntryRows}) {}
    void listChildTemplates(const TemplateValues& parent, Listing& out) const override {
        for (const tql::value_t& value : parent)
            if (value->property == prop::label) {
                out.emplace_back();
                out.back().push_back(text(prop::name, "of " + tql::as_string(*value)));
            }
    }
};

/// A ready-made template, and a class that offers two of it beside its children.
class ReadyTemplate final : public TqlTemplateHandler {
  public:
    ReadyTemplate(tqlengine::TqlObjectHandler& place, uint32_t ordinal, std::string name)
        : TqlTemplateHandler(place, ordinal), name_(std::move(name)) {}
    using TqlTemplateHandler::tqlAddRef;
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override {
        if (pattern.wants(prop::name)) tql::add<tql::property_string_t>(out, prop::name, name_);
    }

  private:
    std::string name_;
};

class OfferingSchema : public TableSchema<NodetypeSchema> {
  public:
    using TableSchema::TableSchema;
    bool childrenHook(ObjectHandler& handler, const tql::pattern_t& pattern,
                      tqlengine::HandlerList& out) const override {
        if ((pattern.flags & tql::kPatternTemplates) == 0) return false;
        out.push_back(make_template<ReadyTemplate>(handler, 0U, "process"));
        out.push_back(make_template<ReadyTemplate>(handler, 1U, "log"));
        return true;
    }
};

class TemplateTest : public ::testing::Test {
  protected:
    // Whatever a test before this one has left.
    TemplateTest() { logging::set_all_levels(logging::level_t::info); }
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    static TemplateValues values(std::initializer_list<tql::value_t> list) { return {list}; }

    /// The trees that match, one line for each object: class, flag, id, values by name, children.
    std::string select(const std::string& pattern, const NodeId& root = kRootId) {
        dbms::Tql_Select_Data request;
        request.root_ids = {tql::id_t::from_node_id(root)};
        request.pattern = tql::parse_pattern(pattern);
        tqlengine::RequestContext asked = world.context();
        tqlengine::SelectReport report;
        const auto reply = support::received(tqlengine::process_select(request, asked, report));
        if (reply.status != 0) return fmt::format("{} {}", reply.status, reply.details.front().msg);
        std::string all;
        for (const tql::result_t& node : reply.res) all += line_of(node);
        return all;
    }
    static std::string line_of(const tql::result_t& node) {
        std::string line =
            tql::class_name(node.class_) + (node.flags == 2 ? "#" : "") + " " + node.id.to_string();
        for (const auto& [property, value] : node.properties)
            line += fmt::format(" {}={}", tql::property_name(property),
                                value->is_null ? "null" : value->print());
        for (const tql::result_t& child : node.children) line += " (" + line_of(child) + ")";
        return line;
    }
    tqlengine::HandlerRef first_template(const tql::id_t& place, uint32_t class_number) {
        tqlengine::HandlerList list;
        world.engine->get(place)->tqlChildrenHandlers(
            list, tql::pattern_t(class_number, tql::kPatternTemplates));
        return list.at(0);
    }

    Listing view_templates;
    Listing check_templates;
    TestStore world{TestStore::Sizes{}, [this](SchemaTable& table) {
                        table.registerSchema(std::make_unique<TableSchema<NodetypeSchema>>(
                            ClassTable{.nodetype = nodetype::Domain,
                                       .tql_class = cls::Domain,
                                       .properties = kDomainRows,
                                       .children = kDomainChildren,
                                       .groups = kGroups}));
                        table.registerSchema(
                            std::make_unique<SuggestedSchema>(ClassTable{.nodetype = nodetype::View,
                                                                         .tql_class = cls::View,
                                                                         .origin_type = 12,
                                                                         .properties = kViewRows,
                                                                         .children = kViewChildren},
                                                              view_templates));
                        table.registerSchema(std::make_unique<EntrySchema>());
                        table.registerSchema(std::make_unique<SuggestedSchema>(
                            ClassTable{.nodetype = nodetype::NetCheck,
                                       .tql_class = cls::Check,
                                       .properties = kEntryRows},
                            check_templates));
                        table.seal();
                    }};
};

tql::value_t label(const std::string& value) {
    return text(prop::label, value);
}

}  // namespace

TEST_F(TemplateTest, AreListedInOrderUnderTheFlagAlone) {
    view_templates = {values({label("one"), number(prop::order, 1)}),
                      values({label("two"), number(prop::order, 2)})};
    world.create(kRootId, cls::View, {text(prop::name, "real"), number(prop::order, 3)});
    EXPECT_EQ(select("Domain > View#[label]"),
              "Domain 0.1 (View# 0.1 label=\"one\") (View# 0.1 label=\"two\")");
    EXPECT_EQ(select("Domain > View[name]"),
              "Domain 0.1 (View " + world.children(kRootId)[1] + " name=\"real\")");
    EXPECT_EQ(select("Domain > View#[label]{order = 2}"), "Domain 0.1 (View# 0.1 label=\"two\")");
    EXPECT_EQ(select("Domain > Check#"), "") << "a class without templates";
    EXPECT_EQ(select("View#!"), "") << "a root is no template";
}

TEST_F(TemplateTest, AreFoundByRecursiveSteps) {
    view_templates = {values({label("L"), number(prop::order, 1)})};
    const NodeId below = world.domain(kRootId, "below");
    EXPECT_EQ(select("Domain* > View#[label]"),
              fmt::format("Domain 0.1 (View# 0.1 label=\"L\") (Domain {} (View# {} label=\"L\"))",
                          below, below));
    // A suggestion has suggestions below it; those have no place and so no id.
    EXPECT_EQ(select("Domain > View# > ViewEntry#[name,treeLabel]"),
              "Domain 0.1 (View# 0.1 (ViewEntry#  name=\"of L\"))");
    EXPECT_EQ(select("Domain > .*#[name,label]"),
              "Domain 0.1 (View# 0.1 name=\"\" label=\"L\" (ViewEntry#  name=\"of L\"))");
    EXPECT_EQ(select("Domain > View > ViewEntry#"), "");
}

TEST_F(TemplateTest, StandInGroupsAndUnderTheObjectOfTheGroup) {
    check_templates = {values({text(prop::name, "ping")})};
    EXPECT_EQ(select("Domain > CheckGroup > Check#[name,treeLabel]"),
              "Domain 0.1 (CheckGroup 0.1.0 (Check# 0.1.0 name=\"ping\" treeLabel=\"under 0.1\"))");
    EXPECT_EQ(select("Domain > Check#[name]"), "Domain 0.1 (Check# 0.1 name=\"ping\")");
}

TEST_F(TemplateTest, HaveTheIdentityOfTheirPlace) {
    view_templates = {values({label("one")}), values({label("two")})};
    check_templates = {values({})};
    tqlengine::HandlerList list;
    world.get(kRootId)->tqlChildrenHandlers(list,
                                            tql::pattern_t(cls::View, tql::kPatternTemplates));
    ASSERT_EQ(list.size(), 2U);
    // As long as a template is there, so is what it stands under.
    EXPECT_EQ(world.store->referenced_handlers(), 1U);
    const tqlengine::HandlerRef second = list[1];
    list.clear();
    EXPECT_EQ(second->tqlFlags(), 2U);
    EXPECT_EQ(second->tqlInternalId(), tql::internal_id_t::by_place(cls::View, 1));
    EXPECT_EQ(second->tqlVersion(), tql::version_t());
    EXPECT_EQ(second->tqlParentHandler(), world.get(kRootId));
    const tql::origin_t of_parent = world.get(kRootId)->tqlOrigin();
    EXPECT_EQ(second->tqlOrigin(), (tql::origin_t{of_parent.domain_id, of_parent.user_id, 12}));
    const tqlengine::HandlerRef check = first_template({0, 1, 0}, cls::Check);
    EXPECT_EQ(check->tqlOrigin().type, 33U) << "a class with its parent's origin";
    EXPECT_EQ(check->tqlParentHandler()->tqlId(), (tql::id_t{0, 1, 0}));
    EXPECT_EQ(check->tqlId(), (tql::id_t{0, 1, 0}));
}

TEST_F(TemplateTest, RefuseWrites) {
    view_templates = {values({})};
    const tqlengine::HandlerRef view = first_template({0, 1}, cls::View);
    tqlengine::RequestContext request = world.context();
    const Values none;
    const tqlengine::WriteArguments arguments{{}, request.new_version, none, 0, request};
    EXPECT_EQ(failure([&] {
                  view->tqlCreate({3, 3}, cls::ViewEntry, arguments);
              }),
              "15 Cannot create children of templates");
    EXPECT_EQ(failure([&] { view->tqlUpdate(arguments); }), "15 Cannot update templates");
    EXPECT_EQ(failure([&] {
                  view->tqlDelete({{}, request.new_version, false, request});
              }),
              "15 Cannot delete templates");
}

TEST_F(TemplateTest, ThePresetSubtypeDecidesWhatIsEncoded) {
    // `comment` belongs to one subtype alone, and stands before what determines it.
    view_templates = {
        values({text(prop::comment, "mine"), number(prop::order, 7), number(prop::type, 1)}),
        values({number(prop::type, 1), number(prop::order, 7)}), values({number(prop::order, 7)})};
    EXPECT_EQ(select("Domain > View#[name,comment,order,siblingName]"),
              "Domain 0.1"
              " (View# 0.1 name=\"\" siblingName=\"3\" comment=\"mine\" order=7)"
              " (View# 0.1 name=\"\" siblingName=\"2\" comment=\"advice\" order=7)"
              " (View# 0.1 name=\"\" siblingName=\"1\" order=7)");
}

TEST_F(TemplateTest, FailuresTellTheTemplate) {
    view_templates = {values({text(prop::comment, "of another subtype")})};
    EXPECT_EQ(select("Domain > View#[name]"),
              "14 Error computing properties for template View to 0.1: Unknown property "
              "\"comment\"");
    view_templates = {values({text(prop::type, "1")})};
    EXPECT_EQ(select("Domain > View#[name]"),
              "14 Error computing properties for template View to 0.1: Type mismatch for property "
              "type");
    // A value that must be there and isn't is told to the log and shown as zero.
    view_templates = {values({})};
    world.log.clear();
    EXPECT_EQ(select("Domain > View#[label,order]"), "Domain 0.1 (View# 0.1 label=null order=0)");
    EXPECT_THAT(world.log,
                testing::ElementsAre(
                    "[dbcache] [warning] Warning: Unable to load non-null property order for "
                    "template - will return default value"));
}

TEST_F(TemplateTest, AnEmptyChainHasNoLevels) {
    const InheritanceChain chain(*world.store);
    EXPECT_FALSE(chain.hasParent());
    mdb::PropertyUint32 order(prop::order);
    EXPECT_DEATH(chain.read(0, order), "Handles list empty");
}

namespace {

/// Refuses to be shown.
class FailingSchema : public PropertyUI32Schema {
  public:
    using PropertyUI32Schema::PropertyUI32Schema;
    std::unique_ptr<tql::property_t> to_tql(const work_t&, const PropertyChain&) const override {
        throw mdb::error_need_repair("torn");
    }
};

}  // namespace

TEST(TemplateEncoding, AFailingValueAndAMissingSchema) {
    logging::set_all_levels(logging::level_t::info);
    const Listing templates{{number(prop::order, 1)}};
    TestStore world(TestStore::Sizes{}, [&](SchemaTable& table) {
        // Not sealed, so that a child without schema stays.
        table.registerSchema(
            std::make_unique<TableSchema<NodetypeSchema>>(ClassTable{.nodetype = nodetype::Domain,
                                                                     .tql_class = cls::Domain,
                                                                     .properties = kDomainRows,
                                                                     .children = kDomainChildren}));
        auto view = std::make_unique<SuggestedSchema>(ClassTable{.nodetype = nodetype::View,
                                                                 .tql_class = cls::View,
                                                                 .properties = kEntryRows,
                                                                 .children = kViewChildren},
                                                      templates);
        view->addPropertySchema(std::make_shared<FailingSchema>(prop::order, 0));
        table.registerSchema(std::move(view));
    });
    tqlengine::HandlerList list;
    world.get(kRootId)->tqlChildrenHandlers(list,
                                            tql::pattern_t(cls::View, tql::kPatternTemplates));
    ASSERT_EQ(list.size(), 1U);
    tql::pattern_t order(cls::Any);
    order.wanted_properties = {prop::order};
    tql::property_map_t out;
    EXPECT_EQ(failure([&] { list[0]->tqlEncode(order, out); }),
              "14 Error encode properties for template View to 0.1: torn");
    world.log.clear();
    tqlengine::HandlerList below;
    list[0]->tqlChildrenHandlers(below, tql::pattern_t(cls::ViewEntry, tql::kPatternTemplates));
    EXPECT_TRUE(below.empty());
    EXPECT_THAT(world.log,
                testing::ElementsAre(fmt::format("[dbcache] [warning] No schema for nodetype: {}",
                                                 static_cast<uint32_t>(nodetype::ViewEntry))));
}

TEST(ReadyTemplates, AreOfferedByTheHookOfAClass) {
    TestStore world(TestStore::Sizes{}, [&](SchemaTable& table) {
        table.registerSchema(
            std::make_unique<OfferingSchema>(ClassTable{.nodetype = nodetype::Domain,
                                                        .tql_class = cls::Domain,
                                                        .origin_type = 5,
                                                        .properties = kDomainRows}));
        table.seal();
    });
    dbms::Tql_Select_Data request;
    request.root_ids = {{0, 1}};
    request.pattern = tql::parse_pattern("Domain > Check#[name]");
    tqlengine::RequestContext asked = world.context();
    tqlengine::SelectReport report;
    const auto reply = support::received(tqlengine::process_select(request, asked, report));
    ASSERT_EQ(reply.res.size(), 1U);
    const auto& offered = reply.res.front().children;
    ASSERT_EQ(offered.size(), 2U);
    EXPECT_EQ(offered[1].properties.at(prop::name)->print(), "\"log\"");
    EXPECT_EQ(offered[1].id, (tql::id_t{0, 1}));
    EXPECT_EQ(offered[1].version, world.get(kRootId)->tqlVersion());
    EXPECT_EQ(offered[1].flags, 2U);
    EXPECT_EQ(offered[1].origin.type, 3U);
    EXPECT_EQ(world.fault(), "");

    tqlengine::HandlerRef one = make_template<ReadyTemplate>(*world.get(kRootId), 4U, "x");
    EXPECT_EQ(one->tqlInternalId(), tql::internal_id_t::by_place(cls::Check, 4));
    const Values none;
    const tqlengine::WriteArguments arguments{{}, asked.new_version, none, 0, asked};
    EXPECT_EQ(failure([&] {
                  one->tqlCreate({3, 3}, cls::Check, arguments);
              }),
              "15 Cannot create children of templates");
    EXPECT_EQ(failure([&] { one->tqlUpdate(arguments); }), "15 Cannot update templates");
    EXPECT_EQ(failure([&] {
                  one->tqlDelete({{}, asked.new_version, false, asked});
              }),
              "15 Cannot delete templates");
    EXPECT_DEATH(one->tqlParentHandler(), "tqlParentHandler\\(\\) invoked");
    EXPECT_DEATH(static_cast<ReadyTemplate&>(*one).tqlAddRef(),
                 "TqlTemplateHandler::tqlAddRef\\(\\) invoked");
}

TEST(CatalogueTemplates, ANodeIsCreatedByTheValuesOfItsTemplate) {
    TestStore world;
    tqlengine::HandlerList list;
    world.get(kRootId)->tqlChildrenHandlers(list,
                                            tql::pattern_t(cls::Node, tql::kPatternTemplates));
    ASSERT_EQ(list.size(), 1U);
    tql::property_map_t shown;
    list[0]->tqlEncode(tql::pattern_t(cls::Any, tql::kPatternAllProperties), shown);
    list.clear();
    EXPECT_EQ(shown.at(prop::treeLabel)->print(), "\"Add Node\"");
    Values sent;
    for (const auto& [property, value] : shown)
        if ((value->flags & tql::kFlagComputed) == 0 && property != prop::parentId &&
            value->type() != tql::property_type_t::action)
            sent.push_back(property == prop::name ? text(prop::name, "new") : value);
    const NodeId node = world.create(kRootId, cls::Node, sent);
    for (const tql::value_t& value : sent)
        EXPECT_EQ(world.value(node, value->property), value->is_null ? "null" : value->print());
    EXPECT_EQ(world.fault(), "");
}
