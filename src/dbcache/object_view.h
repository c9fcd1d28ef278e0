// ObjectView: what the schema framework gets to see of an object for the length of one operation:
// the handler, who asks, and the tree around it.
#pragma once

#include "dbcache/object_handler.h"
#include "dbcache/schema_object.h"

namespace dbcache {

class ObjectView final : public SchemaObject {
  public:
    /// `handler` must outlive the view. `user` is the one in whose name the request runs.
    explicit ObjectView(ObjectHandler& handler, const NodeId& user = {})
        : handler_(handler), user_(user) {}
    /// For who knows the origin of the object's parent.
    ObjectView(ObjectHandler& handler, const tql::origin_t& parent_origin)
        : handler_(handler), parent_origin_(&parent_origin) {}

    [[nodiscard]] NodeId node_id() const override { return handler_.node_id(); }
    [[nodiscard]] uint32_t schema_class() const override { return handler_.class_number(); }
    [[nodiscard]] bool is_stored() const override { return handler_.is_stored(); }
    [[nodiscard]] NodeId request_user() const override { return user_; }
    [[nodiscard]] std::vector<TreePlace> path_to_root(const NodeId& id) const override;
    bool visit_object(const NodeId& id,
                      const std::function<void(const PropertyChain&)>& visit) const override;
    bool visit_siblings(const NodeId& new_parent, const std::set<uint32_t>& classes,
                        const SiblingVisit& visit) const override;
    /// Asks the store's SiblingKeyIndex where there are many siblings.
    [[nodiscard]] std::optional<NodeId> find_equal_sibling(const NodeId& new_parent,
                                                           const SiblingKey& key) const override;
    [[nodiscard]] uint32_t parent_class(const NodeId& new_parent) const override;
    [[nodiscard]] NodeId translate_inherited(const NodeId& inherits, const NodeId& id,
                                             uint32_t property) const override;
    [[nodiscard]] std::vector<NodeId> translate_inherited_set(const NodeId& inherits,
                                                              const std::vector<NodeId>& ids,
                                                              uint32_t property) const override;
    [[nodiscard]] const platform::Clock& clock() const override;
    [[nodiscard]] std::optional<tql::origin_t> parent_origin() const override;

  private:
    /// The object's parent, or the one that it is about to get.
    [[nodiscard]] ObjectHandlerRef parent(const NodeId& new_parent) const;

    ObjectHandler& handler_;
    NodeId user_{};
    const tql::origin_t* parent_origin_ = nullptr;
};

/// The names of an object and of those above it, from below the root on: "/site/web/[ICMP]". An
/// object without a name among its siblings goes by its id, and one that is gone, or whose way up
/// can't be read, by its id alone. For people; costs a read for each.
[[nodiscard]] std::string object_path(Store& store, const NodeId& id);

}  // namespace dbcache
