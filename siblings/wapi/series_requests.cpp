#include "wapi/series_requests.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fmt/format.h>
#include <limits>

#include "queues/series_kinds.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tql/value_text.h"
#include "wapi/parameters.h"

namespace wapi {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr int64_t kLastMoment = int64_t{1} << 40;  // the store takes none behind it

struct RelativeUnit {
    char sign;
    int64_t seconds;
};
constexpr RelativeUnit kRelativeUnits[] = {
    {'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86'400}, {'w', 604'800}};

[[noreturn]] void refuse(std::string text) {
    throw Refused(400, "BAD_REQUEST", std::move(text));
}

tql::id_t read_id(std::string_view text) {
    const auto id = tql::id_t::parse(text);
    if (!id || id->size() < 2)
        refuse(fmt::format("\"{}\" is no id, expected one like 1.4294960001", shown_part(text)));
    return *id;
}

uint32_t read_property(const std::optional<std::string>& name) {
    const uint32_t property = name ? tql::get_property(*name) : prop::tsdbIndex;
    if (property != prop::tsdbIndex && property != prop::tsdbIncident &&
        property != prop::tsdbForecast)
        throw Refused(400, "NO_SERIES_PROPERTY",
                      fmt::format("Property {} holds no time series, these do: tsdbIndex, "
                                  "tsdbIncident, tsdbForecast",
                                  *name));
    return property;
}

int64_t get_moment(std::string_view what, std::string_view text, int64_t now_s) {
    if (const auto moment = read_moment(text, now_s)) return *moment;
    refuse(
        fmt::format("{}: \"{}\" is no time, expected one like 2026-11-23T13:00:00Z, seconds "
                    "since 1970, now, or -90m, -12h, -1d, -2w",
                    what, shown_part(text)));
}

int64_t moment_parameter(const Request& request, std::string_view name, int64_t now_s) {
    const auto text = find_parameter(request, name);
    return text ? get_moment(fmt::format("Parameter \"{}\"", name), *text, now_s) : 0;
}

void read_range(const Request& request, int64_t now_s, SeriesRequest& into) {
    allow_parameters(request, {"property", "from", "to", "count", "resolution"});
    into.property = read_property(find_parameter(request, "property"));
    into.from = moment_parameter(request, "from", now_s);
    into.to = moment_parameter(request, "to", now_s);
    if (into.to != 0 && into.from > into.to)
        refuse(fmt::format("\"from\", {}, lies behind \"to\", {}", into.from, into.to));
    into.count =
        static_cast<uint32_t>(find_number(request, "count", kMostSeriesRecords, "number of records")
                                  .value_or(kUsualSeriesRecords));
    if (into.count == 0) refuse("Parameter \"count\" must be at least 1");
    into.resolution_s = static_cast<uint32_t>(
        find_number(request, "resolution", tsdb::kMaxResolution_s, "number of seconds")
            .value_or(0));
}

void read_appended(const Request& request, SeriesRequest& into) {
    allow_parameters(request, {});
    json body = parse_body(request.body);
    for (const auto& [field, value] : body.items())
        if (field != "property" && field != "records")
            refuse(fmt::format("Unknown field \"{}\"", shown_part(field)));
    std::optional<std::string> name;
    if (body.contains("property")) {
        if (!body["property"].is_string()) refuse("Field \"property\" must be a text");
        name = body["property"].get<std::string>();
    }
    into.property = read_property(name);
    json& records = body["records"];
    const bool sound =
        records.is_array() && !records.empty() && records.size() <= kMostAppended &&
        std::all_of(records.begin(), records.end(), [](const json& r) { return r.is_object(); });
    if (!sound)
        refuse(fmt::format("Field \"records\" must be a list of 1 to {} objects", kMostAppended));
    into.appended = std::move(records);
}

// ---- records of an append ----------------------------------------------------------------------

/// The fields of one record; every one must be asked for.
class RecordReader {
  public:
    RecordReader(const json& record, size_t place, int64_t now_s)
        : record_(record), place_(place), now_s_(now_s) {}

    [[nodiscard]] bool has(const char* field) const { return record_.contains(field); }

    double number(const char* field, std::optional<double> usual = {}) {
        const json* found = find(field);
        if (found == nullptr && usual) return *usual;
        if (found == nullptr || !found->is_number()) wrong(field, "a number");
        const double value = found->get<double>();
        if (!std::isfinite(static_cast<float>(value))) wrong(field, "a smaller number");
        return value;
    }
    uint32_t count(const char* field, std::optional<uint32_t> usual, uint32_t most = UINT32_MAX) {
        const json* found = find(field);
        if (found == nullptr && usual) return *usual;
        if (found == nullptr || !found->is_number_unsigned() || found->get<uint64_t>() > most)
            wrong(field, fmt::format("a number from 0 to {}", most));
        return found->get<uint32_t>();
    }
    std::string text(const char* field) {
        const json* found = find(field);
        if (found == nullptr || !found->is_string()) wrong(field, "a text");
        return found->get<std::string>();
    }
    int64_t moment(const char* field) {
        const json* found = find(field);
        if (found == nullptr) return now_s_;
        const std::string text = found->is_string() ? found->get<std::string>() : found->dump();
        return get_moment(fmt::format("Record {}: \"{}\"", place_, field), text, now_s_);
    }
    /// The span, or the moment, that both ends are then.
    void span(int64_t& start, int64_t& end) {
        if (!has("start") && !has("end")) {
            start = end = moment("time");
            return;
        }
        start = moment("start");
        end = moment("end");
        if (start > end) refuse(fmt::format("Record {} ends before it starts", place_));
    }
    void check_all_read() const {
        for (const auto& [field, value] : record_.items())
            if (std::find(read_.begin(), read_.end(), field) == read_.end())
                refuse(fmt::format("Record {}: unknown field \"{}\" for a record of this series",
                                   place_, shown_part(field)));
    }

  private:
    const json* find(const char* field) {
        read_.emplace_back(field);
        const auto found = record_.find(field);
        return found == record_.end() ? nullptr : &*found;
    }
    [[noreturn]] void wrong(const char* field, std::string_view expected) const {
        refuse(fmt::format("Record {}: field \"{}\" must be {}", place_, field, expected));
    }

    const json& record_;
    size_t place_;
    int64_t now_s_;
    std::vector<std::string> read_;
};

tsdb::data_entry_t read_measured(RecordReader& reader) {
    auto made = std::make_unique<tsdb::data_interval_continuous_t>();
    reader.span(made->start, made->end);
    if (reader.has("value")) {
        made->min = made->avg = made->max = static_cast<float>(reader.number("value"));
    } else {
        const double average = reader.number("avg");
        made->avg = static_cast<float>(average);
        made->min = static_cast<float>(reader.number("min", average));
        made->max = static_cast<float>(reader.number("max", average));
    }
    made->ngood = reader.count("good", 1);
    made->nbad = reader.count("bad", 0);
    return tsdb::data_entry_t(std::move(made));
}

tsdb::data_entry_t read_enumerated(RecordReader& reader) {
    constexpr uint32_t kLastState = 31;
    auto made = std::make_unique<tsdb::data_interval_enum_t>();
    reader.span(made->start, made->end);
    made->mask = uint32_t{1} << reader.count("state", {}, kLastState);
    made->ngood = reader.count("good", 1);
    made->nbad = reader.count("bad", 0);
    return tsdb::data_entry_t(std::move(made));
}

tsdb::data_entry_t read_incident(RecordReader& reader) {
    auto made = std::make_unique<tsdb::data_interval_incident_t>();
    made->time = reader.moment("time");
    made->severity = reader.count("severity", 0);
    made->message = reader.text("message");
    return tsdb::data_entry_t(std::move(made));
}

// ---- data on the way out -----------------------------------------------------------------------

std::string moment_text(int64_t seconds) {
    std::string text = tql::value_text(tql::property_date_t(prop::startTime, seconds));
    std::replace(text.begin(), text.end(), ' ', 'T');
    return text + "Z";
}

/// The double with the shortest text, which is that of the float.
double plain(float value) {
    return std::strtod(fmt::format("{}", value).c_str(), nullptr);
}

ordered_json record_to_json(const tsdb::data_interval_t& point) {
    ordered_json record;
    switch (point.type()) {
        case tsdb::interval_type_t::incident: {
            const auto& incident = static_cast<const tsdb::data_interval_incident_t&>(point);
            record["time"] = moment_text(incident.time);
            record["severity"] = incident.severity;
            record["message"] = incident.message;
            break;
        }
        case tsdb::interval_type_t::continuous: {
            const auto& measured = static_cast<const tsdb::data_interval_continuous_t&>(point);
            record["start"] = moment_text(measured.start);
            record["end"] = moment_text(measured.end);
            record["min"] = plain(measured.min);
            record["avg"] = plain(measured.avg);
            record["max"] = plain(measured.max);
            record["good"] = measured.ngood;
            record["bad"] = measured.nbad;
            break;
        }
        case tsdb::interval_type_t::enumerated: {
            const auto& seen = static_cast<const tsdb::data_interval_enum_t&>(point);
            record["start"] = moment_text(seen.start);
            record["end"] = moment_text(seen.end);
            ordered_json& states = record["states"] = ordered_json::array();
            for (uint32_t state = 0; state < 32; ++state)
                if ((seen.mask >> state & 1U) != 0) states.push_back(state);
            record["good"] = seen.ngood;
            record["bad"] = seen.nbad;
            break;
        }
        default:
            break;
    }
    return record;
}

/// The layout that series of such data have, and its name.
struct Layout {
    std::string_view name;
    const tsdb::time_series_layout_t& layout;
};
Layout layout_of(uint32_t data_type, uint32_t property) {
    switch (data_type) {
        case tsdb::kIncidentData:
            return {"incident", property == prop::tsdbIncident ? tsdb::small_incident_layout()
                                                               : tsdb::large_incident_layout()};
        case tsdb::kEnumeratedData:
            return {"enumerated", tsdb::enumerated_layout()};
        case tsdb::kUptimeData:
        case tsdb::kUptimeSumData:
            return {"uptime", tsdb::uptime_layout()};
        default:
            return {"continuous", tsdb::continuous_layout()};
    }
}

ordered_json layout_to_json(const Layout& known) {
    ordered_json levels = ordered_json::array();
    for (const tsdb::level_t& level : known.layout.levels)
        levels.push_back({{"records", level.records}, {"span_s", level.span_s}});
    ordered_json object;
    object["type"] = known.name;
    object["levels"] = std::move(levels);
    return object;
}

ordered_json columns_to_json(uint32_t layout_type, const std::string& unit) {
    ordered_json columns = ordered_json::array();
    const auto add = [&](std::string_view name, std::string_view type, std::string_view of = {}) {
        ordered_json column{{"name", name}, {"type", type}};
        if (!of.empty()) column["unit"] = of;
        columns.push_back(std::move(column));
    };
    if (layout_type == tsdb::incident) {
        add("time", "date");
        add("severity", "uint");
        add("message", "string");
        return columns;
    }
    add("start", "date");
    add("end", "date");
    if (layout_type == tsdb::enumerated)
        add("states", "list of uint");
    else
        for (const std::string_view name : {"min", "avg", "max"}) add(name, "real", unit);
    add("good", "uint");
    add("bad", "uint");
    return columns;
}

std::string text_of(const tql::result_t& object, uint32_t property) {
    const auto found = object.properties.find(property);
    if (found == object.properties.end() || found->second->is_null) return {};
    // Bytes that no text stands for are no label.
    const tql::value_kind_t kind = tql::kind_of(*found->second);
    if (kind.type == tql::property_type_t::blob && !kind.is_unit) return {};
    return tql::value_text(*found->second);
}

Response respond(const ordered_json& body) {
    return {200, body.dump(-1, ' ', false, ordered_json::error_handler_t::replace)};
}

}  // namespace

std::optional<int64_t> read_moment(std::string_view text, int64_t now_s) {
    std::optional<int64_t> moment;
    if (text == "now") return now_s;
    if (text.size() > 2 && text.front() == '-') {
        const std::string digits(text.substr(1, text.size() - 2));
        if (digits.size() > 9 || digits.find_first_not_of("0123456789") != digits.npos)
            return std::nullopt;
        for (const RelativeUnit& unit : kRelativeUnits)
            if (unit.sign == text.back())
                moment = std::max<int64_t>(now_s - std::stoll(digits) * unit.seconds, 0);
    } else {
        try {
            const tql::value_t read =
                tql::parse_value(prop::startTime, {tql::property_type_t::date}, text);
            moment = static_cast<const tql::property_date_t&>(*read).value;
        } catch (const tql::value_text_error&) {  // told by the caller, with all forms there are
        }
    }
    if (moment && (*moment < 0 || *moment > kLastMoment)) return std::nullopt;
    return moment;
}

SeriesRequest series_request(const Request& request, int64_t now_s) {
    SeriesRequest wanted;
    wanted.id = read_id(std::string_view(request.path).substr(kSeriesPath.size()));
    if (request.method == "POST") {
        read_appended(request, wanted);
    } else {
        allow_method(request, "GET");
        read_range(request, now_s, wanted);
    }
    return wanted;
}

dbms::Tql_Select_Data series_object_request(const SeriesRequest& wanted) {
    dbms::Tql_Select_Data record;
    record.root_ids.push_back(wanted.id);
    record.pattern = tql::pattern_t(cls::Any);
    record.pattern.wanted_properties = {wanted.property, prop::unit, prop::treeLabel};
    return record;
}

bool has_series(const SeriesRequest& wanted, const dbms::Return_Tql_Select_Data& found) {
    if (found.res.empty())
        throw errors::tql(errors::ERR_NO_SUCH_ID,
                          fmt::format("{} not found", wanted.id.to_string()));
    const tql::result_t& object = found.res.front();
    const auto value = object.properties.find(wanted.property);
    if (value == object.properties.end() || value->second->type() != tql::property_type_t::index)
        throw errors::tql(errors::ERR_NO_SUCH_PROPERTY,
                          fmt::format("{} {} has no property {}", tql::class_name(object.class_),
                                      wanted.id.to_string(), tql::property_name(wanted.property)));
    return !value->second->is_null &&
           static_cast<const tql::property_index_t&>(*value->second).value != tsdb::kNoSeries;
}

void refuse_empty(const SeriesRequest& wanted) {
    throw Refused(404, "NO_SERIES",
                  fmt::format("{} has no time series in {} yet", wanted.id.to_string(),
                              tql::property_name(wanted.property)));
}

dbms::TSDB_Get_Data_Data series_data_request(const SeriesRequest& wanted) {
    dbms::TSDB_Get_Data_Data record;
    record.id = wanted.id;
    record.index_property = wanted.property;
    record.flags = tsdb::get_flags(true, wanted.resolution_s);
    record.start = wanted.from;
    record.end = wanted.to;
    record.count = wanted.count + 1;  // one more tells whether there are more
    return record;
}

dbms::TSDB_Get_Latest_Data_Record_Data series_type_request(const SeriesRequest& wanted) {
    dbms::TSDB_Get_Latest_Data_Record_Data record;
    record.id = wanted.id;
    record.index_property = wanted.property;
    return record;
}

std::optional<uint32_t> type_of_first_data(uint32_t property) {
    if (property == prop::tsdbIncident) return tsdb::kIncidentData;
    if (property == prop::tsdbForecast) return tsdb::kContinuousData;
    return std::nullopt;
}

dbms::TSDB_Append_Data_Data series_append_request(const SeriesRequest& wanted, uint32_t data_type,
                                                  int64_t now_s) {
    dbms::TSDB_Append_Data_Data record;
    record.id = wanted.id;
    record.index_property = wanted.property;
    record.data_type = data_type;
    size_t place = 0;
    for (const json& each : *wanted.appended) {
        RecordReader reader(each, ++place, now_s);
        record.data.push_back(data_type == tsdb::kIncidentData     ? read_incident(reader)
                              : data_type == tsdb::kEnumeratedData ? read_enumerated(reader)
                                                                   : read_measured(reader));
        reader.check_all_read();
    }
    return record;
}

Response answer(const SeriesRequest& wanted, const tql::result_t& object,
                dbms::Return_TSDB_Get_Data_Data returned) {
    const Layout known = layout_of(returned.data_type, wanted.property);
    const std::string unit = text_of(object, prop::unit);
    const bool more = returned.data.size() > wanted.count;
    if (more) returned.data.erase(returned.data.begin());  // in the order of time
    ordered_json body;
    body["id"] = wanted.id.to_string();
    body["class"] = tql::class_name(object.class_);
    body["label"] = text_of(object, prop::treeLabel);
    body["property"] = tql::property_name(wanted.property);
    body["layout"] = layout_to_json(known);
    body["columns"] = columns_to_json(known.layout.type, unit);
    body["more"] = more;
    ordered_json& records = body["records"] = ordered_json::array();
    for (const tsdb::data_entry_t& entry : returned.data)
        if (entry) records.push_back(record_to_json(*entry));
    return respond(body);
}

Response answer_append(const SeriesRequest& wanted) {
    ordered_json body;
    body["id"] = wanted.id.to_string();
    body["property"] = tql::property_name(wanted.property);
    body["appended"] = wanted.appended->size();
    return respond(body);
}

}  // namespace wapi
