// What a time series is made of: its layout and its data points.
//
// Plain values that every client of the time series store shares. Asking the store for them is not
// told here.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace tsdb {

/// One level of a series: how many records it keeps and how many seconds one record spans.
struct level_t {
    std::uint32_t records = 0;
    std::uint32_t span_s = 0;

    static constexpr std::string_view record = "level_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("records", self.records);
        visit("span_s", self.span_s);
    }
    friend bool operator==(const level_t&, const level_t&) = default;
};

/// Values of time_series_layout_t::type.
enum series_type_t : std::uint32_t { continuous = 1, enumerated = 2, uptime = 3, incident = 4 };

/// What a series looks like when it is created.
struct time_series_layout_t {
    std::uint32_t type = 0;  ///< a series_type_t
    std::list<level_t> levels;

    static constexpr std::string_view record = "time_series_layout_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("type", self.type);
        visit("levels", self.levels);
    }
    friend bool operator==(const time_series_layout_t&, const time_series_layout_t&) = default;
};

/// Type codes of data points, as they travel; 0 stands for no point.
enum class interval_type_t : std::uint32_t {
    none = 0,
    incident = 1,
    continuous = 2,
    enumerated = 3
};

/// One data point of a series.
class data_interval_t {
  public:
    [[nodiscard]] virtual interval_type_t type() const noexcept = 0;
    virtual ~data_interval_t() = default;
    /// A deep copy.
    [[nodiscard]] virtual std::unique_ptr<data_interval_t> clone() const = 0;
    /// One line for logs.
    [[nodiscard]] virtual std::string print() const = 0;

  protected:
    data_interval_t() = default;
    data_interval_t(const data_interval_t&) = default;
    data_interval_t& operator=(const data_interval_t&) = default;
};

/// Something that happened at one moment.
class data_interval_incident_t final : public data_interval_t {
  public:
    std::uint32_t severity = 0;
    std::string message;
    std::int64_t time = 0;  ///< seconds since the epoch

    static constexpr std::string_view record = "data_interval_incident_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("severity", self.severity);
        visit("message", self.message);
        visit("time", self.time);
    }
    [[nodiscard]] interval_type_t type() const noexcept override {
        return interval_type_t::incident;
    }
    [[nodiscard]] std::unique_ptr<data_interval_t> clone() const override;
    [[nodiscard]] std::string print() const override;
};

/// A measured quantity over an interval; times in seconds since the epoch.
class data_interval_continuous_t final : public data_interval_t {
  public:
    std::int64_t start = 0;
    std::int64_t end = 0;
    float min = 0;
    float avg = 0;
    float max = 0;
    std::uint32_t ngood = 0;
    std::uint32_t nbad = 0;

    static constexpr std::string_view record = "data_interval_continuous_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("start", self.start);
        visit("end", self.end);
        visit("min", self.min);
        visit("avg", self.avg);
        visit("max", self.max);
        visit("ngood", self.ngood);
        visit("nbad", self.nbad);
    }
    [[nodiscard]] interval_type_t type() const noexcept override {
        return interval_type_t::continuous;
    }
    [[nodiscard]] std::unique_ptr<data_interval_t> clone() const override;
    [[nodiscard]] std::string print() const override;
};

/// Which values of an enumeration were seen during an interval; times in seconds since the epoch.
class data_interval_enum_t final : public data_interval_t {
  public:
    std::uint32_t mask = 0;
    std::uint32_t ngood = 0;
    std::uint32_t nbad = 0;
    std::int64_t start = 0;
    std::int64_t end = 0;

    static constexpr std::string_view record = "data_interval_enum_t";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("mask", self.mask);
        visit("ngood", self.ngood);
        visit("nbad", self.nbad);
        visit("start", self.start);
        visit("end", self.end);
    }
    [[nodiscard]] interval_type_t type() const noexcept override {
        return interval_type_t::enumerated;
    }
    [[nodiscard]] std::unique_ptr<data_interval_t> clone() const override;
    [[nodiscard]] std::string print() const override;
};

/// Owns one data point, or none. Copying is deep.
class data_entry_t {
  public:
    data_entry_t() = default;
    data_entry_t(std::unique_ptr<data_interval_t> point) : point_(std::move(point)) {}
    data_entry_t(const data_entry_t& other)
        : point_(other.point_ ? other.point_->clone() : nullptr) {}
    data_entry_t(data_entry_t&&) noexcept = default;
    data_entry_t& operator=(const data_entry_t& other) { return *this = data_entry_t(other); }
    data_entry_t& operator=(data_entry_t&&) noexcept = default;
    ~data_entry_t() = default;

    [[nodiscard]] explicit operator bool() const noexcept { return point_ != nullptr; }
    [[nodiscard]] data_interval_t* get() const noexcept { return point_.get(); }
    data_interval_t* operator->() const noexcept { return point_.get(); }
    data_interval_t& operator*() const noexcept { return *point_; }

  private:
    std::unique_ptr<data_interval_t> point_;
};

}  // namespace tsdb
