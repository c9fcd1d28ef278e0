// Judges how an operation of the store ended.
#pragma once

#include <fmt/format.h>
#include <string>
#include <utility>

#include "mdb/errors.h"
#include "targets/target.h"

namespace fuzz {

enum class outcome_t {
    done,     ///< it worked
    refused,  ///< it did not, for a reason that a whole database can have too
    damage    ///< it met damage, or failed in a way that a whole database never does
};

/// Runs `work`. Exceptions that the store may throw become an outcome, with the text left in
/// `text`; any other goes on. `failed` tells whether a write had failed before, as only then
/// operations may end in EFatal.
template <class Work, class Failed>
outcome_t attempt(std::string& text, Failed&& failed, Work&& work) {
    try {
        work();
        return outcome_t::done;
    } catch (const mdb::error_consistency& e) {
        text = e.text();
        return outcome_t::damage;
    } catch (const mdb::error_internal& e) {
        text = e.text();
        return outcome_t::damage;
    } catch (const mdb::error_generic& e) {
        text = e.text();
        return outcome_t::refused;
    } catch (const error::EFatal& e) {
        if (!failed()) throw Violation(fmt::format("Fatal without a failed write: {}", e.text()));
        text = e.text();
        return outcome_t::refused;
    }
}

}  // namespace fuzz
