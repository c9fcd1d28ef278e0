#include "tarmik/series_view.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "tarmik/tree_view.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tql/value_text.h"

namespace cli {

namespace {

using nlohmann::ordered_json;

int64_t seconds_of(const ordered_json& moment) {
    const tql::value_t read = tql::parse_value(prop::startTime, {tql::property_type_t::date},
                                               moment.get_ref<const std::string&>());
    return static_cast<const tql::property_date_t&>(*read).value;
}

std::string cell_text(const ordered_json& value) {
    if (value.is_string()) return shown_text(value.get<std::string>());
    if (!value.is_array()) return value.dump();
    std::string text;
    for (const ordered_json& element : value)
        text += (text.empty() ? "" : ",") + cell_text(element);
    return text;
}

/// What the records of one column of the graph come to.
struct Bucket {
    double least = 0;
    double greatest = 0;
    double weighted_sum = 0;
    double weight = 0;
    uint64_t bad = 0;

    void add(const ordered_json& record) {
        bad += record.at("bad").get<uint64_t>();
        const auto good = record.at("good").get<double>();
        if (good == 0) return;  // nothing was measured
        const auto low = record.at("min").get<double>(), high = record.at("max").get<double>();
        least = weight == 0 ? low : std::min(least, low);
        greatest = weight == 0 ? high : std::max(greatest, high);
        weighted_sum += record.at("avg").get<double>() * good;
        weight += good;
    }
    [[nodiscard]] double average() const { return weighted_sum / weight; }
};

/// The time that the records span, cut into columns.
class TimeAxis {
  public:
    TimeAxis(const ordered_json& records, size_t columns) : columns_(columns) {
        first_ = seconds_of(records.front().at("start"));
        last_ = seconds_of(records.back().at("end"));
        for (const ordered_json& record : records)
            last_ = std::max(last_, seconds_of(record.at("end")));
    }
    [[nodiscard]] size_t column(int64_t moment) const {
        if (last_ <= first_) return 0;
        const double part =
            static_cast<double>(moment - first_) / static_cast<double>(last_ - first_);
        return static_cast<size_t>(std::clamp(part, 0.0, 1.0) * static_cast<double>(columns_ - 1));
    }
    /// Both ends, in UTC, below the columns.
    [[nodiscard]] std::string legend(size_t indent) const {
        const std::string begin = text(first_), end = text(last_);
        const size_t gap =
            columns_ > begin.size() + end.size() ? columns_ - begin.size() - end.size() : 1;
        return std::string(indent, ' ') + begin + std::string(gap, ' ') + end + "\n";
    }

  private:
    static std::string text(int64_t moment) {
        return tql::value_text(tql::property_date_t(prop::startTime, moment));
    }

