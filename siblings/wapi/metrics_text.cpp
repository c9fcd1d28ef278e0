#include "wapi/metrics_text.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "meter/meter.h"

namespace wapi {

namespace {

using control::Return_Metric_Timing_Data;
using nlohmann::ordered_json;

constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

void expand_below(const control::Metric_Group& group, const MetricSample& above,
                  std::vector<MetricSample>& out);

MetricSample below(const MetricSample& above, const std::string& name) {
    MetricSample made = above;
    made.path.push_back(name);
    made.family += (made.family.empty() ? "" : "_") + name;
    return made;
}

void expand_table(const control::Metric_Table& table, const MetricSample& above,
                  std::vector<MetricSample>& out) {
    for (const std::string& instance : table.instances) {
        MetricSample place = below(above, table.group.name);
        place.path.push_back(instance);
        place.labels.emplace_back(table.group.name, instance);
        expand_below(table.group, place, out);
    }
}

void expand_below(const control::Metric_Group& group, const MetricSample& above,
                  std::vector<MetricSample>& out) {
    for (const control::Metric& metric : group.metrics) {
        out.push_back(below(above, metric.name));
        out.back().metric = metric;
    }
    for (const control::Metric_Group& inner : group.groups)
        expand_below(inner, below(above, inner.name), out);
    for (const control::Metric_Table& table : group.tables) expand_table(table, above, out);
}

/// Names take letters, digits and "_" only.
std::string as_name(std::string_view text) {
    std::string name;
    for (const char sign : text) {
        const bool fits = (sign >= 'a' && sign <= 'z') || (sign >= 'A' && sign <= 'Z') ||
                          (sign >= '0' && sign <= '9');
        name += fits ? sign : '_';
    }
    return name;
}

std::string escaped(std::string_view text, bool in_quotes) {
    std::string result;
    for (const char sign : text) {
        if (sign == '\n')
            result += "\\n";
        else if (sign == '\\' || (in_quotes && sign == '"'))
            result += std::string("\\") + sign;
        else
            result += sign;
    }
    return result;
}

std::string label_text(const MetricSample& sample) {
    std::string text;
    for (const auto& [table, instance] : sample.labels)
        text += fmt::format("{}{}=\"{}\"", text.empty() ? "{" : ",", as_name(table),
                            escaped(instance, true));
    return text.empty() ? text : text + "}";
}

std::string number_text(double number) {
    if (std::isnan(number)) return "NaN";
    if (std::isinf(number)) return number < 0 ? "-Inf" : "+Inf";
    return fmt::format("{}", number);
}

/// The samples of one family, which stand together under one head.
class Family {
  public:
    Family(const std::vector<const MetricSample*>& samples, std::string& out)
        : samples_(samples), out_(out), name_("tarmik_" + as_name(samples.front()->family)) {
        if (const std::string& unit = samples.front()->metric.unit; !unit.empty())
            name_ += "_" + as_name(unit);
    }

    void write() const {
        const auto type = static_cast<meter::type_t>(samples_.front()->metric.type);
        if (type == meter::type_t::timing) return write_timing();
        const bool rises = type == meter::type_t::counter;
        const std::string name = rises ? name_ + "_total" : name_;
        write_head(name, rises ? "counter" : "gauge", "");
        for (const MetricSample* sample : samples_) {
            if (const auto* whole = std::get_if<uint64_t>(&*sample->value))
                write_line(name, *sample, fmt::format("{}", *whole));
            else if (const auto* real = std::get_if<double>(&*sample->value))
                write_line(name, *sample, number_text(*real));
        }
    }

