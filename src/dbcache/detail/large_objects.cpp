#include "dbcache/detail/large_objects.h"

#include "dbcache/detail/damage.h"
#include "dbcache/nodetype_schema.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/errors.h"
#include "mdb/large_object.h"
#include "mdb/property_types.h"

namespace dbcache::detail {

namespace {
const logging::Logger logger{"dbcache"};
}

void free_large_object(mdb::Database& database, uint32_t block) {
    // Of its own, so that a chain that breaks off halfway keeps all of its marks.
    mdb::Transaction transaction(database.journal());
    try {
        mdb::free_lob(database, block);
    } catch (const mdb::error_internal& fault) {
        logger.warning("Warning: Large object at block {} is not freed: {}", block, fault.text());
        return;
    }
    transaction.commit();
}

void free_large_objects(mdb::Database& database, const NodetypeSchema& schema,
                        const PropertyChain& stored, std::optional<uint32_t> kept_subtype) {
    if (schema.large_object_properties().empty()) return;
    const uint32_t subtype = schema.subtypeFromChain(stored);
    for (const uint32_t number : schema.large_object_properties()) {
        if (!schema.is_large_object(number, subtype)) continue;
        if (kept_subtype && schema.is_large_object(number, *kept_subtype)) continue;
        mdb::PropertyUint32 block(number);
        try {
            if (stored.read(0, block) != found_t::value) continue;
        } catch (const mdb::error_wrongtype& fault) {
            log_unreadable_value(number, fault.text());
            continue;
        }
        free_large_object(database, block.value);
    }
}

}  // namespace dbcache::detail
