#include "tqlengine/detail/chain.h"

#include <algorithm>

namespace tqlengine::detail {

void build_chain(Chain& chain, HandlerRef object) {
    struct TopFirst {
        Chain& chain;
        ~TopFirst() { std::reverse(chain.begin(), chain.end()); }
    } const top_first{chain};
    while (object) {
        tql::id_t id = object->tqlId();
        chain.push_back({std::move(object), id});
        object = chain.back().object->tqlParentHandler();
    }
}

}  // namespace tqlengine::detail
