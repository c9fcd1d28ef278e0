#include "log/channel_mask.h"

#include <utility>

#include "log/channels.h"
#include "platform/file.h"

namespace logging {

bool ChannelMask::refresh() {
    uint64_t found = configured_;
    if (!directory_.empty())
        for (const Channel& channel : kChannels)
            if (platform::can_open_for_reading(directory_ + "/" + std::string(channel.name)))
                found |= channel.bit;
    return std::exchange(value_, found) != found;
}

}  // namespace logging
