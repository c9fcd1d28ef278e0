// A database with the object layer on top, put together as the server does it, in a folder of the
// disk to be measured.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "dbcache/bootstrap.h"
#include "dbcache/resolver.h"
#include "dbcache/schema_table.h"
#include "dbcache/store.h"
#include "dbcache/version_source.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "platform/clock.h"
#include "tql/property.h"
#include "tqlengine/engine.h"
#include "tqlengine/request_context.h"

namespace bench {

using Values = std::vector<tql::value_t>;

[[nodiscard]] tql::value_t text(uint32_t property, std::string value);
[[nodiscard]] tql::value_t number(uint32_t property, uint32_t value);
[[nodiscard]] tql::value_t flag(uint32_t property, bool value);
/// Of the property's own enumeration.
[[nodiscard]] tql::value_t choice(uint32_t property, uint32_t value);
/// A check that a host answers on `port`.
[[nodiscard]] Values net_check(uint32_t port);
[[nodiscard]] tql::value_t reference(uint32_t property, const NodeId& id);

class World {
  public:
    /// Makes the files in `folder`, for objects of the classes that `declare` registers. The caches
    /// have the sizes that the server has by itself.
    World(const std::string& folder, void (*declare)(dbcache::SchemaTable&))
        : World(folder, declare, Options{}) {}
    struct Options {
        /// Takes the files that are in the folder, as a start of the server does.
        bool existing = false;
        /// How a time series is made; without it objects go without.
        std::function<uint32_t(const tsdb::time_series_layout_t&)> create_series{};
    };
    World(const std::string& folder, void (*declare)(dbcache::SchemaTable&),
          const Options& options);

    /// Room for `objects` in the main queue of the object cache, instead of the server's own.
    void set_cache_size(uint32_t objects);
    /// Each write is a request of its own. It is flushed before it returns while `durable`.
    void set_durable(bool durable) { durable_ = durable; }
    NodeId create(const NodeId& parent, uint32_t class_number, const Values& values) {
        return create(tql::id_t::from_node_id(parent), class_number, values);
    }
    NodeId create(const tql::id_t& parent, uint32_t class_number, const Values& values);
    void update(const NodeId& id, const Values& values);
    void remove(const NodeId& id);
    /// All properties; gives how many there are.
    size_t read(const NodeId& id);
    /// The ids of the result's nodes when `query` is asked at `root`.
    [[nodiscard]] std::vector<NodeId> select(const NodeId& root, const std::string& query);

    [[nodiscard]] dbcache::DbcacheIdResolver& resolver() { return store_.resolver(); }
    /// Of a request that changes nothing.
    [[nodiscard]] tqlengine::RequestContext reading() {
        return {.engine = engine_, .clock = clock_, .new_version = {}, .user = {}};
    }

  private:
    struct Format {
        Format(platform::FileSystem& files, const std::string& folder, bool existing);
        mdb::Settings settings;
    };

    void write(const std::function<void(tqlengine::RequestContext&)>& request);

    platform::SystemFiles files_;
    platform::SystemClock clock_;
    dbcache::SchemaTable schemas_;
    Format format_;
    mdb::Database database_;
    mdb::IndexTable indexes_;
    mdb::ObjectStore objects_;
    dbcache::Store::Parts parts_;
    dbcache::VersionSource versions_;
    /// Last: it begins with an object and its indexes in place.
    dbcache::Store store_;
    tqlengine::Engine engine_;
    bool durable_ = false;
};

}  // namespace bench
