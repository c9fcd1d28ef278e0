// Records of requests to the time series store and of its answers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "queues/event_types.h"
#include "queues/records/tsdb_records.h"

namespace tsdb {

struct Get_Data_Data {
    std::uint32_t handle = 0;
    std::uint32_t data_type = 0;
    std::uint32_t flags = 0;
    bool raw = false;
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::uint32_t count = 0;
    std::uint32_t offset = 0;

    static constexpr std::string_view record = "Get_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("handle", self.handle);
        visit("data_type", self.data_type);
        visit("flags", self.flags);
        visit("raw", self.raw);
        visit("start", self.start);
        visit("end", self.end);
        visit("count", self.count);
        visit("offset", self.offset);
    }
};

struct Return_Get_Data_Data {
    std::uint32_t data_type = 0;
    std::vector<data_entry_t> data{};

    static constexpr std::string_view record = "Return_Get_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("data_type", self.data_type);
        visit("data", self.data);
    }
};

struct Put_Data_Data {
    queues::queue_t orig_requester = queues::queue_t::none;
    std::uint32_t handle = 0;
    std::uint32_t operation = 0;
    std::uint32_t data_type = 0;
    std::vector<data_entry_t> data{};

    static constexpr std::string_view record = "Put_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("orig_requester", self.orig_requester);
        visit("handle", self.handle);
        visit("operation", self.operation);
        visit("data_type", self.data_type);
        visit("data", self.data);
    }
};

struct Truncate_Old_Data_Data {
    std::uint32_t handle = 0;
    std::int64_t time = 0;

    static constexpr std::string_view record = "Truncate_Old_Data_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("handle", self.handle);
        visit("time", self.time);
    }
};

struct Recovery_Merge_TimeSeries_Data {
    std::uint32_t handle = 0;
    std::vector<std::string> data{};

    static constexpr std::string_view record = "Recovery_Merge_TimeSeries_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("handle", self.handle);
        visit("data", self.data);
    }
};

}  // namespace tsdb
