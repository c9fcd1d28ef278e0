#include "common/report.h"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <thread>

namespace bench {

namespace {

constexpr int kTitleWidth = 44;
constexpr int kColumnWidth = 13;

/// With thousands apart: "1 234 567".
std::string grouped(double value, int decimals) {
    std::string text = fmt::format("{:.{}f}", value, decimals);
    const size_t point = std::min(text.find('.'), text.size());
    for (size_t at = point; at > 3;) {
        at -= 3;
        text.insert(at, 1, ' ');
    }
    return text;
}

}  // namespace

void Report::add(const std::string& subject, const Figures& figures) {
    for (const auto& [key, value] : figures) samples_[subject][key].push_back(value);
}

std::optional<double> Report::median(const std::string& subject, const std::string& key) const {
    const auto of_subject = samples_.find(subject);
    if (of_subject == samples_.end()) return {};
    const auto found = of_subject->second.find(key);
    if (found == of_subject->second.end()) return {};
    std::vector<double> values = found->second;
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string Report::figures_line(const Row& row) const {
    std::string line = fmt::format("{:<{}}", row.title, kTitleWidth);
    for (const std::string& subject : subjects_) {
        const auto value = median(subject, row.key);
        line += fmt::format("{:>{}}", value ? grouped(*value, row.decimals) : "-", kColumnWidth);
    }
    return line + "\n";
}

std::string Report::ratio_line(const Row& row) const {
    const auto own = median(subjects_.front(), row.key);
    std::string line = fmt::format("{:<{}}", "  ours is ... of it", kTitleWidth + kColumnWidth);
    bool compared = false;
    for (size_t i = 1; i < subjects_.size(); ++i) {
        const auto other = median(subjects_[i], row.key);
        compared |= own && other;
        line += fmt::format("{:>{}}", own && other ? fmt::format("{:.2f}x", *own / *other) : "",
                            kColumnWidth);
    }
    return compared ? line + "\n" : "";
}

std::string Report::aim_text(const Row& row, const Aim& aim) const {
    const auto own = median(subjects_.front(), row.key);
    const auto base = aim.subject.empty() ? 1.0 : median(aim.subject, row.key);
    if (!own || !base) return "";
    const double wanted = aim.factor * *base;
    const bool met = row.better == better_t::more ? *own >= wanted : *own <= wanted;
    const std::string what = aim.subject.empty() ? grouped(aim.factor, row.decimals)
                                                 : fmt::format("{} x {}", aim.factor, aim.subject);
    return fmt::format("  aim {} {}: {}\n", row.better == better_t::more ? "at least" : "at most",
                       what, met ? "met" : fmt::format("missed, at {:.2f} of it", *own / wanted));
}

std::string Report::table(const std::vector<Row>& rows) const {
    std::string text = fmt::format("{:<{}}", "", kTitleWidth);
    for (const std::string& subject : subjects_)
        text += fmt::format("{:>{}}", subject, kColumnWidth);
    text += "\n";
    for (const Row& row : rows) {
        text += figures_line(row) + ratio_line(row);
        for (const Aim& aim : row.aims) text += aim_text(row, aim);
    }
    return text;
}

std::string machine_line() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return fmt::format("{} processors, load {} {} {}", std::thread::hardware_concurrency(), one,
                       five, fifteen);
}

}  // namespace bench