  private:
    void write_timing() const {
        write_head(name_, "summary", "");
        for_each_timing([&](const MetricSample& sample, const Return_Metric_Timing_Data& timing) {
            write_line(name_ + "_count", sample, fmt::format("{}", timing.count));
            write_line(name_ + "_sum", sample, fmt::format("{}", timing.sum));
        });
        write_part("min", "gauge", "the least", &Return_Metric_Timing_Data::min);
        write_part("max", "gauge", "the most", &Return_Metric_Timing_Data::max);
        write_part("sum_of_squares", "gauge", "sum of squares",
                   &Return_Metric_Timing_Data::sum_squares);
    }
    void write_part(std::string_view part, std::string_view type, std::string_view remark,
                    uint64_t Return_Metric_Timing_Data::*field) const {
        const std::string name = fmt::format("{}_{}", name_, part);
        write_head(name, type, remark);
        for_each_timing([&](const MetricSample& sample, const Return_Metric_Timing_Data& timing) {
            write_line(name, sample, fmt::format("{}", timing.*field));
        });
    }
    template <class Visit>
    void for_each_timing(Visit&& visit) const {
        for (const MetricSample* sample : samples_)
            if (const auto* timing = std::get_if<Return_Metric_Timing_Data>(&*sample->value))
                visit(*sample, *timing);
    }
    void write_head(const std::string& name, std::string_view type, std::string_view remark) const {
        std::string help = samples_.front()->metric.desc;
        if (help.empty()) help = samples_.front()->metric.name;
        if (!remark.empty()) help += fmt::format(": {}", remark);
        out_ += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, escaped(help, false), type);
    }
    void write_line(const std::string& name, const MetricSample& sample,
                    std::string_view value) const {
        out_ += fmt::format("{}{} {}\n", name, label_text(sample), value);
    }

    const std::vector<const MetricSample*>& samples_;
    std::string& out_;
    std::string name_;
};

const char* type_name(uint32_t type) {
    switch (static_cast<meter::type_t>(type)) {
        case meter::type_t::counter:
            return "counter";
        case meter::type_t::gauge:
            return "gauge";
        case meter::type_t::timing:
            return "timing";
    }
    return "unknown";
}

ordered_json value_json(const MetricSample& sample) {
    if (const auto* whole = std::get_if<uint64_t>(&*sample.value)) return *whole;
    if (const auto* real = std::get_if<double>(&*sample.value)) return *real;
    const auto& timing = std::get<Return_Metric_Timing_Data>(*sample.value);
    return {{"count", timing.count},
            {"min", timing.min},
            {"max", timing.max},
            {"sum", timing.sum},
            {"sum_of_squares", timing.sum_squares}};
}

}  // namespace

std::string MetricSample::path_text() const {
    std::string text;
    for (const std::string& step : path) text += (text.empty() ? "" : "/") + step;
    return text;
}

std::vector<MetricSample> expand(const control::Metric_Group& root) {
    std::vector<MetricSample> samples;
    expand_below(root, {}, samples);
    return samples;
}

bool is_below(const MetricSample& sample, std::string_view path) {
    const std::string text = sample.path_text();
    return path.empty() || text == path || text.starts_with(std::string(path) + "/");
}

Response prometheus(const std::vector<MetricSample>& samples) {
    std::vector<std::vector<const MetricSample*>> families;
    for (const MetricSample& sample : samples) {
        if (!sample.value) continue;
        const auto same = std::find_if(families.begin(), families.end(), [&](const auto& family) {
            return family.front()->family == sample.family;
        });
        if (same == families.end())
            families.push_back({&sample});
        else
            same->push_back(&sample);
    }
    Response response;
    response.content_type = kContentType;
    for (const auto& family : families) Family(family, response.body).write();
    return response;
}

Response metrics_json(const std::vector<MetricSample>& samples) {
    ordered_json metrics = ordered_json::array();
    for (const MetricSample& sample : samples)
        if (sample.value)
            metrics.push_back({{"path", sample.path_text()},
                               {"type", type_name(sample.metric.type)},
                               {"unit", sample.metric.unit},
                               {"description", sample.metric.desc},
                               {"value", value_json(sample)}});
    Response response;
    response.body = ordered_json{{"metrics", std::move(metrics)}}.dump(
        -1, ' ', false, ordered_json::error_handler_t::replace);
    return response;
}

}  // namespace wapi
