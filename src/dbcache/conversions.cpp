#include "dbcache/conversions.h"

#include <algorithm>
#include <fmt/format.h>

#include "dbcache/property_schema.h"
#include "tql/names.h"
#include "util/text.h"
#include "util/unit_expression.h"

namespace dbcache {

namespace {

NodeId reference(const tql::id_t& id, uint32_t number) {
    if (!id.empty() && id.size() != 2)
        fail_illegal_value(fmt::format("{} given illegal value", tql::property_name(number)));
    return id.to_node_id();
}

void refuse_nul(const std::string& text, uint32_t number) {
    if (text.find('\0') != std::string::npos)
        fail_illegal_value(
            fmt::format("Property {} may not contain a NUL", tql::property_name(number)));
}

/// Reads one to three digits as a number below 256.
bool parse_octet(std::string_view text, uint32_t& octet) {
    if (text.empty() || text.size() > 3) return false;
    octet = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        octet = octet * 10 + static_cast<uint32_t>(c - '0');
    }
    return octet <= 255;
}

}  // namespace

void Assign::copy(const std::string& from, std::string& to, uint32_t number) {
    refuse_nul(from, number);
    to = from;
}

void NodeIdConversion::to_stored(const tql::property_object_t& wire, mdb::PropertyNodeId& stored,
                                 uint32_t number) {
    stored.value = reference(wire.value, number);
}

void NodeIdConversion::to_wire(mdb::PropertyNodeId& stored, tql::property_object_t& wire) {
    wire.value = tql::id_t::from_node_id(stored.value);
}

void NodeIdSetConversion::to_stored(const tql::property_object_set_t& wire,
                                    mdb::PropertyNodeIdList& stored, uint32_t number) {
    stored.value.clear();
    stored.value.reserve(wire.value.size());
    for (const tql::id_t& id : wire.value) stored.value.push_back(reference(id, number));
}

void NodeIdSetConversion::to_wire(mdb::PropertyNodeIdList& stored,
                                  tql::property_object_set_t& wire) {
    wire.value.clear();
    for (const NodeId& id : stored.value)
        wire.value.insert(wire.value.end(), tql::id_t::from_node_id(id));
}

void StringListConversion::to_stored(const tql::property_string_list_t& wire,
                                     mdb::PropertyStringList& stored, uint32_t number) {
    for (const std::string& text : wire.value) refuse_nul(text, number);
    stored.value = wire.value;
}

void StringListConversion::to_wire(mdb::PropertyStringList& stored,
                                   tql::property_string_list_t& wire) {
    wire.value = std::move(stored.value);
}

void IPv4Conversion::to_stored(const tql::property_string_t& wire, mdb::PropertyUint32& stored,
                               uint32_t number) {
    const std::vector<std::string> pieces = util::split(wire.value, '.', true);
    bool good = pieces.size() == 4;
    stored.value = 0;
    for (size_t i = 0; good && i < pieces.size(); ++i) {
        uint32_t octet = 0;
        good = parse_octet(pieces[i], octet);
        stored.value = stored.value << 8 | octet;
    }
    if (!good)
        fail_illegal_value(fmt::format("Property {}: Malformed IP address: {}",
                                       tql::property_name(number), util::quote(wire.value)));
}

void IPv4Conversion::to_wire(mdb::PropertyUint32& stored, tql::property_string_t& wire) {
    const uint32_t address = stored.value;
    wire.value = fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 255, address >> 8 & 255,
                             address & 255);
}

std::vector<uint32_t> string_to_oid_conversion_t::parse(const std::string& text) {
    std::vector<uint32_t> numbers;
    const std::string_view digits = std::string_view(text).substr(text.starts_with('.') ? 1 : 0);
    for (const std::string& piece : util::split(digits, '.', true)) {
        if (!std::all_of(piece.begin(), piece.end(), [](char c) { return c >= '0' && c <= '9'; }))
            throw error::EParseError(fmt::format("Malformed OID: {}", util::quote(text)));
        numbers.push_back(util::parse_number<uint32_t>(piece));
    }
    return numbers;
}

void UnitStringToUnitBlobAssign::to_stored(const tql::property_string_t& wire,
                                           mdb::PropertyBlob& stored, uint32_t) {
    stored.value = UnitExpression(std::string_view(wire.value)).to_blob();
}

void UnitStringToUnitBlobAssign::convert(const mdb::PropertyString& old_form,
                                         mdb::PropertyBlob& new_form) {
    new_form.value = UnitExpression(std::string_view(old_form.value)).to_blob();
}

}  // namespace dbcache
