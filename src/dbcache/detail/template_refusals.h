// What a write to a template is answered, whatever class of handler stands for it.
#pragma once

#include "tql/errors.h"

namespace dbcache::detail {

[[noreturn]] inline void refuse_template_create() {
    throw errors::tql(errors::ERR_ACCESS_DENIED, "Cannot create children of templates");
}
[[noreturn]] inline void refuse_template_update() {
    throw errors::tql(errors::ERR_ACCESS_DENIED, "Cannot update templates");
}
[[noreturn]] inline void refuse_template_delete() {
    throw errors::tql(errors::ERR_ACCESS_DENIED, "Cannot delete templates");
}

}  // namespace dbcache::detail
