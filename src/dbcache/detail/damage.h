// Failures and log lines that every kind of property shares, kept out of the templates.
#pragma once

#include <cstdint>
#include <string>

#include "mdb/errors.h"
#include "util/node_id.h"
#include "util/text.h"

namespace dbcache::detail {

/// Throws errors::tql with code 9, "Type mismatch for property " and the name.
[[noreturn]] void fail_type_mismatch(uint32_t property);
/// Throws errors::tql with code 10, "Value for NAME too low" or "too high".
[[noreturn]] void fail_out_of_bounds(uint32_t property, const char* direction);
/// Throws errors::tql with code 10, "Property NAME" and the text as it stands.
[[noreturn]] void fail_property(uint32_t property, const std::string& text);

/// An object lacks a value that it must have; a null `id` stands for a template.
void log_missing_value(uint32_t property, const NodeId& id);
void log_unreadable_value(uint32_t property, const std::string& reason);

}  // namespace dbcache::detail
