// Who and what an object or a change belongs to. Travels in results and notifications.
#pragma once

#include <cstdint>
#include <string_view>

#include "tql/id.h"

namespace tql {

struct origin_t {
    id_t domain_id;
    id_t user_id;
    uint32_t type = 0;

    static constexpr std::string_view record = "origin";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("domain_id", self.domain_id);
        visit("user_id", self.user_id);
        visit("type", self.type);
    }
    friend bool operator==(const origin_t&, const origin_t&) = default;
};

}  // namespace tql
