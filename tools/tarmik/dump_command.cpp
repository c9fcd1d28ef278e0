#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/errors.h"
#include "mdb/object_scan.h"
#include "mdb/property_types.h"
#include "platform/clock.h"
#include "platform/overlay_files.h"
#include "tarmik/offline_commands.h"
#include "tarmik/stored_values.h"
#include "tql/names.h"

namespace cli {

namespace {

using nlohmann::ordered_json;

struct Place {
    NodeId id;
    mdb::block_handle_t handle;
};

/// Where the objects lie, by id; those without one or with damaged records come first.
std::vector<Place> find_objects(mdb::Database& database) {
    std::vector<Place> places;
    mdb::scan_objects(database, [&](const mdb::dobj& object) {
        mdb::PropertyNodeId id(prop::id);
        try {
            id.read(object);
        } catch (const mdb::error_generic&) {
            id.value = {};
        }
        places.push_back({id.value, object.handle()});
    });
    std::sort(places.begin(), places.end(), [](const Place& a, const Place& b) {
        return std::tie(a.id, a.handle) < std::tie(b.id, b.handle);
    });
    return places;
}

class Dump {
  public:
    Dump(mdb::Database& database, const Output& output) : database_(database), output_(output) {}

    void print(const Place& place) {
        // A copy of the block, as a large object is read meanwhile.
        const mdb::dobj object(place.handle, database_.cache().private_block(place.handle.block));
        ordered_json line{{"id", place.id.to_string()},
                          {"block", place.handle.block},
                          {"offset", place.handle.offset}};
        ordered_json properties = ordered_json::object();
        std::vector<std::string> inherited;
        // The nodetype stands before all whose kind hangs on the class.
        uint32_t class_number = cls::Any;
        try {
            for (const mdb::RecordView record : mdb::ObjectRecords(object))
                add(record, place, class_number, line, properties, inherited);
        } catch (const mdb::error_generic& damage) {
            complain(place, damage.text());
        }
        line["properties"] = std::move(properties);
        if (!inherited.empty()) line["inherited"] = inherited;
        output_.print(line.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n");
    }
    [[nodiscard]] bool whole() const { return whole_; }

  private:
    void add(const mdb::RecordView& record, const Place& place, uint32_t& class_number,
             ordered_json& line, ordered_json& properties, std::vector<std::string>& inherited) {
        const tql::property_row_t* row = tql::find_property_row(record.id());
        const std::string name =
            row == nullptr ? std::to_string(record.id()) : std::string(row->name);
        try {
            ordered_json value = stored_value_to_json(database_, class_number, record);
            if (record.is_inherited()) inherited.push_back(name);
            if (record.id() == prop::nodeType && value.is_number_unsigned()) {
                line["class"] = class_of(value.get<uint32_t>());
                class_number =
                    tql::find_nodetype_class(value.get<uint32_t>()).value_or(uint32_t{cls::Any});
            }
            if (record.id() != prop::id) properties[name] = std::move(value);
        } catch (const mdb::error_generic& damage) {
            complain(place, fmt::format("{}: {}", name, damage.text()));
        }
    }

    /// The name of the class of a nodetype; its number where there is none.
    static ordered_json class_of(uint32_t nodetype) {
        const auto class_number = tql::find_nodetype_class(nodetype);
        if (!class_number) return nodetype;
        return std::string(tql::find_class_name(*class_number));
    }

    void complain(const Place& place, const std::string& text) {
        whole_ = false;
        output_.remark(fmt::format("tarmik: block {} offset {}: object {}: {}\n",
                                   place.handle.block, place.handle.offset, place.id.to_string(),
                                   text));
    }

    mdb::Database& database_;
    const Output& output_;
    bool whole_ = true;
};

}  // namespace

exit_code_t dump_command(const OfflineArguments& arguments, const Output& output) {
    logging::set_all_levels(logging::level_t::off);
    platform::OverlayFiles files;
    const platform::SystemClock clock;
    mdb::Database database(
        {.database_path = arguments.database_path, .journal_path = arguments.journal_path}, files,
        clock);
    Dump dump(database, output);
    for (const Place& place : find_objects(database)) dump.print(place);
    return dump.whole() ? kDone : kFailed;
}

}  // namespace cli
