#include "tqlengine/id_resolver.h"

namespace tqlengine {

void TqlIdResolver::discardOrphans(const tql::id_t&) {}

}  // namespace tqlengine
