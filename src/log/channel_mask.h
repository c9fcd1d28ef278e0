// The log mask in force: the channels that the configuration switches on, and those for which a
// flag file of the channel's name lies in a directory. Whoever owns the main loop looks for the
// files again from time to time; nobody else does.
#pragma once

#include <cstdint>
#include <string>

namespace logging {

class ChannelMask {
  public:
    /// In force is `configured` until the first refresh(). An empty `directory` has no flag files.
    ChannelMask(uint64_t configured, std::string directory)
        : configured_(configured), value_(configured), directory_(std::move(directory)) {}

    [[nodiscard]] uint64_t value() const noexcept { return value_; }
    /// `bit` as of channels.h.
    [[nodiscard]] bool has(uint64_t bit) const noexcept { return (value_ & bit) != 0; }

    /// Looks which flag files can be opened for reading, and computes the mask anew. True when it
    /// has changed. Opens one file for each channel.
    bool refresh();

    /// How often a main loop is to call refresh().
    static constexpr int32_t kRefreshEvery_s = 30;

  private:
    uint64_t configured_;
    uint64_t value_;
    std::string directory_;
};

}  // namespace logging
