#include "dbcache/object_cache.h"

#include <fmt/format.h>

#include "dbcache/detail/metrics.h"
#include "error/exception.h"
#include "meter/meter.h"
#include "platform/clock.h"

namespace dbcache {

namespace {

constexpr uint32_t kEvictionLooks = 50;

meter::Group objcache{"objcache"};
meter::IntegerGaugeCallback a1in_length{&objcache, "a1in", "",
                                        "The current length of the a1in queue"};
meter::IntegerGaugeCallback a1out_length{&objcache, "a1out", "",
                                         "The current length of the a1out queue"};
meter::IntegerGaugeCallback am_length{&objcache, "am", "", "The current length of the am queue"};
meter::IntegerCounterCallback hit_count{&objcache, "hits", "",
                                        "The number of cache hits since startup"};
meter::IntegerCounterCallback miss_count{&objcache, "misses", "",
                                         "The number of cache misses since startup"};
meter::IntegerCounterCallback rehash_count{&objcache, "rehashes", "",
                                           "The number hash map rehashes since startup"};
meter::IntegerCounterCallback slow_jump_count{&objcache, "slowjumps", "",
                                              "The number hash map slowfind jumps since startup"};

std::string text(const mdb::block_handle_t& handle) {
    return fmt::format("{}:{}", handle.block, handle.offset);
}

}  // namespace

void ObjectQueue::push_front(CachedObject& object) {
    object.queue_ = name_;
    object.newer_ = nullptr;
    object.older_ = front_;
    (front_ == nullptr ? back_ : front_->newer_) = &object;
    front_ = &object;
    ++length_;
}

void ObjectQueue::unlink(CachedObject& object) {
    (object.newer_ == nullptr ? front_ : object.newer_->older_) = object.older_;
    (object.older_ == nullptr ? back_ : object.older_->newer_) = object.newer_;
    object.newer_ = nullptr;
    object.older_ = nullptr;
    object.queue_ = CachedObject::none;
    --length_;
}

ObjectCache::ObjectCache(const platform::Clock& clock) : clock_(clock) {
    a1in_length.bind([this] { return uint64_t{length(CachedObject::a1in)}; });
    a1out_length.bind([this] { return uint64_t{length(CachedObject::a1out)}; });
    am_length.bind([this] { return uint64_t{length(CachedObject::am)}; });
    hit_count.bind([this] { return hits_; });
    miss_count.bind([this] { return misses_; });
    rehash_count.bind([this] { return by_id_.rehashes(); });
    slow_jump_count.bind([this] { return by_id_.slow_jumps(); });
}

ObjectCache::~ObjectCache() {
    for (auto* gauge : {&a1in_length, &a1out_length, &am_length}) gauge->unbind();
    for (auto* counter : {&hit_count, &miss_count, &rehash_count, &slow_jump_count})
        counter->unbind();
    by_id_.for_each([](const NodeId&, ById& entry) { delete entry.handler; });
}

void ObjectCache::cache_set_limits(uint32_t kin, uint32_t kout, uint32_t am_limit) {
    limits_ = {.kin = kin, .kout = kout, .am_limit = am_limit};
}

std::optional<std::string> ObjectCache::cache_open_trace(const std::string& path) {
    trace_.reset(std::fopen(path.c_str(), "we"));
    if (trace_ == nullptr) return "Failed to open trace file";
    return std::nullopt;
}

void ObjectCache::cache_insert(const NodeId& node_id, const mdb::block_handle_t& handle,
                               CachedObject& handler) {
    const auto [id_entry, id_is_new] = by_id_.insert(node_id, {handle, &handler});
    error::check(id_is_new, "Double id insertion into object cache ex ({}:{}, {}) new {}:{}",
                 id_entry->handle.block, id_entry->handle.offset, node_id, handle.block,
                 handle.offset);
    const auto [handle_entry, handle_is_new] = by_handle_.insert(handle, {node_id, &handler});
    error::check(handle_is_new, "Double handle insertion into object cache, ex ({}:{}, {}) new {}",
                 handle.block, handle.offset, handle_entry->node_id, node_id);
    handler.node_id_ = node_id;
    handler.handle_ = handle;
    queue(CachedObject::a1in).push_front(handler);
    detail::metrics::num_cache_objs.increment();
    balance(handler);
}

CachedObject* ObjectCache::cache_find_by_id(const NodeId& node_id) {
    trace(node_id);
    const ById* entry = by_id_.find(node_id);
    ++(entry == nullptr ? misses_ : hits_);
    if (entry == nullptr) return nullptr;
    CachedObject* handler = entry->handler;
    touch(*handler);
    return handler;
}

CachedObject* ObjectCache::cache_find_by_handle(const mdb::block_handle_t& handle) {
    const ByHandle* entry = by_handle_.find(handle);
    ++(entry == nullptr ? misses_ : hits_);
    if (entry == nullptr) return nullptr;
    CachedObject* handler = entry->handler;
    touch(*handler);
    return handler;
}

bool ObjectCache::contains(const mdb::block_handle_t& handle) const {
    return by_handle_.find(handle) != nullptr;
}

void ObjectCache::cache_remove(mdb::block_handle_t handle, bool destroy) {
    const ByHandle* entry = by_handle_.find(handle);
    if (entry == nullptr) return;
    const NodeId node_id = entry->node_id;
    CachedObject* handler = entry->handler;
    queue(handler->queue_).unlink(*handler);
    error::check(!destroy || handler->cache_references() == 0,
                 "Attempt to handle-delete referenced object");
    by_handle_.erase(handle);
    error::check(by_id_.erase(node_id), "Object cache map inconsistency");
    if (destroy) delete handler;
}

void ObjectCache::trace(const NodeId& node_id) {
    if (trace_ == nullptr || std::ferror(trace_.get()) != 0) return;
    const platform::WallTime now = clock_.wall();
    fmt::print(trace_.get(), "{} {} {} ACC\n", now.seconds, now.microseconds, node_id.to_string());
}

void ObjectCache::touch(CachedObject& handler) {
    if (handler.queue_ != CachedObject::a1in) {
        queue(handler.queue_).unlink(handler);
        queue(CachedObject::am).push_front(handler);
    }
    balance(handler);
}

void ObjectCache::balance(const CachedObject& protected_handler) {
    ObjectQueue& in = queue(CachedObject::a1in);
    ObjectQueue& out = queue(CachedObject::a1out);
    ObjectQueue& main = queue(CachedObject::am);
    if (in.length() > limits_.kin) {
        CachedObject& oldest = *in.back();
        error::check(oldest.queue_ == CachedObject::a1in, "Object {} in A1in misplaced (in {})",
                     oldest.node_id_, static_cast<int>(oldest.queue_));
        in.unlink(oldest);
        out.push_front(oldest);
        if (out.length() > limits_.kout) evict(out, limits_.kout, protected_handler);
    } else if (main.length() > limits_.am_limit) {
        evict(main, limits_.am_limit, protected_handler);
    }
}

void ObjectCache::evict(ObjectQueue& queue, uint32_t limit, const CachedObject& protected_handler) {
    uint32_t excess = queue.length() - limit;
    CachedObject* candidate = queue.back();
    for (uint32_t looks = 0; candidate != nullptr && excess > 0 && looks < kEvictionLooks;
         ++looks) {
        CachedObject* next = ObjectQueue::newer(*candidate);
        if (candidate != &protected_handler && candidate->cache_references() == 0) {
            cache_remove(candidate->handle_, true);
            --excess;
        }
        candidate = next;
    }
}

void ObjectCache::for_each(
    const std::function<void(const NodeId&, const mdb::block_handle_t&, CachedObject&)>& visit) {
    by_id_.for_each(
        [&](const NodeId& id, ById& entry) { visit(id, entry.handle, *entry.handler); });
}

std::string ObjectCache::verify() {
    std::string fault = by_id_.verify();
    if (fault.empty()) fault = by_handle_.verify();
    if (!fault.empty()) return fault;
    by_id_.for_each([&](const NodeId& id, const ById& entry) {
        const ByHandle* other = by_handle_.find(entry.handle);
        if (other == nullptr || other->handler != entry.handler || other->node_id != id)
            fault = fmt::format("C1: object {} isn't under its handle {}", id.to_string(),
                                text(entry.handle));
    });
    if (by_id_.used() != by_handle_.used()) fault = "C1: the tables differ in size";
    std::size_t in_queues = 0;
    for (const ObjectQueue& one : queues_) {
        uint32_t count = 0;
        for (CachedObject* object = one.back(); object != nullptr;
             object = ObjectQueue::newer(*object)) {
            ++count;
            const ById* entry = by_id_.find(object->node_id_);
            if (entry == nullptr || entry->handler != object || &queue(object->queue_) != &one)
                fault = fmt::format("C2: object {} is misplaced", object->node_id_.to_string());
        }
        if (count != one.length()) fault = "C3: a queue's length is wrong";
        in_queues += count;
    }
    if (in_queues != by_id_.used()) fault = "C3: objects outside of the queues";
    return fault;
}

}  // namespace dbcache
