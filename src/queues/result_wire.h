// The records of select answers and patches, written piece by piece by who holds their trees in a
// form of its own. What is written is what dbms::Return_Tql_Select_Data,
// dbms::Return_Tql_Select_Patch_Data and tql::result_t name, in their order:
//
//   select   head (status, details, count of trees) | tree ...
//   patch    id | tree | version
//   tree     head of the node (all fields up to the count of children) | tree ... | origin
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

#include "protocol/ioprim.h"
#include "queues/encoded_values.h"
#include "queues/records/dbms_tql.h"

namespace queues {

/// A node of a tree but for its children and its origin; refers to what the caller holds.
struct NodeHead {
    std::uint32_t class_number;
    std::uint32_t flags;
    const std::vector<std::uint32_t>& tags;  ///< ascending
    const tql::id_t& id;
    const tql::version_t& version;
    const EncodedValues& values;
    std::size_t children;
};

void put_select_head(protocol::ioprim& out, std::uint32_t status,
                     const std::list<dbms::detail_t>& details, std::size_t trees);
void put_node_head(protocol::ioprim& out, const NodeHead& node);
void put_node_end(protocol::ioprim& out, const tql::origin_t& origin);
void put_patch_head(protocol::ioprim& out, const tql::id_t& object);
void put_patch_end(protocol::ioprim& out);

}  // namespace queues
