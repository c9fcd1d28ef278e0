// The readable form of records: one field to a line, as name, ": " and value, two blanks further in
// for each level. Include this only where codecs are instantiated.
#pragma once

#include <list>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "queues/detail/wire.h"

namespace queues::detail {

/// Deeper levels of a record print as "...": a print is for people, and stacks end.
inline constexpr int kMaxPrintDepth = 50;

/// Prints values behind a name, at a level of indentation.
class Printer {
  public:
    explicit Printer(std::ostream& out, int level = 0) : out_(out), level_(level) {}

    void line(std::string_view name, std::string_view text);
    /// The name alone, as head of what follows one level further in.
    void head(std::string_view name);
    /// False when the level is too deep; then it has said so.
    bool enter();
    void leave() { --level_; }

  private:
    std::ostream& out_;
    int level_;
};

[[nodiscard]] std::string text_of(queue_t field);
[[nodiscard]] std::string text_of(double field);
[[nodiscard]] std::string text_of(float field);

void show(Printer& out, std::string_view name, const std::string& field);
void show(Printer& out, std::string_view name, const std::vector<std::uint8_t>& field);
void show(Printer& out, std::string_view name, const Time& field);
void show(Printer& out, std::string_view name, const tql::id_t& field);
void show(Printer& out, std::string_view name, const tql::value_t& field);
void show(Printer& out, std::string_view name, const tsdb::data_entry_t& field);

template <class T>
requires std::is_arithmetic_v<T> || std::is_enum_v<T>
void show(Printer& out, std::string_view name, T field) {
    if constexpr (std::is_same_v<T, bool>)
        out.line(name, field ? "true" : "false");
    else if constexpr (std::is_same_v<T, queue_t> || std::is_floating_point_v<T>)
        out.line(name, text_of(field));
    else if constexpr (std::is_enum_v<T>)
        out.line(name, std::to_string(static_cast<std::underlying_type_t<T>>(field)));
    else
        out.line(name, std::to_string(field));
}

template <Record R>
void show(Printer& out, std::string_view name, const R& field);
template <class K, class V>
void show(Printer& out, std::string_view name, const std::map<K, V>& field);
inline void show(Printer& out, std::string_view name, const tql::property_map_t& field);

/// Elements go by their place.
template <class Range>
void show_range(Printer& out, std::string_view name, const Range& range);
template <class T>
void show(Printer& out, std::string_view name, const std::vector<T>& field) {
    show_range(out, name, field);
}
template <class T>
void show(Printer& out, std::string_view name, const std::list<T>& field) {
    show_range(out, name, field);
}
template <class T>
void show(Printer& out, std::string_view name, const std::set<T>& field) {
    show_range(out, name, field);
}

template <class Range>
void show_range(Printer& out, std::string_view name, const Range& range) {
    out.head(name);
    if (!out.enter()) return;
    std::size_t place = 0;
    for (const auto& element : range) show(out, std::to_string(place++), element);
    out.leave();
}

[[nodiscard]] inline std::string key_text(const std::string& key) {
    return key;
}
[[nodiscard]] inline std::string key_text(const tql::id_t& key) {
    return key.to_string();
}
[[nodiscard]] inline std::string key_text(std::uint32_t key) {
    return std::to_string(key);
}

template <class Map>
void show_map(Printer& out, std::string_view name, const Map& field) {
    out.head(name);
    if (!out.enter()) return;
    for (const auto& [key, value] : field) show(out, key_text(key), value);
    out.leave();
}
template <class K, class V>
void show(Printer& out, std::string_view name, const std::map<K, V>& field) {
    show_map(out, name, field);
}
void show(Printer& out, std::string_view name, const tql::property_map_t& field) {
    show_map(out, name, field);
}

template <Record R>
void show_fields(Printer& out, const R& field) {
    R::fields(field,
              [&out](std::string_view name, const auto& member) { show(out, name, member); });
}

template <Record R>
void show(Printer& out, std::string_view name, const R& field) {
    out.head(name);
    if (!out.enter()) return;
    show_fields(out, field);
    out.leave();
}

}  // namespace queues::detail
