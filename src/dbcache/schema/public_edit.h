// PublicEditSchema: base of classes whose objects can be shown to all users and then be opened to
// the changes of all users too.
#pragma once

#include <string>

#include "dbcache/class_table.h"
#include "mdb/property_types.h"
#include "tql/names.h"

namespace dbcache {

/// Refuses `publicEdit` without `public`, with code 10 and `message`.
template <class Base = TableSchema<NodetypeSchema>>
class PublicEdit : public Base {
  public:
    template <class... Args>
    explicit PublicEdit(std::string_view message, Args&&... args)
        : Base(std::forward<Args>(args)...), message_(message) {}

    void validate(const SchemaObject& object, const PropertyChain& chain, WorkArray& work,
                  const NodeId& new_parent) const override {
        Base::validate(object, chain, work, new_parent);
        if (is_true(work, prop::publicEdit) && !is_true(work, prop::public_))
            fail_illegal_value(std::string(message_));
    }

  private:
    [[nodiscard]] bool is_true(const WorkArray& work, uint32_t number) const {
        const work_t& flag = work[this->findProperty(number, kAllSubtypes)];
        return !flag.is_null() && static_cast<const mdb::PropertyBool&>(*flag.prop).value;
    }

    const std::string_view message_;
};

}  // namespace dbcache
