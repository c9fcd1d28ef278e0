// A server's queue and a main process that talks to it, both in the test's own process, over a real
// pool; beside them a store and the services that handlers work with.
#pragma once

#include <initializer_list>

#include "dbms/netcheck_handlers.h"
#include "dbms/services.h"
#include "dbms/subscribers.h"
#include "dbms/tsdb_callbacks.h"
#include "io/exception.h"
#include "io/parent_messenger.h"
#include "io/selector.h"
#include "io/sibling_messenger.h"
#include "support/test_store.h"

namespace dbms_test {

struct Policy final : io::ParentPolicy {
    uint32_t sliceSize(uint32_t) override { return 1 << 16; }
    bool requestPeer(uint32_t, uint32_t) override { return false; }
};

struct TestFamily {
    TestFamily()
        : parent(dir.file("fifo"), 1 << 20, policy),
          main(parent, store.clock),
          messenger(static_cast<uint32_t>(queues::queue_t::dbms), parent.access()),
          queue(messenger, store.clock) {
        settle();
    }

    /// Moves what is under way between the two until each has heard of the other.
    void settle() {
        for (int round = 0; round < 4; ++round)
            for (io::SiblingMessenger* one :
                 std::initializer_list<io::SiblingMessenger*>{&parent, &messenger})
                serve(*one);
    }
    static void serve(io::SiblingMessenger& one) {
        io::BareSelector selector;
        selector.add(one.someSibling());
        try {
            (void)selector.select(io::wait_t::non_blocking);
        } catch (const io::ENotReady&) {
        }
        selector.remove(one.someSibling());
    }

    support::TempDir dir;
    dbcache_test::TestStore store;
    Policy policy;
    io::ParentMessenger parent;
    queues::childqueue main;
    io::ChildMessenger messenger;
    queues::childqueue queue;
    control::Server_Configuration_Fields config;
    logging::ChannelMask log_mask{0x80000000, dir.file("")};
    dbms::EventTrace trace{dir.file("trace")};
    dbms::EventMeters meters;
    dbms::Subscribers subscribers{{store.clock, queue, *store.engine, meters, trace}};
    dbms::TsdbCallbacks tsdb_callbacks;
    dbms::CustomNetChecks net_checks;
    dbms::Services services{store.clock,  queue,           config,    *store.engine,
                            *store.store, *store.versions, log_mask,  meters,
                            subscribers,  tsdb_callbacks,  net_checks};
};

}  // namespace dbms_test
