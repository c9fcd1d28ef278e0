// Users, what they have set for themselves, and the views and links that they have made.
#pragma once

namespace dbcache {
class SchemaTable;
}

namespace dbcache::schema {

/// User, UserProfile, View, ViewEntry, NodeView, QuickLink, GraphicalView and GraphicalViewNode.
void declare_users(SchemaTable& table);

}  // namespace dbcache::schema
