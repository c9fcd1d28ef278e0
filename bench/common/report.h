// The table of a benchmark: one row for each figure, one column for each subject, medians over the
// rounds, and how our own figure stands to what it aims at. It measures nothing itself.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/child_run.h"

namespace bench {

enum class better_t { more, less };

/// What our figure is to reach: `factor` times the median of a subject in the same run, or
/// `factor` itself when `subject` is empty.
struct Aim {
    std::string subject;
    double factor = 1;
};

struct Row {
    std::string key;
    /// What is measured, with its unit.
    std::string title;
    better_t better = better_t::more;
    std::vector<Aim> aims{};
    int decimals = 0;
};

class Report {
  public:
    /// The first subject is our own. `subjects` are in the order of the columns.
    explicit Report(std::vector<std::string> subjects) : subjects_(std::move(subjects)) {}

    /// Adds what `subject` measured in one round.
    void add(const std::string& subject, const Figures& figures);
    /// Median over the rounds; none when the subject has no such figure.
    [[nodiscard]] std::optional<double> median(const std::string& subject,
                                               const std::string& key) const;
    /// The table as text: medians, below them the ratio of ours to each other subject, and the
    /// aims.
    [[nodiscard]] std::string table(const std::vector<Row>& rows) const;

  private:
    [[nodiscard]] std::string figures_line(const Row& row) const;
    [[nodiscard]] std::string ratio_line(const Row& row) const;
    [[nodiscard]] std::string aim_text(const Row& row, const Aim& aim) const;

    std::vector<std::string> subjects_;
    std::map<std::string, std::map<std::string, std::vector<double>>> samples_;
};

/// The machine and its load, for the head of a report.
[[nodiscard]] std::string machine_line();

}  // namespace bench
