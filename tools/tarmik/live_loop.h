// The loop around a live request: connection, retries, signals and time. What is done with events
// is its user's.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "tarmik/live_client.h"

namespace cli {

class LiveFollower {
  public:
    virtual ~LiveFollower() = default;
    /// An event with its data. May throw MirrorError, which ends the connection and begins a new
    /// one.
    virtual void take(const std::string& name, const nlohmann::ordered_json& data) = 0;
    /// Something about the connection that people want to know. Empty: all is well again.
    virtual void remark(const std::string& text) = 0;

    /// Called after each turn of the loop; false ends it.
    virtual bool after_turn(uint64_t now_us) = 0;
    /// When after_turn() is to be called without any other reason.
    [[nodiscard]] virtual std::optional<uint64_t> next_turn_us() const = 0;

    /// A descriptor to watch beside the connection, -1 for none, and what to do when it is readable
    /// (false ends the loop).
    [[nodiscard]] virtual int extra_fd() const { return -1; }
    virtual bool on_extra() { return true; }
    /// Where it prints, so that the end of the reader wakes the loop; -1 for nowhere.
    [[nodiscard]] virtual int output_fd() const { return -1; }
    /// The window has another size.
    virtual void on_resize() {}
    /// The user wants the process to stop for a while.
    virtual void on_suspend() {}
};

/// Follows a live request until a signal ends it or the follower does. Throws CommandError when
/// the first connection fails, and for a refusal at any time.
void follow(const std::string& url, const std::string& path, const Parameters& parameters,
            LiveFollower& follower);

}  // namespace cli
