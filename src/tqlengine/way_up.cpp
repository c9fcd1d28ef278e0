#include "tqlengine/way_up.h"

#include "tql/errors.h"

namespace tqlengine {

void fail_own_ancestor(const tql::id_t& id) {
    throw errors::tql(errors::ERR_BACKEND,
                      fmt::format("Object {} is its own ancestor", id.to_string()));
}

}  // namespace tqlengine
