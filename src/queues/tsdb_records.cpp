#include "queues/records/tsdb_records.h"

#include <fmt/format.h>

namespace tsdb {

std::unique_ptr<data_interval_t> data_interval_incident_t::clone() const {
    return std::make_unique<data_interval_incident_t>(*this);
}
std::string data_interval_incident_t::print() const {
    return fmt::format("(t: incident)(sev: {})(msg: \"{}\")(itime: {})", severity, message, time);
}

std::unique_ptr<data_interval_t> data_interval_continuous_t::clone() const {
    return std::make_unique<data_interval_continuous_t>(*this);
}
std::string data_interval_continuous_t::print() const {
    // The quote ahead of the end is never closed; readers of these lines know it so.
    return fmt::format(
        "(t: continuous)(start: {})(end: \"{})(min: {})(avg: {})(max: {})(ngood: {})(nbad: {})",
        start, end, min, avg, max, ngood, nbad);
}

std::unique_ptr<data_interval_t> data_interval_enum_t::clone() const {
    return std::make_unique<data_interval_enum_t>(*this);
}
std::string data_interval_enum_t::print() const {
    return fmt::format("(t: enum)(start: {})(end: \"{})(mask: {})(ngood: {})(nbad: {})", start, end,
                       mask, ngood, nbad);
}

}  // namespace tsdb
