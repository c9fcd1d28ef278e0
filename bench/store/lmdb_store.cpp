#include <array>
#include <lmdb.h>
#include <stdexcept>

#include "store/store.h"

namespace bench {

namespace {

uint64_t as_number(NodeId id) {
    return uint64_t{id.first} << 32 | id.second;
}

void check(int result) {
    if (result != MDB_SUCCESS) throw std::runtime_error(mdb_strerror(result));
}

MDB_val as_value(uint64_t& number) {
    return {sizeof number, &number};
}

/// Integer keys throughout; the five indexes beside the objects keep sorted duplicates of fixed
/// size. MDB_NOSYNC when commits needn't be durable. There is no log: fill_log() only does about as
/// many updates as the others.
class LmdbStore final : public Store {
  public:
    explicit LmdbStore(const std::string& folder) : folder_(folder) {
        check(mdb_env_create(&env_));
        check(mdb_env_set_mapsize(env_, size_t{1} << 30));
        check(mdb_env_set_maxdbs(env_, 8));
        check(mdb_env_open(env_, folder.c_str(), 0, 0600));
        check(mdb_txn_begin(env_, nullptr, 0, &txn_));
        check(mdb_dbi_open(txn_, "objects", MDB_CREATE | MDB_INTEGERKEY, &objects_));
        const std::array<const char*, 5> names = {"parent", "active", "inherits", "master",
                                                  "notify"};
        for (size_t i = 0; i < names.size(); ++i)
            check(mdb_dbi_open(
                txn_, names[i],
                MDB_CREATE | MDB_INTEGERKEY | MDB_DUPSORT | MDB_DUPFIXED | MDB_INTEGERDUP,
                &indexes_[i]));
        commit();
        check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_));
        check(mdb_cursor_open(reader_, indexes_[0], &cursor_));
        mdb_txn_reset(reader_);
        set_durable(false);
    }
    ~LmdbStore() override {
        mdb_cursor_close(cursor_);
        mdb_txn_abort(reader_);
        mdb_env_close(env_);
    }

    void set_durable(bool durable) override {
        check(mdb_env_set_flags(env_, MDB_NOSYNC, durable ? 0 : 1));
    }

    void create(const Object& object) override {
        begin();
        uint64_t id = as_number(object.id.value);
        put(objects_, id, packed_.pack(object));
        const NodeId keys[] = {object.parent.value, object.parent.value, object.inherits.value,
                               object.master.value, object.notify.value};
        for (size_t i = 0; i < indexes_.size(); ++i) {
            uint64_t key = as_number(keys[i]);
            MDB_val key_value = as_value(key), id_value = as_value(id);
            check(mdb_put(txn_, indexes_[i], &key_value, &id_value, 0));
        }
        commit();
    }

    void update(NodeId id, uint64_t counter) override {
        begin();
        uint64_t key = as_number(id);
        put(objects_, key, packed_.with_counter(get(txn_, key), counter));
        commit();
    }

    void read(NodeId id, Object& object) override {
        check(mdb_txn_renew(reader_));
        object.decode(PackedObject::records(get(reader_, as_number(id))));
        mdb_txn_reset(reader_);
    }

    void list(NodeId parent, std::vector<Child>& children) override {
        check(mdb_txn_renew(reader_));
        check(mdb_cursor_renew(reader_, cursor_));
        uint64_t wanted = as_number(parent);
        MDB_val key = as_value(wanted), id{};
        size_t count = 0;
        for (int result = mdb_cursor_get(cursor_, &key, &id, MDB_SET); result == MDB_SUCCESS;
             result = mdb_cursor_get(cursor_, &key, &id, MDB_NEXT_DUP)) {
            if (children.size() == count) children.emplace_back();
            const auto bytes = get(reader_, *static_cast<const uint64_t*>(id.mv_data));
            decode_child(PackedObject::records(bytes), children[count++]);
        }
        children.resize(count);
        mdb_txn_reset(reader_);
    }

    void fill_log(uint32_t count) override {
        Shuffle ordinals(11, count);
        uint64_t counter = kFillCounter;
        for (uint32_t i = 0; i < count; ++i) update(id_of(ordinals.next()), ++counter);
    }

    double settle() override {
        check(mdb_env_sync(env_, 1));
        return bytes_of_files(folder_, "data.mdb");
    }

  private:
    void begin() { check(mdb_txn_begin(env_, nullptr, 0, &txn_)); }
    void commit() { check(mdb_txn_commit(txn_)); }
    void put(MDB_dbi in, uint64_t key, std::span<const std::byte> bytes) {
        MDB_val key_value = as_value(key);
        MDB_val value{bytes.size(), const_cast<std::byte*>(bytes.data())};
        check(mdb_put(txn_, in, &key_value, &value, 0));
    }
    std::span<const std::byte> get(MDB_txn* txn, uint64_t key) const {
        MDB_val key_value = as_value(key), value{};
        check(mdb_get(txn, objects_, &key_value, &value));
        return {static_cast<const std::byte*>(value.mv_data), value.mv_size};
    }

    std::string folder_;
    MDB_env* env_ = nullptr;
    MDB_txn *txn_ = nullptr, *reader_ = nullptr;
    MDB_cursor* cursor_ = nullptr;
    MDB_dbi objects_ = 0;
    std::array<MDB_dbi, 5> indexes_{};
    PackedObject packed_;
};

}  // namespace

std::unique_ptr<Store> open_lmdb(const std::string& folder) {
    return std::make_unique<LmdbStore>(folder);
}

}  // namespace bench
