#include "dbcache/mark_rebuild.h"

#include <optional>

#include "dbcache/detail/mark_nodetypes.h"
#include "dbcache/fixed_ids.h"
#include "log/log.h"
#include "tql/names.h"

namespace dbcache {

namespace {

const logging::Logger logger{"dbms_conversion"};

using detail::mark_role_t;
using mdb::block_handle_t;
using mdb::PropertyMarkIndex;

bool has_record(const mdb::dobj& object, uint32_t mark) {
    for (const mdb::RecordView record : mdb::ObjectRecords(object))
        if (record.id() == mark) return true;
    return false;
}

/// One walk over the tree, with the way down on a stack of its own.
class Rebuild {
  public:
    Rebuild(StoredTree& tree, uint32_t mark) : tree_(tree), mark_(mark) {}

    UnlinkedMarkList run() {
        const block_handle_t root = tree_.get(kRootId);
        enter(has_record(tree_.load(root), mark_) ? tree_.drop(root, mark_) : root, NodeId{});
        while (!way_.empty()) {
            Open& open = way_.back();
            if (open.next_child < open.children.size())
                enter(open.children[open.next_child++], open.last);
            else
                leave();
        }
        return result_;
    }

  private:
    /// An object whose children are being walked.
    struct Open {
        NodeId id;
        block_handle_t place;
        bool marked;
        bool has_old_record;
        /// The object before it in the list.
        NodeId prev;
        /// The last listed object so far of its subtree; itself while there is none.
        NodeId last;
        bool listed;
        std::vector<block_handle_t> children;
        size_t next_child = 0;
    };

    void enter(block_handle_t place, NodeId prev) {
        const mdb::dobj object = tree_.load(place);
        const NodeId id = id_of(object);
        if (!way_.empty() && id == kRootId)
            throw mdb::error_need_repair(
                fmt::format("Object {} is its own ancestor", id.to_string()));
        const uint32_t type = nodetype_of(object);
        const bool has_old_record = has_record(object, mark_);
        const mark_role_t role = detail::mark_role(mark_, type);
        if (role == mark_role_t::outside) {
            if (has_old_record) clear(place, id);
            return;
        }
        const bool marked = read_marked(object, id, type, role);
        way_.push_back({id, place, marked, has_old_record, prev, id, marked, tree_.children(id)});
    }

    bool read_marked(const mdb::dobj& object, const NodeId& id, uint32_t type, mark_role_t role) {
        try {
            return detail::is_marked(mark_, role, object);
        } catch (const mdb::error_nullprop&) {
            logger.warning("Object {} of type {}", id.to_string(), type);
            throw;
        }
    }

    void leave() {
        const Open done = std::move(way_.back());
        way_.pop_back();
        if (done.listed)
            store(done);
        else if (done.has_old_record)
            tree_.drop(done.place, mark_);
    }

    void store(const Open& done) {
        const mdb::MarkLinks links{done.prev, {}, done.last, done.marked};
        if (way_.empty()) {
            result_ = {done.last, links};
            return;
        }
        const PropertyMarkIndex record(mark_, links);
        tree_.rewrite(done.place, {&record});
        way_.back().last = done.last;
        way_.back().listed = true;
    }

    /// Takes an old list's records out of a subtree that has no part in the new one. Below an
    /// object without a record there are none; so the lowest go first, and what a cut leaves is
    /// found again.
    void clear(block_handle_t top, const NodeId& top_id) {
        std::vector<std::pair<block_handle_t, NodeId>> found{{top, top_id}};
        for (size_t i = 0; i < found.size(); ++i) {
            for (const block_handle_t child : tree_.children(found[i].second)) {
                const mdb::dobj object = tree_.load(child);
                if (has_record(object, mark_)) found.emplace_back(child, id_of(object));
            }
        }
        for (auto it = found.rbegin(); it != found.rend(); ++it) tree_.drop(it->first, mark_);
    }

    StoredTree& tree_;
    const uint32_t mark_;
    std::vector<Open> way_;
    UnlinkedMarkList result_;
};

}  // namespace

UnlinkedMarkList rebuild_mark_list(StoredTree& tree, uint32_t mark) {
    return Rebuild(tree, mark).run();
}

void link_mark_list(StoredTree& tree, uint32_t mark, const UnlinkedMarkList& list) {
    NodeId next;
    for (NodeId id = list.last; !id.is_null();) {
        const block_handle_t place = tree.get(id);
        PropertyMarkIndex record(mark, list.root);
        if (id != kRootId) record.read(tree.load(place));
        record.value.next = next;
        tree.rewrite(place, {&record});
        next = id;
        id = record.value.prev;
    }
}

void build_mark_list(StoredTree& tree, uint32_t mark) {
    link_mark_list(tree, mark, rebuild_mark_list(tree, mark));
}

void recreate_missing_mark_lists(StoredTree& tree) {
    for (const uint32_t mark : {prop::activeMark, prop::inheritsMark}) {
        if (find_value<PropertyMarkIndex>(tree.load(kRootId), mark)) continue;
        logger.info("Recreating index {}, this may take a while...", mark);
        build_mark_list(tree, mark);
        logger.info("Finished recreating index {}", mark);
    }
}

}  // namespace dbcache
