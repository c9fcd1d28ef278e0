// One live request to the gateway: a connection in a thread of its own, which hands what comes over
// to the owner's loop. It never tries again; its owner does, with a new one.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "tarmik/api_client.h"
#include "tarmik/event_reader.h"

namespace cli {

/// The connection is over. The last that comes.
struct StreamEnd {
    int http_status = 0;  ///< 0: there was no answer
    std::string body;     ///< of an answer that is no stream
    std::string reason;   ///< where there was no answer, or a stream broke off
};

using StreamItem = std::variant<StreamEvent, StreamEnd>;

class LiveClient {
  public:
    /// Asks for `path` with these parameters. Throws CommandError with kUsage for a wrong address.
    /// Signals that the process blocks at this moment don't reach the thread.
    LiveClient(const std::string& url, const std::string& path, const Parameters& parameters);
    /// Ends the connection; takes a moment at most.
    ~LiveClient();
    LiveClient(const LiveClient&) = delete;
    LiveClient& operator=(const LiveClient&) = delete;

    /// Readable while there is something to take.
    [[nodiscard]] int fd() const;
    /// What has come since the last call, in order.
    [[nodiscard]] std::deque<StreamItem> take();

  private:
    struct Worker;
    std::unique_ptr<Worker> worker_;
};

}  // namespace cli
