#include "dbcache/detail/damage.h"

#include <fmt/format.h>

#include "log/log.h"
#include "tql/errors.h"
#include "tql/names.h"

namespace dbcache::detail {

namespace {
const logging::Logger logger{"dbcache"};
}

void fail_type_mismatch(uint32_t property) {
    throw errors::tql(errors::ERR_ILLEGAL_TYPE,
                      fmt::format("Type mismatch for property {}", tql::property_name(property)));
}

void fail_out_of_bounds(uint32_t property, const char* direction) {
    throw errors::tql(errors::ERR_ILLEGAL_VALUE,
                      fmt::format("Value for {} too {}", tql::property_name(property), direction));
}

void fail_property(uint32_t property, const std::string& text) {
    throw errors::tql(errors::ERR_ILLEGAL_VALUE,
                      fmt::format("Property {}{}", tql::property_name(property), text));
}

void log_missing_value(uint32_t property, const NodeId& id) {
    const std::string from = id.is_null() ? " for template" : " from " + id.to_string();
    logger.warning("Warning: Unable to load non-null property {}{} - will return default value",
                   tql::property_name(property), from);
}

void log_unreadable_value(uint32_t property, const std::string& reason) {
    logger.warning("Warning: Unable to load property {}: {}", tql::property_name(property), reason);
}

}  // namespace dbcache::detail
