#include "tqlengine/detail/chain.h"

#include <algorithm>

#include "tqlengine/way_up.h"

namespace tqlengine::detail {

void build_chain(Chain& chain, HandlerRef object) {
    struct TopFirst {
        Chain& chain;
        ~TopFirst() { std::reverse(chain.begin(), chain.end()); }
    } const top_first{chain};
    for (WayUp at(std::move(object)); at; at.up()) chain.push_back({at.ref(), at.id()});
}

}  // namespace tqlengine::detail
