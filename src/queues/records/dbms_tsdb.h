// Records by which siblings reach the time series of an object through the server: put, get, merge,
// append, truncate.
//
// A `status` is 0 for success, else one of the query error codes, and `details` then holds the
// messages.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "queues/records/dbms_common.h"
#include "queues/records/tsdb_records.h"
#include "tql/id.h"

namespace dbms {

struct TSDB_Get_Data_Data {
    tql::id_t id{};
    std::uint32_t index_property = 0;
    std::uint32_t flags = 0;
    bool raw = false;
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::uint32_t count = 0;
    std::uint32_t offset = 0;

    static constexpr std::string_view record = "TSDB_Get_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("index_property", self.index_property);
        visit("flags", self.flags);
        visit("raw", self.raw);
        visit("start", self.start);
        visit("end", self.end);
        visit("count", self.count);
        visit("offset", self.offset);
    }
};

struct Return_TSDB_Get_Data_Data {
    std::uint32_t data_type = 0;
    std::vector<tsdb::data_entry_t> data{};
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_TSDB_Get_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("data_type", self.data_type);
        visit("data", self.data);
        visit("status", self.status);
        visit("details", self.details);
    }
};

struct TSDB_Put_Data_Data {
    tql::id_t id{};
    std::uint32_t index_property = 0;
    std::uint32_t data_type = 0;
    std::vector<tsdb::data_entry_t> data{};

    static constexpr std::string_view record = "TSDB_Put_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("index_property", self.index_property);
        visit("data_type", self.data_type);
        visit("data", self.data);
    }
};

struct Return_TSDB_Put_Data_Data {
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_TSDB_Put_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("status", self.status);
        visit("details", self.details);
    }
};

struct TSDB_Merge_Data_Data {
    std::uint32_t tsdb_index = 0;
    std::uint32_t data_type = 0;
    std::vector<tsdb::data_entry_t> data{};

    static constexpr std::string_view record = "TSDB_Merge_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("tsdb_index", self.tsdb_index);
        visit("data_type", self.data_type);
        visit("data", self.data);
    }
};

struct Return_TSDB_Merge_Data_Data {
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_TSDB_Merge_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("status", self.status);
        visit("details", self.details);
    }
};

struct TSDB_Get_Latest_Data_Record_Data {
    tql::id_t id{};
    std::uint32_t index_property = 0;
    std::uint32_t flags = 0;

    static constexpr std::string_view record = "TSDB_Get_Latest_Data_Record_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("index_property", self.index_property);
        visit("flags", self.flags);
    }
};

struct Return_TSDB_Get_Latest_Data_Record_Data {
    std::uint32_t data_type = 0;
    tsdb::data_entry_t data{};
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_TSDB_Get_Latest_Data_Record_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("data_type", self.data_type);
        visit("data", self.data);
        visit("status", self.status);
        visit("details", self.details);
    }
};

struct TSDB_Append_Data_Record_Data {
    tql::id_t id{};
    std::uint32_t index_property = 0;
    std::uint32_t data_type = 0;
    tsdb::data_entry_t data{};
    std::uint32_t new_state = 0;

    static constexpr std::string_view record = "TSDB_Append_Data_Record_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("index_property", self.index_property);
        visit("data_type", self.data_type);
        visit("data", self.data);
        visit("new_state", self.new_state);
    }
};

struct Return_TSDB_Append_Data_Record_Data {
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_TSDB_Append_Data_Record_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("status", self.status);
        visit("details", self.details);
    }
};

struct TSDB_Append_Data_Data {
    tql::id_t id{};
    std::uint32_t index_property = 0;
    std::uint32_t data_type = 0;
    std::vector<tsdb::data_entry_t> data{};
    std::uint32_t new_state = 0;
    std::string encoded_result{};

    static constexpr std::string_view record = "TSDB_Append_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("index_property", self.index_property);
        visit("data_type", self.data_type);
        visit("data", self.data);
        visit("new_state", self.new_state);
        visit("encoded_result", self.encoded_result);
    }
};

struct Return_TSDB_Append_Data_Data {
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_TSDB_Append_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("status", self.status);
        visit("details", self.details);
    }
};

struct TSDB_Truncate_Old_Data_Data {
    tql::id_t id{};
    std::uint32_t index_property = 0;
    std::int64_t time = 0;

    static constexpr std::string_view record = "TSDB_Truncate_Old_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("id", self.id);
        visit("index_property", self.index_property);
        visit("time", self.time);
    }
};

struct Return_TSDB_Truncate_Old_Data_Data {
    std::uint32_t status = 0;
    std::list<dbms::detail_t> details{};

    static constexpr std::string_view record = "Return_TSDB_Truncate_Old_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("status", self.status);
        visit("details", self.details);
    }
};

}  // namespace dbms
