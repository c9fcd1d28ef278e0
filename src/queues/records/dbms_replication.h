// Records of the walks between a master server and its satellites: ids, master ids, traces and
// tombstones.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "queues/records/dbms_common.h"
#include "tql/id.h"

namespace dbms {

struct Get_First_ID_Data {
    static constexpr std::string_view record = "Get_First_ID_Data";
    static constexpr void fields(auto&, auto&&) {}
};

struct Return_ID_Data {
    tql::origin_t origin{};
    std::list<dbms::path_entry_t> id_trace{};
    tql::version_t obj_ver{};

    static constexpr std::string_view record = "Return_ID_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("origin", self.origin);
        visit("id_trace", self.id_trace);
        visit("obj_ver", self.obj_ver);
    }
};

struct Get_Next_ID_Data {
    tql::id_t id{};

    static constexpr std::string_view record = "Get_Next_ID_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("id", self.id); }
};

struct Get_First_MasterID_Data {
    tql::id_t mountpoint_id{};

    static constexpr std::string_view record = "Get_First_MasterID_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("mountpoint_id", self.mountpoint_id);
    }
};

struct Return_MasterID_Data {
    bool skip_this = false;
    tql::id_t id{};
    tql::id_t master_id{};
    tql::version_t obj_ver{};
    tql::version_t master_ver{};
    std::uint32_t master_build = 0;
    std::uint32_t slave_build = 0;
    bool locally_modified = false;

    static constexpr std::string_view record = "Return_MasterID_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("skip_this", self.skip_this);
        visit("id", self.id);
        visit("master_id", self.master_id);
        visit("obj_ver", self.obj_ver);
        visit("master_ver", self.master_ver);
        visit("master_build", self.master_build);
        visit("slave_build", self.slave_build);
        visit("locally_modified", self.locally_modified);
    }
};

struct Get_Next_MasterID_Data {
    tql::id_t mountpoint_id{};
    tql::id_t master_id{};

    static constexpr std::string_view record = "Get_Next_MasterID_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("mountpoint_id", self.mountpoint_id);
        visit("master_id", self.master_id);
    }
};

struct Get_Trace_Data {
    tql::id_t id{};

    static constexpr std::string_view record = "Get_Trace_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("id", self.id); }
};

struct Return_Trace_Data {
    tql::origin_t origin{};
    std::list<dbms::path_entry_t> id_trace{};
    tql::version_t obj_ver{};

    static constexpr std::string_view record = "Return_Trace_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("origin", self.origin);
        visit("id_trace", self.id_trace);
        visit("obj_ver", self.obj_ver);
    }
};

struct Get_Deleted_Data {
    tql::id_t id{};
    tql::id_t mountpoint{};

    static constexpr std::string_view record = "Get_Deleted_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("mountpoint", self.mountpoint);
    }
};

struct Get_Deleted_MasterId_Data {
    tql::id_t master_id{};
    tql::id_t mountpoint{};

    static constexpr std::string_view record = "Get_Deleted_MasterId_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("master_id", self.master_id);
        visit("mountpoint", self.mountpoint);
    }
};

struct Return_Deleted_Data {
    tql::id_t id{};
    tql::version_t version{};
    tql::id_t master_id{};
    tql::version_t master_version{};

    static constexpr std::string_view record = "Return_Deleted_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("version", self.version);
        visit("master_id", self.master_id);
        visit("master_version", self.master_version);
    }
};

struct Retire_Deleted_Data {
    tql::id_t id{};
    tql::version_t version{};

    static constexpr std::string_view record = "Retire_Deleted_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("version", self.version);
    }
};

}  // namespace dbms
