#include "support/catalogue_listing.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <stdexcept>

namespace support {

namespace {

using Words = std::vector<std::string>;

uint32_t number_of(const std::string& text) {
    uint32_t number = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (fault != std::errc() || end != text.data() + text.size())
        throw std::runtime_error(fmt::format("\"{}\" is no number", text));
    return number;
}

/// The words of a line; a quoted one keeps its blanks and loses its quotes.
Words words_of(const std::string& line) {
    Words words;
    for (size_t at = 0; (at = line.find_first_not_of(' ', at)) != std::string::npos;) {
        const bool quoted = line[at] == '"';
        const size_t end = std::min(line.size(), line.find(quoted ? '"' : ' ', at + 1));
        words.push_back(quoted ? line.substr(at + 1, end - at - 1) : line.substr(at, end - at));
        at = end + (quoted ? 1 : 0);
    }
    return words;
}

Words parts_of(const std::string& list) {
    Words parts(1);
    for (const char one : list)
        one == ',' ? static_cast<void>(parts.emplace_back()) : parts.back().push_back(one);
    return parts;
}

std::set<uint32_t> numbers_of(const std::string& list) {
    std::set<uint32_t> numbers;
    for (const std::string& one : parts_of(list)) numbers.insert(number_of(one));
    return numbers;
}

/// Line feeds and carriage returns are written as in C.
std::string unescaped(std::string text) {
    for (const auto& [written, meant] : {std::pair{"\\r", "\r"}, std::pair{"\\n", "\n"}})
        for (size_t at = 0; (at = text.find(written)) != std::string::npos;)
            text.replace(at, 2, meant);
    return text;
}

/// What a property starts with when the listing says nothing and null isn't allowed.
std::optional<std::string> natural_start(const ListedProperty& property) {
    static const std::set<std::string> kEmptyTexts = {
        "string",      "string-any-case", "identifier",  "markup",           "regex", "password",
        "string-list", "object-set",      "acyclic-set", "object-set-moved", "oid",   "blob",
        "unit",        "unit-from-text"};
    if (property.kind == "bool") return "false";
    if (kEmptyTexts.contains(property.kind)) return "";
    return std::nullopt;
}

ListedProperty property_of(const Words& words) {
    if (words.size() < 3) throw std::runtime_error("a property has a number, a name and a kind");
    ListedProperty made;
    made.number = number_of(words[0]);
    made.name = words[1];
    made.kind = words[2];
    bool start_given = false;
    bool end_given = false;
    const auto value = [](const std::string& word) {
        return word == "null" ? std::nullopt : std::optional(unescaped(word));
    };
    for (size_t at = 3; at < words.size(); ++at) {
        const std::string& word = words[at];
        const auto next = [&]() -> const std::string& {
            if (++at == words.size()) throw std::runtime_error(word + " wants a word behind it");
            return words[at];
        };
        if (word == "=") {
            made.start = value(next());
            start_given = true;
        } else if (word == "or") {
            made.end = value(next());
            end_given = true;
        } else if (word == "of") {
            made.of = parts_of(next());
        } else if (word == "in") {
            made.subtypes = numbers_of(next());
        } else if (word == "subtype") {
            made.tells_subtype = true;
        } else if (word == "length") {
            made.limits = "length " + next();
        } else if (word.find("..") != std::string::npos) {
            made.limits = word;
        } else if (at == 3 && word.find_first_not_of("NKCXR") == std::string::npos) {
            made.flags = word;
        } else {
            throw std::runtime_error(fmt::format("\"{}\" isn't understood", word));
        }
    }
    if (!start_given && !made.has('N')) made.start = natural_start(made);
    if (!end_given) made.end = made.start;
    made.must_be_given = !made.start && !made.has('N') && !made.has('R') && made.kind != "action";
    return made;
}

class Reader {
  public:
    void read(const std::filesystem::path& path) {
        std::ifstream file(path);
        std::string line;
        for (unsigned number = 1; std::getline(file, line); ++number) try {
                take(words_of(line));
            } catch (const std::exception& fault) {
                throw std::runtime_error(
                    fmt::format("{}:{}: {}", path.filename().string(), number, fault.what()));
            }
    }

    Catalogue finish() {
        for (auto& [nodetype, one] : catalogue_) {
            for (const auto& [group, name] : children_[nodetype])
                (group < 0 ? one.children : one.groups[group]).insert(nodetype_of(name));
            for (const auto& [set, subtypes] : uses_[nodetype]) add(one, sets_.at(set), subtypes);
            add(one, sets_.at("every"), {});
        }
        return std::move(catalogue_);
    }

