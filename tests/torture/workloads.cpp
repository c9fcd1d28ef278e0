// The workloads. Each is small, as each of its crash states is a start of the store of its own, and
// each is there for the paths that its comment names.
#include <algorithm>
#include <vector>

#include "error/exception.h"
#include "mdb/journal_layout.h"
#include "tree_workloads.h"
#include "workload.h"

namespace torture {

namespace {

constexpr std::string_view kRandomPrefix = "random_";

NodeId number(uint32_t n) {
    return {1, n};
}

Values child(const std::string& text, NodeId parent = kRoot) {
    return {.parent = parent, .active = true, .text = text};
}

void start(Script& script) {
    script.format();
    script.open();
}

/// Objects come, grow, shrink, move and go, with keys in all six indexes.
void objects(Script& script) {
    script.open();
    for (uint32_t n = 1; n <= 6; ++n)
        script.create(number(n), {.parent = n > 3 ? number(1) : kRoot,
                                  .active = n % 2 == 0,
                                  .inherits = number(1),
                                  .master = n > 2 ? number(2) : NodeId{},
                                  .notify = n > 4 ? number(3) : NodeId{},
                                  .text = std::string(40 * n, 'a')});
    script.begin();
    script.update(number(4), child(std::string(300, 'b'), number(2)));
    script.commit(false);
    script.update(number(5), child("short", number(3)));
    script.begin();
    script.remove(number(6));
    script.create(number(7), child(std::string(500, 'c')));
    script.commit(false);
    script.remove(number(4));
    script.begin();
    for (uint32_t n = 8; n <= 10; ++n) script.create(number(n), child("in one", number(7)));
    script.remove(number(2));
    script.commit();
    script.pass_time(1500);
    script.update(number(7), child("much shorter"));
    script.begin();
    for (uint32_t n = 8; n <= 10; ++n) script.remove(number(n));
    script.commit(false);
    script.create(number(2), child("back again"));
}

/// Inner transactions that commit and abort, and an outer one that takes all of it back.
void nested(Script& script) {
    script.open();
    script.create(number(1), child("first"));
    script.begin();
    script.create(number(2), child("outer"));
    script.begin();
    script.create(number(3), child(std::string(400, 'x')));
    script.remove(number(1));
    script.abort();
    script.begin();
    script.update(number(2), child("outer, changed within"));
    script.begin();
    script.create(number(4), child("deep", number(2)));
    script.commit();
    script.begin();
    script.remove(number(4));
    script.abort();
    script.commit();
    script.commit(false);
    script.begin();
    for (uint32_t n = 10; n < 15; ++n) script.create(number(n), child(std::string(200, 'y')));
    script.begin();
    script.remove(number(4));
    script.commit();
    script.abort();
    script.update(number(1), child("after the abort"));
    script.begin();
    script.begin();
    script.remove(number(4));
    script.remove(number(2));
    script.commit();
    script.commit(false);
}

/// The file grows several times, in transactions that commit and that don't.
void growth(Script& script) {
    script.open();
    for (uint32_t n = 1; n <= 14; ++n) {
        script.begin();
        script.create(number(2 * n), child(std::string(700, 'g')));
        if (n % 3 == 0) {
            script.begin();
            script.create(number(2 * n + 1), child(std::string(900, 'h')));
            script.abort();
        }
        if (n % 5 == 0)
            script.abort();
        else
            script.commit(n % 2 == 0);
    }
}

/// Transactions of one length and nothing else, over several fillings of both halves, so that what
/// is left of one filling begins where a later one may end.
void flips(Script& script) {
    script.open();
    for (int round = 0; round < 40; ++round) {
        script.begin();
        script.update(number(1), child(std::string(500, static_cast<char>('a' + round % 26))));
        script.commit(round % 3 != 0);
    }
}

void one_object(Script& script) {
    start(script);
    script.create(number(1), child(std::string(500, '0')));
}

/// Flips asked for, with and without a redirection, one right after another too.
void redirections(Script& script) {
    script.open();
    for (int round = 0; round < 14; ++round) {
        script.update(number(1), child(std::string(500, static_cast<char>('a' + round))));
        if (round % 4 == 1) script.flip(true);
        if (round % 4 == 2) script.flip(true);
        if (round % 5 == 3) script.flip(false);
        script.begin();
        script.update(number(1), child(std::string(500, static_cast<char>('A' + round))));
        script.commit(round % 2 == 0);
    }
}

/// Adds updates that change nothing until only the transaction's end has room in the half.
void fill_half(Script& script) {
    namespace layout = mdb::journal_layout;
    const uint32_t block = script.indexes().unique_search(mdb::node_id_index, number(1)).block;
    const uint64_t place = script.database().store().block_offset(block);
    uint32_t room = script.database().journal().free_space() - layout::kEndSize;
    while (room > 0) {
        const mdb::BlockBuffer bytes = script.database().cache().private_block(block);
        uint32_t size = std::min<uint32_t>(room, 1024);
        const uint32_t smallest = static_cast<uint32_t>(layout::update_size(0));
        if (size < room && room - size < smallest) size -= smallest;
        script.database().journal().journal_update(bytes.data(), size - layout::update_data, place);
        room -= size;
    }
}

/// A half is filled to its last usable byte; then a flip with a redirection, or what comes of
/// itself.
void full_halves(Script& script) {
    script.open();
    for (int round = 0; round < 6; ++round) {
        script.update(number(1), child(std::string(500, static_cast<char>('a' + round))));
        script.begin();
        script.update(number(1), child(std::string(500, static_cast<char>('A' + round))));
        fill_half(script);
        script.commit(round % 3 != 0);
        if (round % 2 == 0) script.flip(true);
    }
}

/// Checkpoints of all kinds between commits of both kinds, and time that passes.
void checkpoints(Script& script) {
    script.open();
    for (uint32_t round = 1; round <= 12; ++round) {
        script.create(number(round), child(std::string(30 * round, 'k')));
        if (round % 2 == 0) script.pass_time(700);
        if (round % 3 == 0) script.full_checkpoint();
        if (round % 4 == 0) script.journal_checkpoint();
        script.begin();
        script.update(number(round), child(std::string(20 * round, 'l')));
        script.commit(round % 5 != 0);
        if (round % 6 == 0) script.remove(number(round - 1));
    }
}

/// Asynchronous and synchronous commits in turn, some asynchronous ones made durable by time alone.
void mixed_commits(Script& script) {
    script.open();
    for (uint32_t round = 1; round <= 18; ++round) {
        script.begin();
        script.create(number(round), child("mixed " + std::to_string(round)));
        script.commit(round % 6 != 0);
        if (round % 4 == 0) script.pass_time(600);
        if (round % 5 == 0) script.remove(number(round - 2));
        if (round % 6 == 2) {
            // Changes nothing, and is acknowledged as durable, with all before it.
            script.begin();
            script.commit(false);
        }
    }
}

/// The process dies and starts again, several times, right after one another too.
void restarts(Script& script) {
    for (uint32_t round = 1; round <= 8; ++round) {
        script.open();
        script.create(number(round), child(std::string(150, 'r')));
        if (round % 3 == 0) script.open();
        script.begin();
        script.create(number(20 + round), child("durable", number(round)));
        script.commit(round % 2 == 0);
        script.begin();
        script.create(number(50), child("left open when the process dies"));
    }
}

/// Content that differs in each block, so that a block of the past is seen.
std::string large(size_t length, char salt) {
    std::string bytes(length, salt);
    for (size_t at = 0; at < length; at += 7) bytes[at] = static_cast<char>('A' + at / 500 % 26);
    return bytes;
}

/// Large objects come, are replaced and go; their blocks are used again for others, for objects and
/// for the indexes, and blocks of these for large objects.
void large_objects(Script& script) {
    script.open();
    script.create(number(1), child("with an image"));
    script.set_large(number(1), large(500, '1'));
    script.set_large(number(1), large(3000, '2'));
    script.create(number(2), child("another", number(1)));
    script.begin();
    script.set_large(number(1), large(1008, '3'));
    script.commit(false);
    script.set_large(number(2), large(1009, '4'));
    script.begin();
    script.set_large(number(2), large(2200, '5'));
    script.abort();
    script.begin();
    script.begin();
    script.set_large(number(1), large(4000, '6'));
    script.abort();
    script.set_large(number(2), large(0, '7'));
    script.commit();
    script.set_large(number(1), {});
    for (uint32_t n = 10; n < 16; ++n) script.create(number(n), child(std::string(800, 'o')));
    script.set_large(number(2), large(2500, '8'));
    script.begin();
    for (uint32_t n = 10; n < 16; ++n) script.remove(number(n));
    script.commit(false);
    script.set_large(number(1), large(5000, '9'));
    script.pass_time(1200);
    script.remove(number(2));
    script.flip(false);
    script.set_large(number(1), large(2600, 'x'));
    script.begin();
    script.set_large(number(1), large(2600, 'y'));
    script.commit(false);
}

/// The old one goes before the new one is written, which then lies far away, and back again.
void large_objects_freed_first(Script& script) {
    script.open();
    script.create(number(1), child("with an image"));
    for (uint32_t round = 0; round < 6; ++round) {
        script.begin();
        script.set_large(number(1), large(1500 + 400 * round, static_cast<char>('a' + round)));
        script.commit(round % 3 != 2);
    }
    script.begin();
    script.set_large(number(1), large(2000, 'z'));
    script.abort();
    script.update(number(1), child(std::string(600, 'u')));
    script.remove(number(1));
}

/// A large object takes a block whose first life the journal still has, unless that is guarded.
void large_objects_after_others(Script& script) {
    script.open();
    script.create(number(1), child("with an image"));
    for (uint32_t round = 0; round < 3; ++round) {
        script.flip(false);
        script.create(number(10), child(std::string(800, 'o')));
        script.remove(number(10));
        script.set_large(number(1), large(900 + 700 * round, static_cast<char>('p' + round)));
        script.update(number(1), child("image " + std::to_string(round)));
    }
}

/// Indexes are dropped, the last one and all above the third, and made again by the next start.
void indexes(Script& script) {
    script.open();
    for (uint32_t n = 6; n <= 8; ++n) script.create(number(n), child("more"));
    script.drop_index(mdb::alert_notify_index);
    script.update(number(6), child("changed while an index is missing"));
    script.open();
    script.create(number(9), child("yet more"));
    for (uint32_t n = mdb::kMaxIndexes; n-- > mdb::active_parent_index;) script.drop_index(n);
    script.remove(number(9));
    script.open();
    script.remove(number(8));
}

void few_objects(Script& script) {
    start(script);
    for (uint32_t n = 1; n <= 5; ++n)
        script.create(number(n), {.parent = n > 3 ? number(1) : kRoot,
                                  .active = n % 2 == 0,
                                  .inherits = number(1),
                                  .master = number(2),
                                  .notify = number(3),
                                  .text = std::string(30, 'i')});
}

/// A database is made where there was none.
void format(Script& script) {
    script.format_recorded(false);
    script.open();
    script.create(number(1), child("the first one"));
}

/// One is made in the place of another one, whose last commits stand in its journal alone.
void reformat(Script& script) {
    script.open();
    script.begin();
    script.create(number(1), child("of the old database"));
    script.commit(false);
    script.update(number(1), child("of the old database, changed"));
    script.close();
    script.format_recorded(true);
    script.open();
    script.begin();
    script.create(number(2), child("of the new one"));
    script.commit(false);
}

/// The disk is full, in the middle of a block, for objects and for large ones; then it isn't any
/// more.
void full_disk(Script& script) {
    script.open();
    script.create(number(1), child("with an image"));
    for (uint32_t round = 0; round < 4; ++round) {
        script.limit_growth(600 + 900 * round);
        bool full = false;
        for (uint32_t n = 0; !full; ++n) {
            error::check(n < 40, "The disk was never full");
            try {
                if (round % 2 == 0)
                    script.create(number(10 + 20 * round + n), child(std::string(800, 'f')));
                else
                    script.set_large(number(1), large(4000 * (n + 1), 'F'));
            } catch (const mdb::error_dbnospace&) {
                script.abort_all();
                full = true;
            }
        }
        if (round == 1) script.open();
        script.limit_growth({});
        script.update(number(1), child("room again"));
        script.begin();
        script.create(number(100 + round), child(std::string(900, 'r')));
        script.commit(false);
    }
}

/// The journal is a region of the file: one sync is for both, and the file grows behind it.
void journal_in_file(Script& script) {
    large_objects(script);
    growth(script);
}

std::vector<Workload> make_workloads() {
    // A quarter of a half has to have room for the largest transaction.
    const Setup usual;
    Setup dropping;
    dropping.drops_indexes = true;
    Setup with_large;
    with_large.large_objects = true;
    Setup two_map_blocks = with_large;
    two_map_blocks.capacity = 2048 * 1024;
    Setup two_indexes;
    two_indexes.journal_size = 32 * 1024;
    two_indexes.six_indexes = false;
    Setup cramped;
    cramped.buffer_blocks = 1;
    Setup large_journal;
    large_journal.journal_size = 256 * 1024;
    Setup in_file = with_large;
    in_file.journal_block = 24;
    return {
        {"objects", usual, start, objects},
        {"nested", cramped, start, nested},
        {"growth", usual, start, growth},
        {"flips", two_indexes, one_object, flips},
        {"redirections", two_indexes, one_object, redirections},
        {"full_halves", two_indexes, one_object, full_halves},
        {"checkpoints", usual, start, checkpoints},
        {"mixed_commits", usual, start, mixed_commits},
        {"restarts", usual, start, restarts},
        {"indexes", dropping, few_objects, indexes},
        {"large_objects", with_large, start, large_objects},
        {"large_objects_freed_first", two_map_blocks, start, large_objects_freed_first},
        {"large_objects_after_others", with_large, start, large_objects_after_others},
        {"full_disk", with_large, start, full_disk},
        {"journal_in_file", in_file, start, journal_in_file},
        random_workload(1),
        random_workload(2),
        random_workload(3),
        {"splits", large_journal, tree_before_root_split, splits},
        {"middle_splits", large_journal, tree_of_few_leaves, middle_splits},
        {"emptying", large_journal, tree_of_three_levels, emptying},
        {"format", usual, {}, format},
        {"reformat", usual, start, reformat},
    };
}

}  // namespace

const std::vector<Workload>& all_workloads() {
    static const std::vector<Workload> workloads = make_workloads();
    return workloads;
}

Workload get_workload(std::string_view name) {
    for (const Workload& workload : all_workloads())
        if (workload.name == name) return workload;
    if (name.starts_with(kRandomPrefix))
        return random_workload(std::stoull(std::string(name.substr(kRandomPrefix.size()))));
    throw error::EFatal(fmt::format("No workload has the name {}", name));
}

}  // namespace torture
