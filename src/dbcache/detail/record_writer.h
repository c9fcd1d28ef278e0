// RecordWriter: puts the new version of an object into the database's serialization cache.
#pragma once

#include "dbcache/object_handler.h"
#include "dbcache/schema_object.h"
#include "mdb/database.h"
#include "mdb/serializer.h"

namespace dbcache {

class RecordWriter final : public RecordSink {
  public:
    /// Forgets what the serialization cache holds.
    explicit RecordWriter(mdb::Database& database)
        : serializer_(database.serializer()), database_(&database) {
        serializer_.serial_reset();
    }
    /// For records without fresh large objects.
    explicit RecordWriter(mdb::Serializer& serializer) : serializer_(serializer) {
        serializer_.serial_reset();
    }

    /// The records that every object begins with.
    void add_head(const NodeId& id, const NodeId& parent, const tql::version_t& version,
                  uint32_t nodetype);
    void add(const mdb::Property& property) override { serializer_.serial_add(property); }
    void add_null(const mdb::Property& property) override { serializer_.serial_add_null(property); }
    /// Both are a fatal assertion on a writer without a database.
    [[nodiscard]] uint32_t write_lob(std::span<const uint8_t> bytes) override;
    /// A damaged chain is left alone; see large_objects.h.
    void free_lob(uint32_t block) override;

  private:
    mdb::Serializer& serializer_;
    mdb::Database* database_ = nullptr;
};

}  // namespace dbcache
