#include "dbcache/time_series.h"

#include <algorithm>
#include <fmt/format.h>

#include "dbcache/inheritance.h"
#include "dbcache/object_handler.h"
#include "dbcache/object_view.h"
#include "dbcache/special_kinds.h"
#include "dbcache/store.h"
#include "io/exception.h"
#include "log/log.h"
#include "tql/errors.h"
#include "tql/names.h"

namespace dbcache {

namespace {

using tsdb::kNoSeries;

const logging::Logger logger{"dbms_tsdb"};

bool holds_series(const NodetypeSchema& schema) {
    const auto entries = schema.properties();
    return std::any_of(entries.begin(), entries.end(),
                       [](const auto& entry) { return entry.schema->has_backend(); });
}

/// In any subtype.
bool is_series(const NodetypeSchema& schema, uint32_t property) {
    const auto entries = schema.properties();
    return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
        return entry.property == property && entry.schema->has_backend();
    });
}

uint32_t make_series(Store& store, const tsdb::time_series_layout_t& layout) {
    try {
        return store.create_backend_block(layout).value_or(kNoSeries);
    } catch (const errors::remote_error& refusal) {
        throw errors::tql(errors::ERR_BACKEND,
                          fmt::format("Error allocating time series: {}", refusal.text()));
    }
}

}  // namespace

void allocate_if(ObjectHandler& handler, bool should_be_allocated, uint32_t property,
                 const tsdb::time_series_layout_t* layout, WorkArray& work) {
    Store& store = handler.store();
    const NodetypeSchema& schema = handler.schema();
    const auto slot = schema.lookupProperty(property, schema.subtype(ObjectView(handler), work));
    error::check(slot.has_value() || !should_be_allocated,
                 "allocateIf got property {}, which the object doesn't have", property);
    if (!slot) {
        if (const uint32_t left = stored_series(handler, property); left != kNoSeries)
            store.drop_backend_block(left);
        return;
    }
    work_t& value = work[*slot];
    if (value.is_null()) value.prop = std::make_unique<mdb::PropertySeries>(property, kNoSeries);
    uint32_t& index = static_cast<mdb::PropertySeries&>(*value.prop).value;
    if (!should_be_allocated && index != kNoSeries) {
        logger.debug("De-allocating backend buffer");
        store.drop_backend_block(index);
        index = kNoSeries;
    } else if (should_be_allocated && index == kNoSeries) {
        error::check(layout != nullptr, "allocateIf got no layout but should_be_allocated is set");
        index = make_series(store, *layout);
    }
}

void allocate_when_possible(ObjectHandler& handler, uint32_t property,
                            const tsdb::time_series_layout_t& layout, WorkArray& work) {
    try {
        allocate_if(handler, true, property, &layout, work);
    } catch (const io::EEndOfStream& gone) {
        logger.info("No time series for {} yet: {}", handler.node_id(), gone.text());
    }
}

uint32_t stored_series(const ObjectHandler& object, uint32_t property) {
    if (!object.is_stored()) return kNoSeries;
    const InheritanceChain chain(object.store(), object.node_id(), object.location());
    mdb::PropertySeries series(property, kNoSeries);
    return chain.read(0, series) == found_t::value ? series.value : kNoSeries;
}

uint32_t tsdb_index(const NodetypeSchema& schema, const PropertyChain& chain, uint32_t property) {
    if (!holds_series(schema))
        throw errors::db_anomaly("Request of tsdb property from " + schema.class_name());
    mdb::PropertySeries series(property);
    if (!is_series(schema, property))
        throw errors::db_anomaly("No tsdbIndex found in " + schema.class_name());
    switch (chain.read(0, series)) {
        case found_t::absent:
            throw errors::db_anomaly("No tsdbIndex found in " + schema.class_name());
        case found_t::explicit_null:
            series.value = kNoSeries;
            break;
        case found_t::value:
            break;
    }
    if (series.value == kNoSeries)
        throw errors::db_anomaly(fmt::format("Request of null tsdb property {}", property));
    return series.value;
}

uint32_t tsdb_index(const ObjectHandler& object, uint32_t property) {
    const InheritanceChain chain(object.store(), object.node_id(), object.location());
    return tsdb_index(object.schema(), chain, property);
}

uint32_t tsdb_data_type(const ObjectHandler& object, uint32_t property) {
    const InheritanceChain chain(object.store(), object.node_id(), object.location());
    return object.schema().tsdbGetDataType(chain, property);
}

}  // namespace dbcache