    size_t columns_;
    int64_t first_ = 0;
    int64_t last_ = 0;
};

std::string unit_of(const ordered_json& answer) {
    for (const ordered_json& column : answer.at("columns"))
        if (column.contains("unit")) return shown_text(column["unit"].get<std::string>());
    return {};
}

std::string without_blanks_behind(const std::string& line) {
    return line.substr(0, line.find_last_not_of(' ') + 1);
}

/// Lines of the graph, the highest first, with a value in front of the first, the last and the
/// middle one.
std::string framed(const std::vector<std::string>& lines, double low, double high,
                   const std::string& unit, size_t& indent) {
    std::map<size_t, std::string> labels;
    for (const size_t row : {size_t{0}, lines.size() / 2, lines.size() - 1}) {
        const double part = static_cast<double>(row) / static_cast<double>(lines.size() - 1);
        labels[row] =
            fmt::format("{:.6g}{}{}", high - (high - low) * part, unit.empty() ? "" : " ", unit);
    }
    for (const auto& [row, label] : labels) indent = std::max(indent, label.size());
    std::string text;
    for (size_t row = 0; row < lines.size(); ++row)
        text += fmt::format("{:>{}} |{}\n", labels[row], indent, without_blanks_behind(lines[row]));
    indent += 2;
    return text;
}

std::string measured_graph(const ordered_json& answer, GraphSize size) {
    const ordered_json& records = answer.at("records");
    const TimeAxis axis(records, size.columns);
    std::vector<Bucket> buckets(size.columns);
    for (const ordered_json& record : records)
        buckets[axis.column(seconds_of(record.at("start")))].add(record);
    std::optional<double> low, high;
    for (const Bucket& bucket : buckets) {
        if (bucket.weight == 0) continue;
        low = std::min(low.value_or(bucket.least), bucket.least);
        high = std::max(high.value_or(bucket.greatest), bucket.greatest);
    }
    if (!low) low = high = 0;
    if (*low == *high) {  // a flat line lies in the middle
        const double room = *low == 0 ? 1 : std::abs(*low) / 10;
        *low -= room;
        *high += room;
    }
    const auto row_of = [&](double value) {
        const double part = (*high - value) / (*high - *low);
        return static_cast<size_t>(std::lround(part * static_cast<double>(size.rows - 1)));
    };
    std::vector<std::string> lines(size.rows, std::string(size.columns, ' '));
    bool any_bad = false;
    std::string bad(size.columns, ' ');
    for (size_t column = 0; column < buckets.size(); ++column) {
        const Bucket& bucket = buckets[column];
        if (bucket.bad != 0) {
            bad[column] = 'x';
            any_bad = true;
        }
        if (bucket.weight == 0) continue;
        for (size_t row = row_of(bucket.greatest); row <= row_of(bucket.least); ++row)
            lines[row][column] = ':';
        lines[std::min(row_of(bucket.average()), size.rows - 1)][column] = 'o';
    }
    size_t indent = any_bad ? 3 : 0;
    std::string text = framed(lines, *low, *high, unit_of(answer), indent);
    if (any_bad) text += fmt::format("{:>{}} |{}\n", "bad", indent - 2, without_blanks_behind(bad));
    text += std::string(indent - 1, ' ') + "+" + std::string(size.columns, '-') + "\n";
    return text + axis.legend(indent);
}

std::string states_graph(const ordered_json& answer, GraphSize size) {
    const ordered_json& records = answer.at("records");
    const TimeAxis axis(records, size.columns);
    std::map<uint64_t, std::string> lines;
    for (const ordered_json& record : records) {
        const size_t first = axis.column(seconds_of(record.at("start")));
        const size_t last = axis.column(seconds_of(record.at("end")));
        for (const ordered_json& state : record.at("states")) {
            std::string& line = lines[state.get<uint64_t>()];
            line.resize(size.columns, ' ');
            for (size_t column = first; column <= last; ++column) line[column] = '#';
        }
    }
    constexpr size_t kIndent = 10;
    std::string text;
    for (const auto& [state, line] : lines)
        text += fmt::format("state {:>2} |{}\n", state, without_blanks_behind(line));
    text += std::string(kIndent - 1, ' ') + "+" + std::string(size.columns, '-') + "\n";
    return text + axis.legend(kIndent);
}

}  // namespace

std::string series_table(const ordered_json& answer) {
    std::vector<std::vector<std::string>> lines(1);
    for (const ordered_json& column : answer.at("columns")) {
        std::string name = column.at("name").get<std::string>();
        if (column.contains("unit"))
            name += fmt::format(" ({})", shown_text(column["unit"].get<std::string>()));
        lines.front().push_back(std::move(name));
    }
    for (const ordered_json& record : answer.at("records")) {
        lines.emplace_back();
        for (const ordered_json& column : answer.at("columns"))
            lines.back().push_back(
                cell_text(record.at(column.at("name").get_ref<const std::string&>())));
    }
    std::vector<size_t> widths(lines.front().size());
    for (const auto& line : lines)
        for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
    std::string text;
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); ++i)  // what ends a line needs no room behind it
            text += i + 1 == line.size() ? line[i] : fmt::format("{:<{}}  ", line[i], widths[i]);
        text += '\n';
    }
    return text;
}

std::string series_graph(const ordered_json& answer, GraphSize size) {
    const auto& type = answer.at("layout").at("type").get_ref<const std::string&>();
    if (answer.at("records").empty() || type == "incident") return {};
    return type == "enumerated" ? states_graph(answer, size) : measured_graph(answer, size);
}

}  // namespace cli
