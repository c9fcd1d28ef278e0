// UpdateOperation: one create or update of one object, step by step. Everything before the
// transaction works on an array of values beside the object; what follows is undone as a whole by
// HandlerRollback when any step throws.
#pragma once

#include "dbcache/detail/handler_rollback.h"
#include "dbcache/inheritance.h"
#include "dbcache/mark_index.h"
#include "dbcache/object_view.h"

namespace dbcache {

class RecordWriter;

class UpdateOperation {
  public:
    UpdateOperation(ObjectHandler& handler, const tqlengine::WriteArguments& arguments);

    /// Gives the status bits.
    uint32_t run();

  private:
    [[nodiscard]] bool is_new() const noexcept { return !handler_.is_stored(); }
    [[nodiscard]] bool is_given(uint32_t number) const;

    void check_version() const;
    void load_values();
    void load_other_subtype(size_t index);
    void apply_inherits();
    void inherit_all();
    void apply_subtype_properties();
    void apply_properties();
    void apply_property(const tql::property_t& value);
    void apply_check_name(const tql::property_t& value);
    void apply_to(uint32_t number, const tql::property_t& value);
    void take_copy_version(size_t index, const tql::property_t& value);
    void take_new_parent(const tql::property_t& value);
    void apply_slave_build();
    void end_copy();
    void validate();

    void open_transaction();
    void move(const UseMap& use_after);
    void revalidate_moved();
    void note_move();
    [[nodiscard]] bool is_member(uint32_t mark) const;
    void update_marks(const NodeId& old_parent);
    void update_marks_now(const NodeId& old_parent);
    void take_versions();
    void refresh_kept_values();
    void serialise();
    void store_value(size_t index, RecordWriter& writer);
    void store();
    void note_key();
    void renew_sibling_entry();

    void assign(size_t index, const tql::property_t& value);
    void skip_unknown(uint32_t number);

    ObjectHandler& handler_;
    const NodetypeSchema& schema_;
    const tqlengine::WriteArguments& arguments_;
    HandlerRollback rollback_;
    ObjectView view_;
    InheritanceChain chain_;
    WorkArray work_;
    MarkRecords marks_;
    /// Tells whether another write has changed the object since its values were loaded.
    const uint32_t rewrites_;
    uint32_t subtype_ = kAllSubtypes;
    /// What the object counted for before the update.
    UseMap use_before_;
    bool ignored_ = false;
    bool sets_copy_version_ = false;
    /// Null unless the object moves.
    NodeId new_parent_;
    const tql::property_t* slave_build_ = nullptr;
};

}  // namespace dbcache
