#include "tql/property.h"

namespace tql {

std::string_view relop_text(relop_t op) noexcept {
    switch (op) {
        case relop_t::eq:
            return " = ";
        case relop_t::gt:
            return " > ";
        case relop_t::lt:
            return " < ";
        case relop_t::ge:
            return " >= ";
        case relop_t::le:
            return " <= ";
        case relop_t::ne:
            return " <> ";
        case relop_t::ieq:
            return " ~= ";
        case relop_t::ine:
            return " !~= ";
        case relop_t::subset:
            return " <= ";
        case relop_t::superset:
            return " >= ";
        case relop_t::intersects:
            return " intersects ";
        case relop_t::in:
            return " in ";
        case relop_t::contains:
            return " contains ";
        case relop_t::isubstr:
            return " isubstr ";
    }
    return " ? ";
}

}  // namespace tql
