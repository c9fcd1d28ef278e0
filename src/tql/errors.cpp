#include "tql/errors.h"

#include <array>

namespace errors {

namespace {

struct CodeRow {
    tql_code_t code;
    std::string_view name;
    std::string_view text;
};

constexpr std::array kCodes{
    CodeRow{ERR_SUCCESS, "ERR_SUCCESS", "No error"},
    CodeRow{ERR_NO_SUCH_ID, "ERR_NO_SUCH_ID", "Specified ID not found in database"},
    CodeRow{ERR_NO_MATCH, "ERR_NO_MATCH", "Pattern matched nothing"},
    CodeRow{ERR_VERSION, "ERR_VERSION", "Someone else has updated the object"},
    CodeRow{ERR_EXISTS, "ERR_EXISTS", "Attempted insertion of duplicate value in unique property"},
    CodeRow{ERR_ILLEGAL_CHILD, "ERR_ILLEGAL_CHILD",
            "Specified class not allowed as child of given object"},
    CodeRow{ERR_MISSING_PROPERTY, "ERR_MISSING_PROPERTY", "Some required properties is missing"},
    CodeRow{ERR_NO_SUCH_PROPERTY, "ERR_NO_SUCH_PROPERTY",
            "Requested update of noexistant property"},
    CodeRow{ERR_CONST_PROPERTY, "ERR_CONST_PROPERTY", "Requested update of const property"},
    CodeRow{ERR_ILLEGAL_TYPE, "ERR_ILLEGAL_TYPE", "Property updated with illegal type"},
    CodeRow{ERR_ILLEGAL_VALUE, "ERR_ILLEGAL_VALUE", "Property updated with illegal value"},
    CodeRow{ERR_INCOMPARABLE, "ERR_INCOMPARABLE", "Incomparable property"},
    CodeRow{ERR_NOT_IMPLEMENTED, "ERR_NOT_IMPLEMENTED", "The pattern is not implemented"},
    CodeRow{ERR_BACKEND, "ERR_BACKEND", "Backend error"},
    CodeRow{ERR_ACCESS_DENIED, "ERR_ACCESS_DENIED", "Access denied"},
};

const CodeRow* find_code(uint32_t code) noexcept {
    for (const CodeRow& row : kCodes)
        if (row.code == code) return &row;
    return nullptr;
}

}  // namespace

std::string_view tql_code_text(uint32_t code) noexcept {
    const CodeRow* row = find_code(code);
    return row ? row->text : "Unknown error";
}

std::string_view tql_code_name(uint32_t code) noexcept {
    const CodeRow* row = find_code(code);
    return row ? row->name : std::string_view();
}

tql::tql(tql_code_t code, std::string text) : Exception(std::move(text)), code_(code) {
    error::check(code != ERR_SUCCESS, "errors::tql constructed with code ERR_SUCCESS");
}

}  // namespace errors
