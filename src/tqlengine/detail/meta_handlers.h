// The handlers of the meta classes. All but those of special values are made once and live as long
// as the tree: giving back their last reference does nothing.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tql/enumerations.h"
#include "tqlengine/computed_handler.h"
#include "tqlengine/layout_file.h"

namespace tqlengine::detail {

/// An object below a singleton, kept under its class and its place among its fellows.
class MetaHandler : public TqlComputedObjectHandler {
  public:
    [[nodiscard]] tql::internal_id_t tqlInternalId() const final {
        return tql::internal_id_t::by_place(class_number(), place_);
    }
    void tqlChildrenHandlers(HandlerList&, const tql::pattern_t&) override {}
    /// Nobody ever goes up from here: a fatal assertion.
    HandlerRef tqlParentHandler() final;

  protected:
    MetaHandler(uint32_t class_number, uint32_t place)
        : TqlComputedObjectHandler(class_number), place_(place) {}
    void tqlRelease() noexcept override {}
    [[nodiscard]] uint32_t place() const noexcept { return place_; }

  private:
    uint32_t place_;
};

template <class Handler>
using Handlers = std::vector<std::unique_ptr<Handler>>;

class EnumerationValueHandler final : public MetaHandler {
  public:
    EnumerationValueHandler(uint32_t place, const tql::enumeration_value_t& value);
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

  private:
    const tql::enumeration_value_t& value_;
};

class EnumerationHandler final : public MetaHandler {
  public:
    explicit EnumerationHandler(const tql::enumeration_t& enumeration);
    void tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) override;
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

  private:
    const tql::enumeration_t& enumeration_;
    Handlers<EnumerationValueHandler> values_;
};

/// Made anew for each listing of its property, and gone with its last reference.
class PropertySpecialValueHandler final : public MetaHandler {
  public:
    PropertySpecialValueHandler(uint32_t place, const SpecialValue& special);
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

  protected:
    void tqlRelease() noexcept override { TqlObjectHandler::tqlRelease(); }

  private:
    const SpecialValue& special_;
};

class PropertyLayoutHandler final : public MetaHandler {
  public:
    PropertyLayoutHandler(uint32_t place, const PropertyLayout& layout);
    void tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) override;
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

  private:
    PropertyLayout layout_;
};

class GroupLayoutHandler final : public MetaHandler {
  public:
    GroupLayoutHandler(uint32_t place, const GroupLayout& layout);
    void tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) override;
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

  private:
    std::string label_;
    uint32_t required_experience_;
    Handlers<PropertyLayoutHandler> properties_;
};

class TemplateLayoutHandler final : public MetaHandler {
  public:
    TemplateLayoutHandler(uint32_t place, const TemplateLayout& layout);
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

  private:
    TemplateLayout layout_;
};

class ClassLayoutHandler final : public MetaHandler {
  public:
    ClassLayoutHandler(uint32_t place, const ClassLayout& layout);
    void tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) override;
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

  private:
    std::string name_;
    std::string label_;
    std::string on_delete_;
    std::string on_create_;
    Handlers<GroupLayoutHandler> groups_;
    Handlers<TemplateLayoutHandler> templates_;
};

class MetaInfoHandler final : public TqlSingletonHandler {
  public:
    explicit MetaInfoHandler(const Layouts& layouts);
    void tqlChildrenHandlers(HandlerList& out, const tql::pattern_t& pattern) override;
    void tqlEncode(const tql::pattern_t&, tql::property_map_t&) override {}

  private:
    std::map<uint32_t, std::unique_ptr<EnumerationHandler>> enumerations_;
    Handlers<ClassLayoutHandler> layouts_;
};

class ClusterInfoHandler final : public TqlSingletonHandler {
  public:
    explicit ClusterInfoHandler(std::string report_generator);
    void tqlChildrenHandlers(HandlerList&, const tql::pattern_t&) override {}
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) override;

  private:
    std::string report_generator_;
};

}  // namespace tqlengine::detail
