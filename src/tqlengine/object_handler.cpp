#include "tqlengine/object_handler.h"

#include "error/exception.h"
#include "queues/encoded_values.h"
#include "tql/names.h"

namespace tqlengine {

tql::internal_id_t TqlObjectHandler::tqlInternalId() const {
    return tql::internal_id_t::stored(tqlId());
}

tql::origin_t TqlObjectHandler::tqlOriginBelow(const TqlObjectHandler& /*above*/,
                                               const tql::origin_t& /*origin_above*/) {
    return tqlOrigin();
}

HandlerRef TqlObjectHandler::tqlChild(uint32_t) {
    return {};
}

void TqlObjectHandler::encode_result(const tql::pattern_t& pattern, queues::ValueWriter& out) {
    tql::property_map_t values;
    tqlEncode(pattern, values);
    out.add(values);
}

bool TqlObjectHandler::tqlSpecialMatch(uint32_t&, const tql::condition_t&) {
    return false;
}

bool TqlObjectHandler::surely_beside(const TqlObjectHandler&) const {
    return false;
}

std::optional<bool> TqlObjectHandler::holds_at_hand(const tql::condition_t&) const {
    return std::nullopt;
}

void TqlObjectHandler::tqlRevalidate(RevalidationFailures& failures) {
    struct Open {
        TqlObjectHandler* object;  // held by the listing that it stands in
        HandlerList below;
        size_t next = 0;
    };
    std::vector<Open> way;
    const auto enter = [&way](TqlObjectHandler& object) {
        way.push_back({&object, {}});
        object.list_revalidated(way.back().below);
    };
    enter(*this);
    while (!way.empty()) {
        Open& open = way.back();
        if (open.next < open.below.size()) {
            enter(*open.below[open.next++]);
        } else {
            open.object->revalidate_own(failures);
            way.pop_back();
        }
    }
}

void TqlObjectHandler::list_revalidated(HandlerList& out) {
    tqlChildrenHandlers(out, tql::pattern_t(cls::Any));
}

void TqlObjectHandler::revalidate_own(RevalidationFailures&) {}

void TqlObjectHandler::fail_unreferenced() noexcept {
    error::fail_assertion("tqlRelease called on unreferenced TqlObjectHandler");
}

void TqlObjectHandler::tqlRelease() noexcept {
    delete this;
}

}  // namespace tqlengine
