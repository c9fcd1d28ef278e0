// Makes the images that the fuzz targets start from:
//
//   make_images FOLDER    writes the images that FOLDER does not have yet
//
// An image that is there stays as it is, since the kept corpus is changes of it.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/index.h"
#include "mdb/large_object.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "targets/images.h"
#include "targets/memory_files.h"

namespace {

using fuzz::MemoryFiles;

constexpr size_t kRoom = 2 << 20;
constexpr uint64_t kJournalSize = 32 * 1024;
constexpr uint64_t kCapacity = 1 << 20;
constexpr uint32_t kFormatNumber = 12;
/// Of the objects with two digits, so that a new name of this length stays in its place.
constexpr size_t kNameLength = 9;

struct Server {
    Server(MemoryFiles& files, fuzz::StillClock& clock)
        : database({"db", "journal", 64}, files, clock),
          indexes(database),
          objects(database, indexes) {
        indexes.init_required_indexes();
    }

    void start() {
        if (!indexes.unique_find(mdb::node_id_index, {0, 1})) create({0, 1}, {});
        mdb::start_indexes(indexes, place({0, 1}), kFormatNumber);
    }
    [[nodiscard]] mdb::block_handle_t place(NodeId id) {
        return indexes.unique_search(mdb::node_id_index, id);
    }
    void create(NodeId id, std::optional<NodeId> parent) {
        mdb::Serializer& serializer = database.serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(0, id));
        if (parent) serializer.serial_add(mdb::PropertyNodeId(2, *parent));
        serializer.serial_add(mdb::PropertyString(51, "name " + id.to_string()));
        if (id.second % 2 == 0) serializer.serial_add(mdb::PropertyBool(502, true));
        if (id.second % 5 == 0) serializer.serial_add(mdb::PropertyNodeId(59, {0, 9}));
        if (id.second % 7 == 0) serializer.serial_add(mdb::PropertyNodeId(3800, {0, 3}));
        if (id.second % 8 == 0) serializer.serial_add(mdb::PropertyStringList(52, {"a", "", "bc"}));
        if (id.second % 9 == 0) serializer.serial_add(mdb::PropertyVersion(56, {7, id.second}));
        if (id.second % 10 == 0) serializer.serial_add(mdb::PropertySnmpOid(57, {1, 3, 6}));
        if (id.second % 11 == 0)
            serializer.serial_add(mdb::PropertyMarkIndex(55, {{0, 1}, {0, 2}, {0, 3}, true}));
        if (id.second % 12 == 0) serializer.serial_add(mdb::PropertyBigNum(54, BigNum(1U << 30)));
        static_cast<void>(objects.store_object({}));
    }
    /// 70 objects below each other and beside each other: every index but one in a few leaves.
    void populate() {
        start();
        for (uint32_t i = 2; i < 72; ++i) {
            // What one object adds to six indexes nearly fills a half of so small a journal.
            database.journal().checkpoint_and_flip();
            create({0, i}, NodeId{0, i < 5 ? 1 : 1 + i % 4});
        }
    }
    void change(NodeId id, size_t length) {
        mdb::dobj image = objects.begin_object_update(place(id));
        objects.update_property(image, mdb::PropertyString(51, std::string(length, 'c')), true,
                                false);
        static_cast<void>(objects.commit_object_update(image));
    }

    mdb::Database database;
    mdb::IndexTable indexes;
    mdb::ObjectStore objects;
};

void make_objects(MemoryFiles& files, fuzz::StillClock& clock) {
    Server server(files, clock);
    server.populate();
    server.database.journal().checkpoint_and_flip();
}

/// Changes since the last checkpoint, which the journal alone has: some in place, one object that
/// moves, one that goes.
void make_journal(MemoryFiles& files, fuzz::StillClock& clock) {
    Server server(files, clock);
    server.populate();
    server.database.journal().checkpoint_and_flip();
    for (uint32_t i = 10; i < 20; ++i) server.change({0, i}, kNameLength);
    server.change({0, 20}, 2 * kNameLength);
    server.objects.delete_object(server.place({0, 21}), true);
}

