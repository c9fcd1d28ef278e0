// What the driver asks of every store. Each implementation is the store as its makers would
// configure it for this use: changes survive the death of the process always, and a power cut when
// `durable` is set.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "store/object.h"

namespace bench {

class Store {
  public:
    virtual ~Store() = default;

    /// Whether the commits from now on are on stable storage when they return.
    virtual void set_durable(bool durable) = 0;
    /// Commits a new object with its six index entries.
    virtual void create(const Object& object) = 0;
    /// Commits another counter of the object.
    virtual void update(NodeId id, uint64_t counter) = 0;
    /// Reads all properties.
    virtual void read(NodeId id, Object& object) = 0;
    /// Id and name of each child, in place of what `children` holds.
    virtual void list(NodeId parent, std::vector<Child>& children) = 0;
    /// Works until the log is as long as it may become, 64 MiB, and nothing of it is in the data
    /// file that needn't be. `count` is how many objects there are.
    virtual void fill_log(uint32_t count) = 0;
    /// Brings everything to the data file; returns its size in bytes, logs left out.
    virtual double settle() = 0;
};

/// fill_log() counts from here, so that every update changes its object: one that doesn't may cost
/// a store no log at all.
inline constexpr uint64_t kFillCounter = 1ULL << 40;

inline constexpr uint64_t kLogBytes = 64ULL << 20;

/// Opens the store in `folder`, or makes it there when there is none.
using OpenStore = std::unique_ptr<Store> (*)(const std::string& folder);

std::unique_ptr<Store> open_tarmik(const std::string& folder);
std::unique_ptr<Store> open_sqlite(const std::string& folder);
std::unique_ptr<Store> open_lmdb(const std::string& folder);
std::unique_ptr<Store> open_rocksdb(const std::string& folder);

/// Sum of the sizes of the files in `folder` whose name ends with `suffix`.
[[nodiscard]] double bytes_of_files(const std::string& folder, const std::string& suffix);

}  // namespace bench
