// Compound fields that several records of the server share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tql/id.h"
#include "tql/origin.h"
#include "tql/version.h"

namespace dbms {

/// One message of a failed request.
struct detail_t {
    std::uint32_t msg_type = 0;
    std::string msg{};

    static constexpr std::string_view record = "detail_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("msg_type", self.msg_type);
        visit("msg", self.msg);
    }
};

/// One object on the way from the root to an object.
struct path_entry_t {
    tql::id_t id{};
    std::uint32_t class_ = 0;

    static constexpr std::string_view record = "path_entry_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("class_", self.class_);
    }
};

}  // namespace dbms
