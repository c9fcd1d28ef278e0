// StoreProcess: the program `tsdb` in a family of two, this process being the other one.
#pragma once

#include <memory>
#include <string>

#include "io/parent_messenger.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "queues/childqueue.h"
#include "queues/records/control.h"
#include "queues/records/tsdb_requests.h"

namespace bench {

class StoreProcess {
  public:
    /// Starts the program and waits until it is ready. Its file and the FIFO are in `folder`.
    explicit StoreProcess(const std::string& folder);
    /// Stops it in order and waits for its end.
    ~StoreProcess();
    StoreProcess(const StoreProcess&) = delete;
    StoreProcess& operator=(const StoreProcess&) = delete;

    [[nodiscard]] queues::childqueue& queue() { return queue_; }
    /// A record for `series`. With `wait` it is durable when this returns.
    void put(uint32_t series, uint32_t minute, bool wait);
    [[nodiscard]] size_t get(const tsdb::Get_Data_Data& wanted);
    [[nodiscard]] double resident_bytes() const;

  private:
    struct Policy final : io::ParentPolicy {
        uint32_t sliceSize(uint32_t sibling) override { return sibling == 0 ? 16 << 20 : 4 << 20; }
        bool requestPeer(uint32_t, uint32_t) override { return false; }
    };
    void start();
    void answer_configuration(const queues::event& asked);

    const std::string folder_;
    platform::SystemClock clock_;
    Policy policy_;
    io::ParentMessenger messenger_;
    queues::childqueue queue_;
    platform::ChildProcess process_;
};

}  // namespace bench
