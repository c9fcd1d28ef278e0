// Node classes: configurations that nodes follow. Below a NodeClass stands a small tree that
// mirrors the one of a node; an object under a node names with `inherits` the configuration that it
// takes its values from. Each property of a check that can be inherited stands in the
// configuration too, and may be left open there.
//
// `abstract`, `autoPromote`, rules, `final`, `mustHave` and conflicts are kept for those who work
// with classes; the server itself draws no conclusion from them.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// NodeClass, NodeClassRegexRule, NodeClassNodeConfig, NodeClassCheckGroupConfig,
/// NodeClassCheckConfig, NodeClassCheckAccumulationConfig, NodeClassMultiCheckConfig and
/// NodeClassConflict.
void declare_node_classes(SchemaTable& table);

}  // namespace dbcache::schema
