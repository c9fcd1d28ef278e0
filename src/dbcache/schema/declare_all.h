// The catalogue: the one list of all classes of stored objects. A new class is one line in
// declare_all.cpp.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// Registers every class and seals the table. A table that breaks its own rules ends the process.
void declare_all(SchemaTable& table);

}  // namespace dbcache::schema
