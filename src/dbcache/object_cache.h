// ObjectCache: keeps the in-memory handlers of stored objects, so that work on the tree rarely
// parses an object. It is a 2Q cache over objects, not blocks: it knows where an object lies and
// which handler stands for it, but reads and writes nothing itself. A handler with references is
// never evicted, so the limits hold only as far as references let them.
//
//   absent --insert--> A1in --balance--> A1out --hit--> Am --hit--> Am
//                                          |            |
//                                          +--evict-----+--> absent      (and from any state by
//                                          cache_remove)
//
// A1in is a FIFO of objects seen once; a hit doesn't move them, and they are never evicted from it.
// A1out holds what fell out of A1in; here these are still real, cached objects. Am is an LRU of
// what was hit after it had left A1in.
//
// Invariants, by number in verify() and in the tests:
//   C1 both tables hold the same objects, and each names the other's key
//   C2 every object in a table stands in exactly the queue that its `queue` names
//   C3 the lengths of the queues add up to the number of objects
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "mdb/block_layout.h"
#include "util/node_id.h"
#include "util/open_hash_table.h"

namespace platform {
class Clock;
}

namespace dbcache {

/// What a handler carries for the cache; base of dbcache::ObjectHandler. The cache owns the
/// handlers that it holds and deletes one when it evicts it or is destroyed.
class CachedObject {
  public:
    enum queue_t : uint8_t { none = 0, a1in = 1, a1out = 2, am = 3 };

    CachedObject() = default;
    CachedObject(const CachedObject&) = delete;
    CachedObject& operator=(const CachedObject&) = delete;
    virtual ~CachedObject() = default;

    /// References that keep this object from being evicted.
    [[nodiscard]] virtual uint32_t cache_references() const noexcept = 0;
    [[nodiscard]] queue_t cache_queue() const noexcept { return queue_; }

  private:
    friend class ObjectCache;
    friend class ObjectQueue;

    queue_t queue_ = none;
    /// Neighbours in the queue, front to back.
    CachedObject* newer_ = nullptr;
    CachedObject* older_ = nullptr;
    mdb::block_handle_t handle_{};
    NodeId node_id_{};
};

/// One of the three queues, threaded through the objects. Owns nothing.
class ObjectQueue {
  public:
    explicit ObjectQueue(CachedObject::queue_t name) : name_(name) {}

    void push_front(CachedObject& object);
    void unlink(CachedObject& object);
    [[nodiscard]] CachedObject* front() const noexcept { return front_; }
    [[nodiscard]] CachedObject* back() const noexcept { return back_; }
    [[nodiscard]] uint32_t length() const noexcept { return length_; }
    /// The next one on the way from the back to the front, or null.
    [[nodiscard]] static CachedObject* newer(const CachedObject& object) noexcept {
        return object.newer_;
    }

  private:
    CachedObject::queue_t name_;
    CachedObject* front_ = nullptr;
    CachedObject* back_ = nullptr;
    uint32_t length_ = 0;
};

/// Limits of the three queues in objects. A1in and Am together are the size of the cache; A1out
/// comes on top of it.
struct ObjectCacheLimits {
    uint32_t kin = 50;
    uint32_t kout = 100;
    uint32_t am_limit = 150;
};

class ObjectCache {
  public:
    /// `clock` stamps the lines of the trace and outlives the cache.
    explicit ObjectCache(const platform::Clock& clock);
    /// Deletes the handlers that are left, referenced or not.
    ~ObjectCache();
    ObjectCache(const ObjectCache&) = delete;
    ObjectCache& operator=(const ObjectCache&) = delete;

    /// Takes effect with the next balance.
    void cache_set_limits(uint32_t kin, uint32_t kout, uint32_t am_limit);

    /// Writes a line to the file at `path`, from its start, for each look-up by id from now on:
    /// seconds, microseconds, the id and "ACC". Gives "Failed to open trace file", or none when it
    /// worked.
    [[nodiscard]] std::optional<std::string> cache_open_trace(const std::string& path);

    /// Puts a new handler in front of A1in and takes it over. An id or handle that the cache holds
    /// already is a fatal assertion. May evict other handlers.
    void cache_insert(const NodeId& node_id, const mdb::block_handle_t& handle,
                      CachedObject& handler);

    /// The handler, or null. A hit may evict others, but never the one given; the caller takes its
    /// reference before it calls the cache again.
    [[nodiscard]] CachedObject* cache_find_by_id(const NodeId& node_id);
    [[nodiscard]] CachedObject* cache_find_by_handle(const mdb::block_handle_t& handle);
    /// Makes a cache_find_by_handle() that follows soon cheaper; counts as no use.
    void prefetch(const mdb::block_handle_t& handle) const noexcept { by_handle_.prefetch(handle); }

    /// Whether the cache holds an object at `handle`; counts nothing and moves nothing.
    [[nodiscard]] bool contains(const mdb::block_handle_t& handle) const;

    /// Takes the object at `handle` out; nothing happens when there is none. With `destroy` the
    /// handler is deleted, and one with references is a fatal assertion; otherwise it belongs to
    /// the caller again.
    void cache_remove(mdb::block_handle_t handle, bool destroy);

    /// Calls `visit` with id, handle and handler of each object, in no order; counts nothing and
    /// moves nothing. `visit` must not call the cache.
    void for_each(
        const std::function<void(const NodeId&, const mdb::block_handle_t&, CachedObject&)>& visit);

    [[nodiscard]] uint32_t length(CachedObject::queue_t queue) const noexcept {
        return queues_[queue - 1].length();
    }
    [[nodiscard]] uint64_t hits() const noexcept { return hits_; }
    [[nodiscard]] uint64_t misses() const noexcept { return misses_; }

    /// Walks tables and queues and names the first broken invariant; empty when all hold.
    [[nodiscard]] std::string verify();

  private:
    struct IdHash {
        static constexpr uint32_t hash(const NodeId& id) noexcept { return id.second * 4; }
    };
    struct HandleHash {
        static constexpr uint64_t hash(const mdb::block_handle_t& handle) noexcept {
            return (static_cast<uint64_t>(handle.block) << 32) + handle.offset;
        }
    };
    struct ById {
        mdb::block_handle_t handle;
        CachedObject* handler = nullptr;
    };
    struct ByHandle {
        NodeId node_id;
        CachedObject* handler = nullptr;
    };
    struct TraceCloser {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };

    [[nodiscard]] ObjectQueue& queue(CachedObject::queue_t name) { return queues_[name - 1]; }
    void trace(const NodeId& node_id);
    void touch(CachedObject& handler);
    /// One step of one kind: moves the oldest of A1in on, or evicts from Am.
    void balance(const CachedObject& protected_handler);
    /// Looks at the 50 oldest entries at most, so that a queue full of referenced objects can't
    /// make an access slow.
    void evict(ObjectQueue& queue, uint32_t limit, const CachedObject& protected_handler);

    const platform::Clock& clock_;
    ObjectCacheLimits limits_;
    open_hash_table<NodeId, ById, IdHash> by_id_;
    open_hash_table<mdb::block_handle_t, ByHandle, HandleHash> by_handle_;
    std::array<ObjectQueue, 3> queues_{ObjectQueue{CachedObject::a1in},
                                       ObjectQueue{CachedObject::a1out},
                                       ObjectQueue{CachedObject::am}};
    uint64_t hits_ = 0;
    uint64_t misses_ = 0;
    std::unique_ptr<std::FILE, TraceCloser> trace_;
};

}  // namespace dbcache
