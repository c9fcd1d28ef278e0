// Clients that create nodes in a running family without pause, and what must be there of it
// afterwards.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "running_family.h"

namespace family {

/// Creates nodes without pause over a connection of its own, and notes what was acknowledged.
class Writer {
  public:
    Writer(const std::string& url, std::string prefix, std::string parent)
        : url_(url),
          prefix_(std::move(prefix)),
          parent_(std::move(parent)),
          thread_([this] { work(); }) {}

    ~Writer() { stop(); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }

    [[nodiscard]] size_t acknowledged_count() const {
        const std::lock_guard lock(mutex_);
        return acknowledged_.size();
    }
    /// Names with their ids.
    [[nodiscard]] std::map<std::string, std::string> acknowledged() const {
        const std::lock_guard lock(mutex_);
        return acknowledged_;
    }
    [[nodiscard]] int unavailable() const { return unavailable_; }
    [[nodiscard]] std::vector<std::string> refusals() const {
        const std::lock_guard lock(mutex_);
        return refusals_;
    }

  private:
    void work();

    std::string url_;
    std::string prefix_;
    std::string parent_;
    std::atomic<bool> stop_ = false;
    std::atomic<int> unavailable_ = 0;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> acknowledged_;
    std::vector<std::string> refusals_;
    std::thread thread_;
};

using Writers = std::vector<std::unique_ptr<Writer>>;

/// Name and id of all nodes that were acknowledged to any of them so far.
[[nodiscard]] std::map<std::string, std::string> acknowledged_to(const Writers& writers);

/// All nodes below the domain `parent` by name; fails the test for one that isn't whole.
[[nodiscard]] std::map<std::string, std::string> nodes_below(cli::Api& api,
                                                             const std::string& parent);

/// Fails the test for each of `wanted` that isn't among the nodes below `parent` with its id.
void expect_there(const std::map<std::string, std::string>& wanted, cli::Api& api,
                  const std::string& parent);

/// Creates a domain below the root; its id.
[[nodiscard]] std::string create_domain(cli::Api& api);

}  // namespace family
