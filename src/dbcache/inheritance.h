// InheritanceChain: an object and its inheritance parent, open for reading. All work of a schema on
// an object reads through one of these, made for that piece of work and dropped after it.
//
//   level 0   the object as it is stored; without records for an object not stored yet
//   level 1   the object that property 59 (`inherits`) of level 0 names, opened when it is first
//             asked for; during an update the override takes the place of the stored `inherits`
//
// Each level is a private copy of the object's records, since a view of the block cache lives only
// until the next block is touched; who reads the object alone can do with the view (see hold_t).
// The copy stands inside the chain, so that opening an object of usual size allocates nothing.
// Reading properties in ascending order costs one pass over the records.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "dbcache/schema_object.h"
#include "mdb/block_layout.h"
#include "mdb/dobj.h"
#include "mdb/property.h"
#include "util/node_id.h"

namespace dbcache {

class Store;

/// How the records of an object are held.
enum class hold_t : uint8_t {
    copy,  ///< in memory of their own
    view,  ///< where they lie; good until the next block is touched, and not a call longer
};

/// The records of one object, to be looked up by property.
class ObjectRecord {
  public:
    ObjectRecord() = default;
    ObjectRecord(const ObjectRecord&) = delete;
    ObjectRecord& operator=(const ObjectRecord&) = delete;

    /// Takes over `object`, a loaded one. Records stand in ascending order, but for those that were
    /// added later: `ascending`, if given, is where an earlier assign() of the same object left how
    /// far the order goes; 0 for unknown. Throws mdb::error_need_repair for damaged records.
    void assign(mdb::dobj object, hold_t hold = hold_t::copy, uint32_t* ascending = nullptr);
    /// What was a view is a copy from now on.
    void make_copy();

    /// Loads `property` from its record; the first one counts where a damaged object has two.
    /// Throws mdb::error_wrongtype, mdb::error_need_repair.
    found_t read(mdb::Property& property) const;
    /// The record itself; none if there is none. Throws mdb::error_need_repair.
    [[nodiscard]] std::optional<mdb::RecordView> find(uint32_t id) const;

  private:
    static constexpr size_t kInlineBytes = 1024;

    void look_at(std::span<const std::byte> slot);

    mdb::dobj object_;
    std::span<const std::byte> slot_;
    mdb::ObjectRecords records_;
    /// From here on records stand in any order.
    const std::byte* unordered_ = nullptr;
    /// Where the last search ended: the next one usually goes on from there.
    mutable mdb::ObjectRecords::iterator cursor_;
    mutable uint32_t last_asked_ = 0;
    bool is_view_ = false;
    std::array<std::byte, kInlineBytes> inline_bytes_;
    /// In use for larger objects.
    std::unique_ptr<std::byte[]> more_bytes_;
};

class InheritanceChain final : public PropertyChain {
  public:
    /// Opens the object `id` at `handle`, as the open transaction sees it; the null handle stands
    /// for an object that isn't stored yet. Throws mdb::error_generic.
    InheritanceChain(Store& store, const NodeId& id, mdb::block_handle_t handle);
    /// For reading the object at hand and nothing else: a view of its records, which becomes a copy
    /// as soon as the chain itself needs another object. Before anybody else touches a block the
    /// caller has to call make_copy(). `ascending` as for ObjectRecord::assign().
    InheritanceChain(Store& store, const NodeId& id, mdb::block_handle_t handle,
                     uint32_t& ascending);
    /// The empty chain, of something that is no object, as a template: there is nothing to inherit,
    /// and asking for a level is a fatal assertion.
    explicit InheritanceChain(Store& store) : store_(store), empty_(true) {}
    InheritanceChain(const InheritanceChain&) = delete;
    InheritanceChain& operator=(const InheritanceChain&) = delete;

    void make_copy() const { object_.make_copy(); }

    found_t read(unsigned level, mdb::Property& property) const override;
    [[nodiscard]] std::optional<mdb::RecordView> own_record(uint32_t number) const override {
        return level(0).find(number);
    }
    [[nodiscard]] NodeId inherits() const override;
    /// Opens the object a second time where there is an override.
    [[nodiscard]] const PropertyChain& stored() const override;
    bool visit_object(const NodeId& id, const Visit& visit) const override;
    void visit_children(const NodeId& parent, uint32_t child_class,
                        const Visit& visit) const override;
    /// Reads the file, whatever the cache holds.
    [[nodiscard]] std::vector<uint8_t> read_lob(uint32_t block) const override;

    /// From now on level 1 is this object; the null id means that there is none.
    void override_parent(const NodeId& parent);

  private:
    /// Throws EInheritance when it can't be opened.
    [[nodiscard]] const ObjectRecord& level(unsigned number) const;
    void open_parent() const;

    Store& store_;
    NodeId id_;
    mdb::block_handle_t handle_{};
    bool empty_ = false;
    mutable ObjectRecord object_;
    mutable std::unique_ptr<ObjectRecord> parent_;
    /// The reason why level 1 can't be opened, once that is known.
    mutable std::optional<std::string> parent_failure_;
    mutable std::optional<NodeId> inherits_;
    std::optional<NodeId> override_;
    mutable std::unique_ptr<InheritanceChain> stored_;
};

}  // namespace dbcache
