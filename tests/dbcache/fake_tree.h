// A tree of objects made of maps, in the record form of the store, behind the interfaces that
// schemas ask through.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "dbcache/nodetype_schema.h"
#include "mdb/errors.h"
#include "mdb/property_types.h"
#include "support/fake_clock.h"
#include "tql/names.h"

namespace dbcache::test {

using Records = std::map<uint32_t, std::vector<std::byte>>;

/// Puts records where a writer of object versions would.
class FakeSink final : public RecordSink {
  public:
    explicit FakeSink(Records& records) : records_(records) {}
    void add(const mdb::Property& property) override {
        std::vector<std::byte> bytes(property.record_length());
        property.store(bytes);
        records_[property.id] = std::move(bytes);
    }
    void add_null(const mdb::Property& property) override {
        std::vector<std::byte> bytes(mdb::record_layout::kHeadLength);
        property.store_null(bytes);
        records_[property.id] = std::move(bytes);
    }
    uint32_t write_lob(std::span<const uint8_t> bytes) override {
        lobs[++last_lob] = {bytes.begin(), bytes.end()};
        return last_lob;
    }
    void free_lob(uint32_t block) override { lobs.erase(block); }

    std::map<uint32_t, std::vector<uint8_t>> lobs;
    uint32_t last_lob = 100;

  private:
    Records& records_;
};

struct FakeTree {
    struct Stored {
        uint32_t class_number = 0;
        NodeId parent;
        NodeId inherits;
        Records records;
    };
    std::map<NodeId, Stored> objects;
    std::map<uint32_t, std::vector<uint8_t>> lobs;
    support::FakeClock clock;

    /// An object with one record for each of `properties`.
    Stored& add(const NodeId& id, uint32_t class_number, const NodeId& parent) {
        return objects[id] = Stored{class_number, parent, {}, {}};
    }
    void put(const NodeId& id, const mdb::Property& property) {
        FakeSink(objects[id].records).add(property);
    }
    void put_null(const NodeId& id, const mdb::Property& property) {
        FakeSink(objects[id].records).add_null(property);
    }
};

class FakeChain final : public PropertyChain {
  public:
    FakeChain(const FakeTree& tree, const NodeId& id) : tree_(tree), id_(id) {}

    found_t read(unsigned level, mdb::Property& property) const override {
        property.inherited = 0;
        const FakeTree::Stored* object = find(id_);
        if (level == 1) {
            if (object == nullptr || object->inherits.is_null())
                throw EInheritance("No inheritance parent: Inherits is null");
            object = find(object->inherits);
            if (object == nullptr) throw EInheritance("No parent: gone");
        }
        if (object == nullptr) return found_t::absent;
        const auto found = object->records.find(property.id);
        if (found == object->records.end()) return found_t::absent;
        const mdb::RecordView record{found->second};
        property.inherited = record.is_inherited() ? 1 : 0;
        if (record.is_null()) return found_t::explicit_null;
        property.read_record(record, {});
        return found_t::value;
    }
    [[nodiscard]] NodeId inherits() const override {
        const FakeTree::Stored* object = find(id_);
        return object == nullptr ? NodeId{} : object->inherits;
    }
    bool visit_object(const NodeId& id, const Visit& visit) const override {
        if (!tree_.objects.contains(id)) return false;
        visit(FakeChain(tree_, id));
        return true;
    }
    void visit_children(const NodeId& parent, uint32_t child_class,
                        const Visit& visit) const override {
        for (const auto& [id, stored] : tree_.objects)
            if (stored.parent == parent && stored.class_number == child_class)
                visit(FakeChain(tree_, id));
    }
    [[nodiscard]] std::vector<uint8_t> read_lob(uint32_t block) const override {
        const auto found = tree_.lobs.find(block);
        if (found == tree_.lobs.end()) throw mdb::error_internal("no such lob");
        return found->second;
    }

