// Checks that the object blocks of a database are whole and agree with the allocation map and the
// indexes.
#pragma once

#include <string>

namespace mdb {

class Database;
class IndexTable;

/// Walks all blocks and all indexes and checks O1 to O6 of object_layout.h. One line for each fault
/// found, empty when everything is whole; after a hundred faults it says so and stops. The trees
/// themselves are checked by IndexTable::verify_index(), which should be done first. Reads
/// committed state: to be called with no transaction open. Costs a read of the whole file and
/// memory for one key and handle of each object.
[[nodiscard]] std::string verify_objects(Database& database, IndexTable& indexes);

}  // namespace mdb
