#include <fmt/format.h>

#include "queues/detail/print.h"
#include "queues/detail/same.h"
#include "queues/records/tsdb_records.h"
#include "tql/property_kinds.h"

namespace queues::detail {

void Printer::line(std::string_view name, std::string_view text) {
    for (int i = 0; i < level_; ++i) out_ << "  ";
    if (!name.empty()) out_ << name << ": ";
    out_ << text << '\n';
}

void Printer::head(std::string_view name) {
    if (name.empty()) return;
    for (int i = 0; i < level_; ++i) out_ << "  ";
    out_ << name << ":\n";
}

bool Printer::enter() {
    if (level_ + 1 > kMaxPrintDepth) {
        line({}, "...");
        return false;
    }
    ++level_;
    return true;
}

std::string text_of(queue_t field) {
    return queue_name(field);
}
std::string text_of(double field) {
    return fmt::format("{}", field);
}
std::string text_of(float field) {
    return fmt::format("{}", field);
}

void show(Printer& out, std::string_view name, const std::string& field) {
    out.line(name, field);
}

void show(Printer& out, std::string_view name, const std::vector<std::uint8_t>& field) {
    out.line(name, fmt::format("{} bytes", field.size()));
}

void show(Printer& out, std::string_view name, const Time& field) {
    out.line(name, field.to_string());
}

void show(Printer& out, std::string_view name, const tql::id_t& field) {
    out.line(name, field.to_string());
}

void show(Printer& out, std::string_view name, const tql::value_t& field) {
    if (!field) return out.line(name, "none");
    out.line(name, fmt::format("{} {} {}", field->property, field->type_name(),
                               field->is_null ? "null" : field->print()));
}

void show(Printer& out, std::string_view name, const tsdb::data_entry_t& field) {
    out.line(name, field ? field->print() : "none");
}

bool same(const tsdb::data_entry_t& left, const tsdb::data_entry_t& right) {
    if (!left || !right) return !left && !right;
    if (left->type() != right->type()) return false;
    const auto as = [&]<class Point>(const Point*) {
        return same(static_cast<const Point&>(*left), static_cast<const Point&>(*right));
    };
    switch (left->type()) {
        case tsdb::interval_type_t::incident:
            return as(static_cast<const tsdb::data_interval_incident_t*>(nullptr));
        case tsdb::interval_type_t::continuous:
            return as(static_cast<const tsdb::data_interval_continuous_t*>(nullptr));
        case tsdb::interval_type_t::enumerated:
            return as(static_cast<const tsdb::data_interval_enum_t*>(nullptr));
        case tsdb::interval_type_t::none:
            break;
    }
    return true;
}

}  // namespace queues::detail
