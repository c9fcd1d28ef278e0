// Databases as older servers left them, put together record by record: no class, no handler and no
// step of the server's start has a hand in them. Also reads mark records back, byte by byte.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/index.h"
#include "mdb/object_scan.h"
#include "mdb/object_slots.h"
#include "mdb/object_store.h"
#include "platform/clock.h"
#include "platform/file.h"

namespace support {

using RecordBytes = std::vector<uint8_t>;

// ---- records -----------------------------------------------------------------------------------

inline void put_word(RecordBytes& bytes, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(value >> shift));
}

/// Head, payload and fill.
inline RecordBytes record(uint32_t property, uint32_t type, const RecordBytes& payload) {
    RecordBytes bytes;
    put_word(bytes, property);
    put_word(bytes, static_cast<uint32_t>((12 + payload.size() + 7) / 8 * 8));
    put_word(bytes, type);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    while (bytes.size() % 8 != 0) bytes.push_back(0);
    return bytes;
}
inline RecordBytes word_record(uint32_t property, uint32_t type, uint32_t value) {
    RecordBytes payload;
    put_word(payload, value);
    return record(property, type, payload);
}
inline RecordBytes id_record(uint32_t property, const NodeId& id) {
    RecordBytes payload;
    put_word(payload, id.first);
    put_word(payload, id.second);
    return record(property, 4, payload);
}
inline RecordBytes text_record(uint32_t property, const std::string& text) {
    RecordBytes payload(text.begin(), text.end());
    payload.push_back(0);
    return record(property, 3, payload);
}
inline RecordBytes bool_record(uint32_t property, bool value) {
    return record(property, 6, {static_cast<uint8_t>(value)});
}
inline RecordBytes null_record(uint32_t property, uint32_t type) {
    RecordBytes bytes;
    put_word(bytes, property);
    put_word(bytes, 12);
    put_word(bytes, type | 1U << 30);
    return bytes;
}
/// All ids must be below 256 in their first word.
inline RecordBytes mark_record(uint32_t property, bool marked, const NodeId& prev,
                               const NodeId& next, const NodeId& last) {
    RecordBytes payload{static_cast<uint8_t>(marked)};
    for (const NodeId& id : {prev, next, last}) payload.push_back(static_cast<uint8_t>(id.first));
    for (const NodeId& id : {prev, next, last}) put_word(payload, id.second);
    return record(property, 14, payload);
}

// ---- databases ---------------------------------------------------------------------------------

struct OldObject {
    NodeId id;
    NodeId parent;
    uint32_t nodetype = 0;
    /// Besides id, version, parent and nodetype.
    std::vector<RecordBytes> records = {};
};

struct OldFormat {
    uint32_t number = 0;
    uint64_t ring_sequence = 40;
    /// How many indexes it has.
    uint32_t indexes = 6;
    uint64_t journal_bytes = 64 * 1024;
    uint64_t capacity_bytes = 16 << 20;
};

/// Makes a database with these objects, and its sequence object, in the order given, and leaves it
/// as a killed server would.
inline void write_old_database(platform::FileSystem& files, const platform::Clock& clock,
                               const std::string& database_path, const std::string& journal_path,
                               const OldFormat& format, const std::vector<OldObject>& objects) {
    mdb::format_database(files, {.database_path = database_path,
                                 .journal_path = journal_path,
                                 .block_size = 1024,
                                 .journal_size_bytes = format.journal_bytes,
                                 .capacity_bytes = format.capacity_bytes});
    mdb::Database database({.database_path = database_path, .journal_path = journal_path}, files,
                           clock);
    mdb::IndexTable indexes(database);
    indexes.init_required_indexes();
    for (uint32_t n = mdb::kRequiredIndexes; n < format.indexes; ++n) {
        static_cast<void>(indexes.ensure_index(n));
        indexes.finish_index(n);
    }
    mdb::ObjectStore store(database, indexes);
    const auto add = [&](const std::vector<RecordBytes>& records) {
        database.serializer().serial_reset();
        for (const RecordBytes& bytes : records)
            database.serializer().serial_add_raw(reinterpret_cast<const std::byte*>(bytes.data()));
        static_cast<void>(store.store_object({}));
    };
    RecordBytes ring;
    put_word(ring, static_cast<uint32_t>(format.ring_sequence >> 32));
    put_word(ring, static_cast<uint32_t>(format.ring_sequence));
    add({id_record(0, {0, 4}), record(2900, 11, ring), word_record(2901, 1, format.number)});
    for (const OldObject& object : objects) {
        std::vector<RecordBytes> records{
            id_record(0, object.id), id_record(2, object.parent),
            record(1, 10, {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 3}),
            word_record(3, 5, object.nodetype)};
        records.insert(records.end(), object.records.begin(), object.records.end());
        add(records);
    }
}

// ---- reading back ------------------------------------------------------------------------------

/// The records of each object by property.
using Dump = std::map<NodeId, std::map<uint32_t, RecordBytes>>;

inline uint32_t word_at(const RecordBytes& bytes, size_t at) {
    return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 |
           uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
}

inline Dump dump_objects(mdb::Database& database) {
    Dump dump;
    mdb::scan_objects(database, [&](const mdb::dobj& object) {
        const auto slot = mdb::object_slot(object);
        std::map<uint32_t, RecordBytes> records;
        for (size_t at = 4; at < slot.size();) {
            const auto* from = reinterpret_cast<const uint8_t*>(slot.data()) + at;
            const RecordBytes head(from, from + 8);
            records[word_at(head, 0)] = RecordBytes(from, from + word_at(head, 4));
            at += word_at(head, 4);
        }
        const RecordBytes& id = records.at(0);
        dump[{word_at(id, 12), word_at(id, 16)}] = std::move(records);
    });
    return dump;
}

/// A mark list as it is linked, "0.1>1.5 1.2>1.5 1.5*": each object with the end of its stretch, a
/// star for a marked one without listed ones below it. Says where `prev` doesn't agree.
inline std::string list_text(const Dump& dump, uint32_t mark) {
    std::string text;
    NodeId prev;
    for (NodeId id{0, 1}; !id.is_null() && text.size() < 1U << 20;) {
        const auto object = dump.find(id);
        if (object == dump.end() || !object->second.contains(mark)) return text + "?";
        const RecordBytes& bytes = object->second.at(mark);
        const auto id_at = [&](size_t n) {
            return NodeId{bytes[13 + n], word_at(bytes, 16 + 4 * n)};
        };
        if (!text.empty()) text += ' ';
        text += id.to_string();
        if (bytes[12] != 0) text += '*';
        if (id_at(2) != id) text += '>' + id_at(2).to_string();
        if (id_at(0) != prev) text += "(prev " + id_at(0).to_string() + ')';
        prev = id;
        id = id_at(1);
    }
    return text;
}

/// How many objects have a record of the property.
inline size_t count_records(const Dump& dump, uint32_t property) {
    size_t count = 0;
    for (const auto& [id, records] : dump) count += records.contains(property);
    return count;
}

}  // namespace support