/// The log goes over from one half to the other.
void make_redirected(MemoryFiles& files, fuzz::StillClock& clock) {
    Server server(files, clock);
    server.populate();
    mdb::Journal& journal = server.database.journal();
    journal.checkpoint_and_flip();
    for (uint32_t i = 10; i < 15; ++i) server.change({0, i}, kNameLength);
    journal.flip(true);
    for (uint32_t i = 15; i < 20; ++i) server.change({0, i}, kNameLength);
}

/// Index 0 and 1 in three levels, with few entries to a leaf; runs of equal keys over several
/// leaves.
void make_tree(MemoryFiles& files, fuzz::StillClock& clock) {
    Server server(files, clock);
    mdb::Journal& journal = server.database.journal();
    constexpr uint32_t kKeys = 2900;
    const auto in_transaction = [&](auto&& work) {
        journal.checkpoint_and_flip();
        mdb::Transaction transaction(journal);
        work();
        transaction.commit();
    };
    const auto parent_of = [](uint32_t i) { return NodeId{0, i < 200 ? 5U : i}; };
    for (uint32_t i = 1; i < kKeys; ++i)
        in_transaction([&] {
            server.indexes.unique_update(0, {0, i}, {i, 0}, false);
            server.indexes.non_unique_insert(1, parent_of(i), {i, 0});
        });
    for (uint32_t i = 1; i < kKeys; ++i) {
        if (i % 16 == 0) continue;
        in_transaction([&] {
            server.indexes.unique_delete(0, {0, i});
            server.indexes.non_unique_delete(1, parent_of(i), {i, 0});
        });
    }
    journal.checkpoint_and_flip();
}

/// Large objects of one block, of exactly one, of two and of many; one is gone.
void make_lobs(MemoryFiles& files, fuzz::StillClock& clock) {
    Server server(files, clock);
    mdb::Journal& journal = server.database.journal();
    const auto write = [&](size_t size) {
        const std::vector<std::byte> data(size, std::byte{static_cast<uint8_t>(size)});
        mdb::Transaction transaction(journal);
        const uint32_t first = mdb::write_lob(server.database, data);
        transaction.commit();
        return first;
    };
    uint32_t old = 0;
    for (const size_t size : {0, 100, 1008, 1009, 2024, 6000, 9000, 1500}) old = write(size);
    {
        mdb::Transaction transaction(journal);
        mdb::free_lob(server.database, old);
        transaction.commit();
    }
    static_cast<void>(write(3000));
    journal.checkpoint_and_flip();
    static_cast<void>(write(500));
}

void save(const std::string& path, std::span<const std::byte> bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

void make(const std::string& folder, const std::string& name,
          const std::function<void(MemoryFiles&, fuzz::StillClock&)>& fill) {
    const std::string path = folder + "/" + name;
    if (std::filesystem::exists(path + ".db")) return;
    MemoryFiles files(kRoom);
    fuzz::StillClock clock;
    mdb::FormatOptions options;
    options.database_path = "db";
    options.journal_path = "journal";
    options.block_size = fuzz::kImageBlockSize;
    options.journal_size_bytes = kJournalSize;
    options.capacity_bytes = kCapacity;
    mdb::format_database(files, options);
    if (fill) fill(files, clock);
    save(path + ".db", files.bytes("db"));
    save(path + ".journal", files.bytes("journal"));
    std::printf("%s: %zu bytes\n", path.c_str(), files.bytes("db").size());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_images FOLDER\n");
        return 2;
    }
    const std::string folder = argv[1];
    logging::set_all_levels(logging::level_t::off);
    make(folder, "blank", {});
    make(folder, "objects", make_objects);
    make(folder, "journal", make_journal);
    make(folder, "redirected", make_redirected);
    make(folder, "tree", make_tree);
    make(folder, "lobs", make_lobs);
    return 0;
}
