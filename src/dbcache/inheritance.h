// InheritanceChain: an object and its inheritance parent, open for reading. All work of a schema on
// an object reads through one of these, made for that piece of work and dropped after it.
//
//   level 0   the object as it is stored; without records for an object not stored yet
//   level 1   the object that property 59 (`inherits`) of level 0 names, opened when it is first
//             asked for; during an update the override takes the place of the stored `inherits`
//
// Each level is a private copy of the object's records, since a view of the block cache lives only
// until the next block is touched. Copy and directory stand inside the chain, so that opening an
// object of usual size allocates nothing. Reading properties in ascending order costs one pass.
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
#include "mdb/property.h"
#include "util/node_id.h"

namespace dbcache {

class Store;

/// A private copy of one object's records with a directory of them, sorted by property.
class ObjectRecord {
  public:
    ObjectRecord() = default;
    ObjectRecord(const ObjectRecord&) = delete;
    ObjectRecord& operator=(const ObjectRecord&) = delete;

    /// Copies `slot`, an object's slot with its word, which lies at `handle`. Throws
    /// mdb::error_need_repair for damaged records.
    void assign(std::span<const std::byte> slot, mdb::block_handle_t handle);

    /// Loads `property` from its record; the first one counts where a damaged object has two.
    /// Throws mdb::error_wrongtype, mdb::error_need_repair.
    found_t read(mdb::Property& property) const;

  private:
    static constexpr size_t kInlineBytes = 1024;
    static constexpr size_t kInlineRecords = 48;
    struct Place {
        uint32_t id;
        uint32_t offset;
    };

    void add_place(const Place& place);
    [[nodiscard]] std::span<const Place> places() const noexcept;
    [[nodiscard]] const Place* find(uint32_t id) const noexcept;

    mdb::block_handle_t handle_{};
    const std::byte* bytes_ = nullptr;
    size_t size_ = 0;
    size_t count_ = 0;
    /// Where the last search ended: the next one usually goes on from there.
    mutable size_t cursor_ = 0;
    std::array<Place, kInlineRecords> inline_places_;
    std::array<std::byte, kInlineBytes> inline_bytes_;
    /// In use for objects that are larger or have more records.
    std::vector<Place> more_places_;
    std::unique_ptr<std::byte[]> more_bytes_;
};

class InheritanceChain final : public PropertyChain {
  public:
    /// Opens the object `id` at `handle`, as the open transaction sees it; the null handle stands
    /// for an object that isn't stored yet. Throws mdb::error_generic.
    InheritanceChain(Store& store, const NodeId& id, mdb::block_handle_t handle);
    /// The empty chain, of something that is no object, as a template: there is nothing to inherit,
    /// and asking for a level is a fatal assertion.
    explicit InheritanceChain(Store& store) : store_(store), empty_(true) {}
    InheritanceChain(const InheritanceChain&) = delete;
    InheritanceChain& operator=(const InheritanceChain&) = delete;

    found_t read(unsigned level, mdb::Property& property) const override;
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
    ObjectRecord object_;
    mutable std::unique_ptr<ObjectRecord> parent_;
    /// The reason why level 1 can't be opened, once that is known.
    mutable std::optional<std::string> parent_failure_;
    mutable std::optional<NodeId> inherits_;
    std::optional<NodeId> override_;
    mutable std::unique_ptr<InheritanceChain> stored_;
};

}  // namespace dbcache
