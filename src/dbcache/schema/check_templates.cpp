#include "dbcache/schema/check_templates.h"

#include "dbcache/class_table.h"
#include "tql/enumerations.h"
#include "tql/names.h"
#include "tql/property_map.h"

namespace dbcache {

void AgentCheckTemplate::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    constexpr std::string_view kFromUser = "$checkName";
    const auto put = [&](uint32_t number, std::string_view text, uint32_t flags = 0) {
        if (pattern.wants(number))
            tql::add<tql::property_string_t>(out, number, std::string(text), flags);
    };
    add_labels(pattern, out, "template", texts_.shown, texts_.shown);
    put(prop::siblingNamePattern, kFromUser, kComputed);
    put(prop::treeLabelPattern, kFromUser, kComputed);
    // Computed, so that a client that sends back what it got leaves them to checkName.
    put(prop::name, kFromUser, kComputed);
    put(prop::label, kFromUser, kComputed);
    put(prop::descriptionGood, texts_.good);
    put(prop::descriptionWarn, texts_.warn);
    put(prop::descriptionAlert, texts_.alert);
    if (pattern.wants(prop::checkType))
        tql::add_enum(out, prop::checkType, tql::enumeration::AgnetCheckType, texts_.check_type);
    // Who asks for a check wants it made; checks that the agent reports by itself wait for that.
    if (pattern.wants(prop::active)) tql::add<tql::property_boolean_t>(out, prop::active, true);
}

}  // namespace dbcache