  private:
    void take(const Words& words) {
        if (words.empty() || words[0].starts_with('#')) return;
        if (words[0] == "class") return begin_class(words);
        if (words[0] == "set") {
            properties_ = &sets_[words.at(1)];
            class_ = nullptr;
            return;
        }
        if (properties_ == nullptr) throw std::runtime_error("a line outside of a class or set");
        if (class_ != nullptr && words[0] == "contains") return add_children(words, 1, -1);
        if (class_ != nullptr && words[0] == "group")
            return add_children(words, 2, static_cast<int32_t>(number_of(words.at(1))));
        if (class_ != nullptr && words[0] == "rule") return add_rule(words);
        if (class_ != nullptr && words[0] == "use") {
            uses_[class_->nodetype].emplace_back(
                words.at(1), words.size() > 3 ? numbers_of(words.at(3)) : std::set<uint32_t>());
            return;
        }
        add_property(words);
    }

    void begin_class(const Words& words) {
        ListedClass made;
        made.number = number_of(words.at(1));
        made.name = words.at(2);
        made.nodetype = number_of(words.at(4));
        for (size_t at = 5; at < words.size(); ++at)
            if (words[at] == "origin")
                made.origin = number_of(words.at(++at));
            else if (words[at] == "singleton")
                made.singleton = "any";
            else if (words[at] == "below")
                made.singleton = words.at(++at);
        const auto [place, fresh] = catalogue_.emplace(made.nodetype, made);
        if (!fresh) throw std::runtime_error("the nodetype is there already");
        class_ = &place->second;
        properties_ = &class_->properties;
    }

    void add_children(const Words& words, size_t from, int32_t group) {
        for (size_t at = from; at < words.size(); ++at)
            children_[class_->nodetype].emplace_back(group, words[at]);
    }

    void add_rule(const Words& words) {
        ListedRule made;
        made.greater = words.at(1);
        made.lesser = words.at(3);
        if (words.at(4) == "in") made.subtype = number_of(words.at(5));
        made.message = words.back();
        class_->rules.push_back(std::move(made));
    }

    /// "2700..2731 stateAction" is one property for each number, with 0 to 31 behind its name.
    void add_property(Words words) {
        const size_t dots = words[0].find("..");
        if (dots == std::string::npos) return properties_->push_back(property_of(words));
        const uint32_t first = number_of(words[0].substr(0, dots));
        const uint32_t last = number_of(words[0].substr(dots + 2));
        const std::string name = words.at(1);
        for (uint32_t number = first; number <= last; ++number) {
            words[0] = std::to_string(number);
            words[1] = name + std::to_string(number - first);
            properties_->push_back(property_of(words));
        }
    }

    static void add(ListedClass& to, const std::vector<ListedProperty>& set,
                    const std::set<uint32_t>& subtypes) {
        const std::vector<ListedProperty> own = to.properties;
        for (ListedProperty one : set) {
            if (std::any_of(own.begin(), own.end(),
                            [&](const auto& other) { return other.number == one.number; }))
                continue;
            if (!subtypes.empty()) one.subtypes = subtypes;
            to.properties.push_back(std::move(one));
        }
    }

    /// Of "NAME:NODETYPE", or of a name that has only one.
    [[nodiscard]] uint32_t nodetype_of(const std::string& child) const {
        if (const size_t colon = child.find(':'); colon != std::string::npos)
            return number_of(child.substr(colon + 1));
        std::set<uint32_t> found;
        for (const auto& [nodetype, one] : catalogue_)
            if (one.name == child) found.insert(nodetype);
        if (found.size() != 1)
            throw std::runtime_error(fmt::format("{} classes are named {}", found.size(), child));
        return *found.begin();
    }

    Catalogue catalogue_;
    std::map<std::string, std::vector<ListedProperty>> sets_;
    std::map<uint32_t, std::vector<std::pair<int32_t, std::string>>> children_;
    std::map<uint32_t, std::vector<std::pair<std::string, std::set<uint32_t>>>> uses_;
    ListedClass* class_ = nullptr;
    std::vector<ListedProperty>* properties_ = nullptr;
};

}  // namespace

Catalogue read_catalogue(const std::string& directory) {
    Reader reader;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        if (entry.path().extension() == ".txt") reader.read(entry.path());
    return reader.finish();
}

}  // namespace support
