// What is fuzzed: functions that take any bytes and drive the store with them, or the reading of
// what objects hold. They stand apart from the fuzzer, so that the ordinary tests replay the kept
// corpus through the same code.
//
// A target lets nothing out but Violation: what the store answers to damage is an mdb::error_*, and
// everything else (another exception, an assertion, a sanitizer's finding, no end) is a fault.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace fuzz {

/// The store did not do what it promises.
class Violation : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Target {
  public:
    virtual ~Target() = default;
    /// One life, or two, of what `input` describes. Leaves nothing behind for the next one.
    virtual void run(std::span<const uint8_t> input) = 0;
};

/// Names of all targets.
inline constexpr std::string_view kTargets[] = {"store", "index", "property",
                                                "lob",   "unit",  "layout"};

/// The target `name`, one of kTargets. `folder` is the source folder "fuzz", for the images of
/// databases that the targets start from. Throws std::runtime_error when they can't be read.
[[nodiscard]] std::unique_ptr<Target> make_target(std::string_view name, const std::string& folder);

/// One function for each, for make_target() alone.
[[nodiscard]] std::unique_ptr<Target> make_store_target(const std::string& folder);
[[nodiscard]] std::unique_ptr<Target> make_index_target(const std::string& folder);
[[nodiscard]] std::unique_ptr<Target> make_property_target();
[[nodiscard]] std::unique_ptr<Target> make_lob_target(const std::string& folder);
[[nodiscard]] std::unique_ptr<Target> make_unit_target();
[[nodiscard]] std::unique_ptr<Target> make_layout_target();

}  // namespace fuzz
