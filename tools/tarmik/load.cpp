// `load`: creates the objects of a file through the gateway.
//
// "group": 1 puts a child into a group of its parent, as the checks of a node are.
// An object of the file may have a name of its own, "as": "mail". Below it in the file {"object":
// "mail"} stands for its id, as a value or in a list of values.
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "tarmik/commands.h"

namespace cli {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr int kMaxDepth = 1000;

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
    throw CommandError(kFailed, fmt::format("{}: {}", path, reason));
}

json read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) refuse(path, "cannot be read");
    try {
        return json::parse(std::string{std::istreambuf_iterator<char>(file), {}});
    } catch (const std::ios_base::failure&) {
        refuse(path, "cannot be read");  // a folder opens too
    } catch (const json::exception& wrong) {
        // The parser's text begins with its own name for the fault, in brackets.
        const std::string reason = wrong.what();
        const size_t name_end = reason.find("] ");
        refuse(path, name_end == std::string::npos ? reason : reason.substr(name_end + 2));
    }
}

/// The name in {"object": NAME}, or null where the value is of another form.
const json* reference_in(const json& value) {
    const bool is_one = value.is_object() && value.size() == 1 && value.contains("object");
    return is_one ? &value["object"] : nullptr;
}

/// Checks the form of the whole file before anything is created.
class FormCheck {
  public:
    explicit FormCheck(const std::string& path) : path_(path) {}

    /// The number of objects.
    size_t count(const json& objects, int depth = 1) {
        if (!objects.is_array()) refuse(path_, "\"objects\" and \"children\" must be lists");
        if (depth > kMaxDepth)
            refuse(path_, fmt::format("nested more than {} levels deep", kMaxDepth));
        size_t count = 0;
        for (const json& object : objects) {
            check_object(object);
            ++count;
            if (object.contains("children")) count += this->count(object["children"], depth + 1);
        }
        return count;
    }

  private:
    void check_object(const json& object) {
        if (!object.is_object() || !object.contains("class") || !object["class"].is_string())
            refuse(path_, "each object needs a \"class\"");
        if (object.contains("properties") && !object["properties"].is_object())
            refuse(path_, "\"properties\" must be an object of values by name");
        for (const auto& [field, value] : object.items())
            if (field != "class" && field != "properties" && field != "children" && field != "as" &&
                field != "group")
                refuse(path_, fmt::format("unknown field \"{}\"", field));
        for (const json& value : object.value("properties", json::object())) {
            check_reference(value);
            if (value.is_array())
                for (const json& element : value) check_reference(element);
        }
        if (object.contains("group") && !object["group"].is_number_unsigned())
            refuse(path_, fmt::format("\"group\" must be a number: {}", object["group"].dump()));
        if (object.contains("as")) add_name(object["as"]);
    }

    void add_name(const json& name) {
        if (!name.is_string()) refuse(path_, fmt::format("\"as\" must be text: {}", name.dump()));
        if (!names_.insert(name.get<std::string>()).second)
            refuse(path_, fmt::format("two objects are called {}", name.dump()));
    }

    void check_reference(const json& value) const {
        const json* name = reference_in(value);
        if (name && !(name->is_string() && names_.contains(name->get<std::string>())))
            refuse(path_, fmt::format("no object above is called {}", name->dump()));
    }

    const std::string& path_;
    std::set<std::string> names_;
};

class Loader {
  public:
    Loader(Api& api, const Output& output, size_t total)
        : api_(api), output_(output), total_(total) {}

    void load(const json& objects, const std::string& parent) {
        for (const json& object : objects) {
            const std::string group =
                object.contains("group") ? "." + object["group"].dump() : std::string();
            const std::string id = ensure(object, parent + group);
            if (object.contains("as")) ids_[object["as"].get<std::string>()] = id;
            show_progress();
            if (object.contains("children")) load(object["children"], id);
        }
    }

