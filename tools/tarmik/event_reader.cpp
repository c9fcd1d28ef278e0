#include "tarmik/event_reader.h"

#include <algorithm>
#include <utility>

#include "tarmik/api_client.h"

namespace cli {

void EventReader::feed(std::string_view bytes, const std::function<void(StreamEvent)>& take) {
    while (!bytes.empty()) {
        if (std::exchange(after_return_, false) && bytes.front() == '\n') {
            bytes.remove_prefix(1);
            continue;
        }
        const size_t end = std::min(bytes.find_first_of("\r\n"), bytes.size());
        line_ += bytes.substr(0, end);
        if (line_.size() + event_.data.size() > kMaxEventBytes)
            throw CommandError(kFailed, "The gateway sent an event without end");
        if (end == bytes.size()) return;
        after_return_ = bytes[end] == '\r';
        bytes.remove_prefix(end + 1);
        take_line(take);
        line_.clear();
    }
}

void EventReader::take_line(const std::function<void(StreamEvent)>& take) {
    if (line_.empty()) {
        StreamEvent whole = std::exchange(event_, {});
        if (!std::exchange(has_data_, false)) return;
        if (whole.name.empty()) whole.name = "message";
        take(std::move(whole));
        return;
    }
    const size_t colon = line_.find(':');
    const std::string_view field = std::string_view(line_).substr(0, colon);
    std::string_view value;
    if (colon != line_.npos) value = std::string_view(line_).substr(colon + 1);
    if (value.starts_with(' ')) value.remove_prefix(1);
    if (field == "event") {
        event_.name = value;
    } else if (field == "data") {
        if (std::exchange(has_data_, true)) event_.data += '\n';
        event_.data += value;
    }
}

}  // namespace cli
