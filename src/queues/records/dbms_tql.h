// Records of the query language: select, create, update, delete and subscriptions, with their
// answers.
//
// A `status` is 0 for success, else one of the query error codes, and `details` then holds the
// messages.
#pragma once

#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "queues/records/dbms_common.h"
#include "tql/id.h"
#include "tql/pattern.h"
#include "tql/property.h"
#include "tql/result.h"

namespace dbms {

struct property_name_t {
    std::uint32_t property = 0;
    std::string name{};

    static constexpr std::string_view record = "property_name_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("property", self.property);
        visit("name", self.name);
    }
};

/// One step of a translation.
struct path_step_t {
    bool inside = false;
    tql::id_t id{};

    static constexpr std::string_view record = "path_step_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("inside", self.inside);
        visit("id", self.id);
    }
};

/// In order of class number.
struct Return_Tql_Class_Names_Data {
    std::list<std::string> names{};

    static constexpr std::string_view record = "Return_Tql_Class_Names_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("names", self.names); }
};

struct Return_Tql_Property_Names_Data {
    std::list<property_name_t> names{};

    static constexpr std::string_view record = "Return_Tql_Property_Names_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("names", self.names); }
};

/// `min_eval_interval` in seconds.
struct Tql_Select_Data {
    std::list<tql::id_t> root_ids{};
    tql::pattern_t pattern{};
    std::uint32_t flags = 0;
    std::uint64_t min_eval_interval = 0;

    static constexpr std::string_view record = "Tql_Select_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("root_ids", self.root_ids);
        visit("pattern", self.pattern);
        visit("flags", self.flags);
        visit("min_eval_interval", self.min_eval_interval);
    }
};

struct Return_Tql_Select_Data {
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};
    std::vector<tql::result_t> res{};

    static constexpr std::string_view record = "Return_Tql_Select_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("status", self.status);
        visit("details", self.details);
        visit("res", self.res);
    }
};

struct Return_Tql_Select_Patch_Data {
    tql::id_t id{};
    tql::result_t patch{};
    tql::version_t seq{};

    static constexpr std::string_view record = "Return_Tql_Select_Patch_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("patch", self.patch);
        visit("seq", self.seq);
    }
};

struct Return_Tql_Select_Delete_Patch_Data {
    tql::id_t id{};
    tql::version_t seq{};

    static constexpr std::string_view record = "Return_Tql_Select_Delete_Patch_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("seq", self.seq);
    }
};

/// `new_id` is filled on arrival when the sender leaves it empty.
struct Tql_Create_Data {
    tql::id_t parent_id{};
    tql::id_t new_id{};
    std::uint32_t class_ = 0;
    std::vector<tql::value_t> properties{};
    std::uint32_t flags = 0;
    tql::id_t user_id{};

    static constexpr std::string_view record = "Tql_Create_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("parent_id", self.parent_id);
        visit("new_id", self.new_id);
        visit("class_", self.class_);
        visit("properties", self.properties);
        visit("flags", self.flags);
        visit("user_id", self.user_id);
    }
};

struct Return_Tql_Create_Data {
    tql::id_t new_id{};
    tql::version_t new_version{};
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_Tql_Create_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("new_id", self.new_id);
        visit("new_version", self.new_version);
        visit("status", self.status);
        visit("details", self.details);
    }
};

struct Tql_Update_Data {
    tql::id_t id{};
    tql::version_t version{};
    std::vector<tql::value_t> properties{};
    std::uint32_t flags = 0;
    tql::id_t user_id{};

    static constexpr std::string_view record = "Tql_Update_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("version", self.version);
        visit("properties", self.properties);
        visit("flags", self.flags);
        visit("user_id", self.user_id);
    }
};

struct Return_Tql_Update_Data {
    std::uint32_t status = 0;
    tql::version_t new_version{};
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_Tql_Update_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("status", self.status);
        visit("new_version", self.new_version);
        visit("details", self.details);
    }
};

struct Tql_Delete_Data {
    tql::id_t id{};
    tql::version_t version{};
    tql::id_t user_id{};
    bool clear_master_id = false;

    static constexpr std::string_view record = "Tql_Delete_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("version", self.version);
        visit("user_id", self.user_id);
        visit("clear_master_id", self.clear_master_id);
    }
};

struct Return_Tql_Delete_Data {
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_Tql_Delete_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("status", self.status);
        visit("details", self.details);
    }
};

struct Tql_Simple_Subscribe_Data {
    tql::id_t root{};
    std::set<std::uint32_t> classes{};
    std::set<std::uint32_t> operations{};
    bool include_own_operations = false;

    static constexpr std::string_view record = "Tql_Simple_Subscribe_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("root", self.root);
        visit("classes", self.classes);
        visit("operations", self.operations);
        visit("include_own_operations", self.include_own_operations);
    }
};

struct Return_Tql_Simple_Subscribe_Data {
    std::uint32_t operation = 0;
    tql::origin_t origin{};
    std::list<dbms::path_entry_t> obj_path{};

    static constexpr std::string_view record = "Return_Tql_Simple_Subscribe_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("operation", self.operation);
        visit("origin", self.origin);
        visit("obj_path", self.obj_path);
    }
};

struct NodeClass_Translate_Data {
    tql::id_t id{};
    tql::id_t parent{};
    tql::id_t inherits{};
    std::list<tql::id_t> references{};

    static constexpr std::string_view record = "NodeClass_Translate_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("parent", self.parent);
        visit("inherits", self.inherits);
        visit("references", self.references);
    }
};

struct Return_NodeClass_Translate_Data {
    std::list<path_step_t> ids{};

    static constexpr std::string_view record = "Return_NodeClass_Translate_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("ids", self.ids); }
};

struct User_Acknowledge_Alert_Data {
    tql::id_t user{};
    std::string comment{};
    tql::id_t object{};
    tql::version_t version{};

    static constexpr std::string_view record = "User_Acknowledge_Alert_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("user", self.user);
        visit("comment", self.comment);
        visit("object", self.object);
        visit("version", self.version);
    }
};

struct User_Reset_Score_Data {
    tql::id_t user{};
    std::string comment{};
    tql::id_t object{};
    tql::version_t version{};
    bool recursive = false;

    static constexpr std::string_view record = "User_Reset_Score_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("user", self.user);
        visit("comment", self.comment);
        visit("object", self.object);
        visit("version", self.version);
        visit("recursive", self.recursive);
    }
};

/// Names a subscription by the uid of its request.
struct Tql_Acknowledge_Data {
    std::uint32_t req_id_to_ack = 0;

    static constexpr std::string_view record = "Tql_Acknowledge_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("req_id_to_ack", self.req_id_to_ack);
    }
};

/// Names a subscription by the uid of its request.
struct Tql_Forget_Data {
    std::uint32_t req_id_to_forget = 0;

    static constexpr std::string_view record = "Tql_Forget_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("req_id_to_forget", self.req_id_to_forget);
    }
};

struct Return_Tql_Forget_Data {
    std::uint32_t forgotten_req_id = 0;
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_Tql_Forget_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("forgotten_req_id", self.forgotten_req_id);
        visit("status", self.status);
        visit("details", self.details);
    }
};

}  // namespace dbms