  private:
    [[nodiscard]] const FakeTree::Stored* find(const NodeId& id) const {
        const auto found = tree_.objects.find(id);
        return found == tree_.objects.end() ? nullptr : &found->second;
    }
    const FakeTree& tree_;
    NodeId id_;
};

/// The object `id` of a tree, or one that is about to be created under `parent`.
class FakeObject final : public SchemaObject {
  public:
    FakeObject(const FakeTree& tree, const NodeId& id) : FakeObject(tree, id, {}, 0) {}
    FakeObject(const FakeTree& tree, const NodeId& id, const NodeId& parent, uint32_t class_number)
        : tree_(tree), id_(id), parent_(parent), class_(class_number) {
        const auto found = tree.objects.find(id);
        stored_ = found != tree.objects.end();
        if (!stored_) return;
        parent_ = found->second.parent;
        class_ = found->second.class_number;
    }

    NodeId user;
    /// What translate_inherited() gives for an id; an id that isn't here stays.
    std::map<NodeId, NodeId> translations;

    [[nodiscard]] NodeId node_id() const override { return id_; }
    [[nodiscard]] uint32_t schema_class() const override { return class_; }
    [[nodiscard]] bool is_stored() const override { return stored_; }
    [[nodiscard]] NodeId request_user() const override { return user; }
    [[nodiscard]] const platform::Clock& clock() const override { return tree_.clock; }

    [[nodiscard]] std::vector<TreePlace> path_to_root(const NodeId& id) const override {
        std::vector<TreePlace> path;
        NodeId at = id;
        if (id == id_ && !stored_) {
            path.push_back({id_, class_});
            at = parent_;
        }
        for (auto found = tree_.objects.find(at); found != tree_.objects.end();
             found = tree_.objects.find(found->second.parent))
            path.push_back({found->first, found->second.class_number});
        return path;
    }
    bool visit_object(const NodeId& id,
                      const std::function<void(const PropertyChain&)>& visit) const override {
        if (!tree_.objects.contains(id)) return false;
        visit(FakeChain(tree_, id));
        return true;
    }
    bool visit_siblings(const NodeId& new_parent, const std::set<uint32_t>& classes,
                        const SiblingVisit& visit) const override {
        const NodeId parent = new_parent.is_null() ? parent_ : new_parent;
        if (parent.is_null()) return false;
        for (const auto& [id, stored] : tree_.objects)
            if (stored.parent == parent && id != id_ && classes.contains(stored.class_number) &&
                !visit(id, stored.class_number, FakeChain(tree_, id)))
                break;
        return true;
    }
    [[nodiscard]] uint32_t parent_class(const NodeId& new_parent) const override {
        const auto found = tree_.objects.find(new_parent.is_null() ? parent_ : new_parent);
        return found == tree_.objects.end() ? kNoParent : found->second.class_number;
    }
    [[nodiscard]] NodeId translate_inherited(const NodeId&, const NodeId& id,
                                             uint32_t) const override {
        const auto found = translations.find(id);
        return found == translations.end() ? id : found->second;
    }
    [[nodiscard]] std::vector<NodeId> translate_inherited_set(const NodeId& inherits,
                                                              const std::vector<NodeId>& ids,
                                                              uint32_t number) const override {
        std::vector<NodeId> translated;
        for (const NodeId& id : ids)
            translated.push_back(translate_inherited(inherits, id, number));
        return translated;
    }
    [[nodiscard]] std::optional<tql::origin_t> parent_origin() const override {
        if (parent_.is_null()) return std::nullopt;
        return tql::origin_t{tql::id_t::from_node_id(parent_), {}, 77};
    }

  private:
    const FakeTree& tree_;
    NodeId id_;
    NodeId parent_;
    uint32_t class_ = 0;
    bool stored_ = false;
};

/// What a failing request would tell: "code: text", or an empty text when nothing failed.
template <class Action>
std::string failure_of(Action&& action) {
    try {
        action();
    } catch (const errors::tql& failure) {
        return std::to_string(failure.code()) + ": " + failure.text();
    }
    return {};
}

}  // namespace dbcache::test
