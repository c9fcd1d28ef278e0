// SchemaTable: all classes of stored objects by nodetype. Filled by explicit calls at start
// (schema/declare_all.h), then sealed and handed down as const&. A test builds one of its own with
// the few classes it needs.
#pragma once

#include <array>
#include <memory>
#include <set>
#include <string>

#include "dbcache/nodetype_schema.h"
#include "error/exception.h"
#include "tql/names.h"

namespace dbcache {

/// A stored object is of a nodetype that has no schema.
class ENoSchema : public error::Exception {
  public:
    explicit ENoSchema(uint32_t nodetype);
    [[nodiscard]] uint32_t nodetype() const noexcept { return nodetype_; }

  private:
    uint32_t nodetype_;
};

class SchemaTable {
  public:
    SchemaTable();
    ~SchemaTable();
    SchemaTable(const SchemaTable&) = delete;
    SchemaTable& operator=(const SchemaTable&) = delete;

    /// Takes the class over. A class without primary key that isn't a singleton, a nodetype out of
    /// range or taken, is a fatal assertion. Gives the class for further calls. The order of
    /// classes has no effect.
    NodetypeSchema& registerSchema(std::unique_ptr<NodetypeSchema> schema);

    /// To be called once, after the last class: properties of classes without `inherits` get the
    /// flag that forbids inheritance; every inheritable property must exist in the classes that
    /// `inherits` may point to, otherwise error::EFatal; and children whose nodetype has no schema,
    /// which nobody could create or load, are taken out.
    void seal();

    /// Null for a nodetype without schema, any number is legal. An array access.
    [[nodiscard]] const NodetypeSchema* find(uint32_t nodetype) const noexcept {
        return nodetype < schemas_.size() ? schemas_[nodetype].get() : nullptr;
    }
    /// Throws ENoSchema.
    [[nodiscard]] const NodetypeSchema& get(uint32_t nodetype) const;

    /// Numbers of the classes that have a parentId property, so that their objects can be moved.
    [[nodiscard]] const std::set<uint32_t>& reparentable_classes() const noexcept {
        return reparentable_classes_;
    }

  private:
    void check_inheritable(const NodetypeSchema& schema, uint32_t other_class) const;

    std::array<std::unique_ptr<NodetypeSchema>, nodetype::kCount> schemas_;
    std::set<uint32_t> reparentable_classes_;
};

}  // namespace dbcache
