#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/options.h>
#include <rocksdb/table.h>
#include <rocksdb/write_batch.h>
#include <stdexcept>

#include "store/store.h"
#include "util/byte_order.h"

namespace bench {

namespace {

void check(const rocksdb::Status& status) {
    if (!status.ok()) throw std::runtime_error(status.ToString());
}

/// A key: a byte that tells the object (0) or the index (1 to 5), then one or two ids, big-endian.
struct Key {
    explicit Key(NodeId id) : Key(0, id) {}
    Key(uint8_t kind, NodeId id) {
        bytes_[0] = std::byte{kind};
        util::store_be32(&bytes_[1], id.first);
        util::store_be32(&bytes_[5], id.second);
    }
    Key(uint8_t kind, NodeId key, NodeId id) : Key(kind, key) {
        util::store_be32(&bytes_[9], id.first);
        util::store_be32(&bytes_[13], id.second);
        size_ = 17;
    }
    [[nodiscard]] rocksdb::Slice slice() const {
        return {reinterpret_cast<const char*>(bytes_), size_};
    }

  private:
    std::byte bytes_[17];
    size_t size_ = 9;
};

rocksdb::Slice as_slice(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::span<const std::byte> as_bytes(const rocksdb::Slice& slice) {
    return {reinterpret_cast<const std::byte*>(slice.data()), slice.size()};
}

/// One column family, WriteOptions.sync for durable commits, a block cache of 64 MiB with bloom
/// filters, a memory table that holds the full log, no compression.
class RocksdbStore final : public Store {
  public:
    explicit RocksdbStore(const std::string& folder) : folder_(folder) {
        rocksdb::Options options;
        options.create_if_missing = true;
        options.compression = rocksdb::kNoCompression;
        options.write_buffer_size = 2 * kLogBytes;
        options.max_background_jobs = 2;
        rocksdb::BlockBasedTableOptions table;
        table.block_cache = rocksdb::NewLRUCache(size_t{64} << 20);
        table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(10));
        options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
        rocksdb::DB* db = nullptr;
        check(rocksdb::DB::Open(options, folder, &db));
        db_.reset(db);
    }

    void set_durable(bool durable) override { write_.sync = durable; }

    void create(const Object& object) override {
        const NodeId id = object.id.value;
        const NodeId keys[] = {object.parent.value, object.parent.value, object.inherits.value,
                               object.master.value, object.notify.value};
        batch_.Clear();
        check(batch_.Put(Key(id).slice(), as_slice(packed_.pack(object))));
        uint8_t kind = 0;
        for (const NodeId key : keys) check(batch_.Put(Key(++kind, key, id).slice(), ""));
        check(db_->Write(write_, &batch_));
    }

    void update(NodeId id, uint64_t counter) override {
        get(id);
        const auto changed = packed_.with_counter(as_bytes(value_), counter);
        check(db_->Put(write_, Key(id).slice(), as_slice(changed)));
    }

    void read(NodeId id, Object& object) override {
        get(id);
        object.decode(PackedObject::records(as_bytes(value_)));
    }

    void list(NodeId parent, std::vector<Child>& children) override {
        const Key prefix(1, parent);
        const std::unique_ptr<rocksdb::Iterator> at(db_->NewIterator(rocksdb::ReadOptions()));
        size_t count = 0;
        for (at->Seek(prefix.slice()); at->Valid() && at->key().starts_with(prefix.slice());
             at->Next()) {
            const std::byte* id = as_bytes(at->key()).data() + 9;
            get({util::load_be32(id), util::load_be32(id + 4)});
            if (children.size() == count) children.emplace_back();
            decode_child(PackedObject::records(as_bytes(value_)), children[count++]);
        }
        children.resize(count);
    }

    void fill_log(uint32_t count) override {
        settle();
        Shuffle ordinals(11, count);
        uint64_t counter = kFillCounter;
        while (bytes_of_files(folder_, ".log") < static_cast<double>(kLogBytes))
            for (int i = 0; i < 1000; ++i) update(id_of(ordinals.next()), ++counter);
    }

    double settle() override {
        check(db_->Flush(rocksdb::FlushOptions()));
        return bytes_of_files(folder_, ".sst");
    }

  private:
    void get(NodeId id) {
        value_.Reset();
        check(db_->Get(read_, db_->DefaultColumnFamily(), Key(id).slice(), &value_));
    }

    std::string folder_;
    std::unique_ptr<rocksdb::DB> db_;
    rocksdb::ReadOptions read_;
    rocksdb::WriteOptions write_;
    rocksdb::WriteBatch batch_;
    rocksdb::PinnableSlice value_;
    PackedObject packed_;
};

}  // namespace

std::unique_ptr<Store> open_rocksdb(const std::string& folder) {
    return std::make_unique<RocksdbStore>(folder);
}

}  // namespace bench