    [[nodiscard]] size_t created() const { return created_; }
    [[nodiscard]] size_t existing() const { return existing_; }

  private:
    /// The id of the object, made or found.
    std::string ensure(const json& object, const std::string& parent) {
        json body{{"class", object["class"]},
                  {"parent", parent},
                  {"properties", with_ids(object.value("properties", json::object()))}};
        if (const std::string id = existing_config(body); !id.empty()) {
            ++existing_;
            return id;
        }
        try {
            const ordered_json answer = api_.post("/api/v1/create", body);
            ++created_;
            return answer.at("id").get<std::string>();
        } catch (const ServerRefusal& refusal) {
            const std::string id =
                refusal.name() == "ERR_EXISTS" ? existing_id(refusal.message()) : "";
            if (id.empty())
                throw CommandError(refusal.exit_code(),
                                   fmt::format("{} under {}, after {} of {} objects: {}",
                                               object["class"].get<std::string>(), parent,
                                               created_ + existing_, total_, refusal.text()));
            ++existing_;
            return id;
        }
    }

    /// The server knows an object again by its key. In that of a configuration of a node class an
    /// object tag is usually missing, and it takes any number of such; so one is looked for here.
    std::string existing_config(const json& body) {
        const json& properties = body["properties"];
        const auto& class_name = body["class"].get_ref<const std::string&>();
        if ((class_name != "NodeClassCheckGroupConfig" && class_name != "NodeClassCheckConfig") ||
            !properties.value("tagId", json()).is_null())
            return {};
        const json tag = properties.value("tag", json(""));
        const json for_all = properties.value("forAll", json(false));
        if (!tag.is_string() || !for_all.is_boolean()) return {};  // for the server to refuse
        const std::string pattern = fmt::format(". > {}{{tag = {} & forAll = {} & tagId = null}}",
                                                class_name, tag.dump(), for_all.dump());
        const ordered_json found = api_.post(
            "/api/v1/select", {{"roots", {body["parent"]}}, {"pattern", pattern}})["results"];
        return found.empty() ? "" : found[0].at("children").at(0).at("id").get<std::string>();
    }

    /// The values with ids in place of the names of objects.
    json with_ids(json properties) const {
        const auto put_id = [this](json& value) {
            if (const json* name = reference_in(value)) value = ids_.at(name->get<std::string>());
        };
        for (json& value : properties) {
            put_id(value);
            if (value.is_array())
                for (json& element : value) put_id(element);
        }
        return properties;
    }

    /// The text of such a refusal begins with "EXISTS{", the id and "}".
    static std::string existing_id(const std::string& message) {
        constexpr std::string_view kStart = "EXISTS{";
        const size_t end = message.find('}');
        if (!message.starts_with(kStart) || end == message.npos) return {};
        return message.substr(kStart.size(), end - kStart.size());
    }

    void show_progress() const {
        if (!output_.remarks_are_terminal) return;
        const size_t done = created_ + existing_;
        output_.remark(
            fmt::format("\rLoading {} of {}{}", done, total_, done == total_ ? "\n" : ""));
    }

    Api& api_;
    const Output& output_;
    size_t total_;
    std::map<std::string, std::string> ids_;
    size_t created_ = 0;
    size_t existing_ = 0;
};

}  // namespace

void Commands::load(const std::string& path) {
    const json file = read_file(path);
    if (!file.is_object() || !file.contains("objects") ||
        (file.contains("parent") && !file["parent"].is_string()))
        refuse(path, "expected {\"parent\": id, \"objects\": [...]}");
    Loader loader(api_, output_, FormCheck(path).count(file["objects"]));
    loader.load(file["objects"], file.value("parent", "0.1"));
    if (output_.json)
        output_.print(fmt::format("{{\"created\": {}, \"existing\": {}}}\n", loader.created(),
                                  loader.existing()));
    else
        output_.remark(fmt::format("{} objects created, {} were there already\n", loader.created(),
                                   loader.existing()));
}

}  // namespace cli
