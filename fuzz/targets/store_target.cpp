// A database and a journal, damaged: it is opened, read from end to end, verified, changed, dropped
// as by a killed process, and opened again.
//
//   byte 0     image to start from
//   byte 1     1: put the checksums of the journal right   2: a second life   3C: log everything
//   ...        changes, as apply_changes() reads them
//   then       operations, three bytes each, to the end

#include <array>
#include <optional>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "mdb/verify.h"
#include "targets/attempt.h"
#include "targets/images.h"
#include "targets/memory_files.h"
#include "targets/target.h"

namespace fuzz {

namespace {

constexpr size_t kRoom = 2 << 20;
constexpr int kMostOperations = 24;
constexpr uint32_t kFormatNumber = 12;

constexpr uint8_t kRepairChecksums = 1;
constexpr uint8_t kSecondLife = 2;
/// All bits of it, as it is slow.
constexpr uint8_t kLogEverything = 0x3C;

constexpr std::array kImages = {"blank", "objects", "journal", "redirected"};

/// Properties that every reader of an object asks for.
struct Readers {
    mdb::PropertyNodeId own_id{0};
    mdb::PropertyNodeId parent{2};
    mdb::PropertyString name{51};
    mdb::PropertyStringList names{52};
    mdb::PropertyBlob bytes{53};
    mdb::PropertyBigNum big{54};
    mdb::PropertyMarkIndex mark{55};
    mdb::PropertyVersion version{56};
    mdb::PropertySnmpOid oid{57};

    [[nodiscard]] std::array<mdb::Property*, 9> all() {
        return {&own_id, &parent, &name, &names, &bytes, &big, &mark, &version, &oid};
    }
};

/// One run of a server over the files.
class Life {
  public:
    Life(MemoryFiles& files, StillClock& clock) : clock_(clock) {
        mdb::Settings settings;
        settings.database_path = "db";
        settings.journal_path = "journal";
        settings.buffer_blocks = 8;
        database_.emplace(settings, files, clock);
        indexes_.emplace(*database_);
        objects_.emplace(*database_, *indexes_);
    }

    [[nodiscard]] bool failed() { return database_->journal().failed(); }

    void start() {
        indexes_->init_required_indexes();
        if (!indexes_->unique_find(mdb::node_id_index, {0, 1})) create({0, 1}, 10);
        mdb::start_indexes(*indexes_, place({0, 1}), kFormatNumber);
    }

    /// Everything that can be read, each index in both ways.
    void read_all() {
        for (uint32_t n = 0; n < indexes_->index_count(); ++n)
            for (auto it = indexes_->iterate_first(n); it.valid(); indexes_->iterator_next(it)) {
                const mdb::block_handle_t handle = indexes_->iterator_value(it);
                if (n == mdb::node_id_index) read(handle);
            }
    }

    /// What is wrong with it; empty when it is whole.
    [[nodiscard]] std::string faults() {
        mdb::VerifyOptions options;
        options.lost_index_blocks = true;
        return mdb::verify(*database_, options).text();
    }

    /// True when an index was built anew, which misses what no parents lead to.
    [[nodiscard]] static bool rebuilds(uint8_t what) { return what % 12 == 11; }
    void operate(uint8_t what, uint8_t which, uint8_t size) {
        const NodeId id{which % 4 == 3 ? 1U : 0U, which};
        switch (what % 12) {
            case 0:
                return read(place(id));
            case 1:
                return create({1, which}, size);
            case 2:
                return change(id, size);
            case 3:
                return objects_->delete_object(place(id), size % 2 == 0);
            case 4:
                return walk_children(id);
            case 5:
                return walk_after(id);
            case 6:
                return clock_.next_second();
            case 7:
                return database_->journal().full_checkpoint();
            case 8:
                return nested(id, which, size);
            case 9:
                return move(id, size);
            case 10:
                return drop_property(id, size);
            case 11:
                return rebuild(which % mdb::kMaxIndexes);
        }
    }

  private:
    [[nodiscard]] mdb::block_handle_t place(NodeId id) {
        return indexes_->unique_search(mdb::node_id_index, id);
    }

    void read(mdb::block_handle_t handle) {
        const mdb::dobj object = objects_->load_object(handle);
        Readers readers;
        for (mdb::Property* property : readers.all()) read_property(*property, object);
        // What is cached is the committed state.
        if (!database_->journal().transaction_active())
            static_cast<void>(objects_->fetch_object(handle));
    }

    static void read_property(mdb::Property& property, const mdb::dobj& object) {
        try {
            property.read(object);
        } catch (const mdb::error_nullprop&) {
        } catch (const mdb::error_wrongtype&) {
            // What a record means is the schema's business: a changed type is no damage here.
        }
    }

    void create(NodeId id, uint8_t size) {
        mdb::Serializer& serializer = database_->serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(0, id));
        if (id != NodeId{0, 1}) serializer.serial_add(mdb::PropertyNodeId(2, {0, 1U + size % 4}));
        serializer.serial_add(mdb::PropertyBool(502, size % 2 == 0));
        serializer.serial_add(mdb::PropertyString(51, std::string(size, 'n')));
        if (size % 3 == 0) serializer.serial_add(mdb::PropertyNodeId(59, {0, 9}));
        static_cast<void>(objects_->store_object({}));
    }

    void change(NodeId id, uint8_t size) {
        mdb::dobj image = objects_->begin_object_update(place(id));
        objects_->update_property(image, mdb::PropertyString(51, std::string(size * 3U, 'c')), true,
                                  false);
        objects_->update_property(image, mdb::PropertyBlob(53, {1, 2, 3}), size % 2 == 0,
                                  size % 3 == 0);
        static_cast<void>(objects_->commit_object_update(image));
    }

    /// Under an object with a smaller id, so that no ring of parents comes into being.
    void move(NodeId id, uint8_t size) {
        const NodeId parent{0, id.first > 0 ? size : size % std::max(id.second, 1U)};
        mdb::dobj image = objects_->begin_object_update(place(id));
        objects_->update_property(image, mdb::PropertyNodeId(2, parent), true, size % 5 == 0);
        objects_->update_property(image, mdb::PropertyBool(502, size % 2 == 0), true, false);
        static_cast<void>(objects_->commit_object_update(image));
    }

    void drop_property(NodeId id, uint8_t size) {
        static constexpr std::array<uint32_t, 4> kIds = {2, 51, 52, 502};
        mdb::dobj image = objects_->begin_object_update(place(id));
        objects_->remove_property(image, kIds[size % kIds.size()], size > 127);
        static_cast<void>(objects_->commit_object_update(image));
    }

    /// Two changes in one transaction; the inner or the outer one is undone.
    void nested(NodeId id, uint8_t which, uint8_t size) {
        mdb::Transaction outer(database_->journal());
        change(id, size);
        {
            mdb::Transaction inner(database_->journal());
            create({2, which}, size);
            read(place({2, which}));
            if (size % 2 == 0) inner.commit();
        }
        walk_children({0, 1});
        if (size % 4 < 2) outer.commit(size % 8 < 4);
    }

    void rebuild(uint32_t n) {
        if (n < mdb::kRequiredIndexes) return static_cast<void>(indexes_->detect_aliasing(n));
        // What is above goes too, as the roots move down.
        for (uint32_t i = indexes_->index_count(); i-- > n;) indexes_->drop_index(i);
        mdb::start_indexes(*indexes_, place({0, 1}), kFormatNumber);
    }

    void walk_children(NodeId parent) {
        for (auto it = indexes_->non_unique_search(mdb::parent_id_index, parent);
             it.at_searched_key(); indexes_->iterator_next(it))
            static_cast<void>(objects_->load_object(indexes_->iterator_value(it)));
    }

    void walk_after(NodeId id) {
        int left = 100;
        for (auto it = indexes_->find_after(mdb::node_id_index, id); it.valid() && left-- > 0;
             indexes_->iterator_next(it))
            static_cast<void>(indexes_->iterator_key(it));
    }

    StillClock& clock_;
    std::optional<mdb::Database> database_;
    std::optional<mdb::IndexTable> indexes_;
    std::optional<mdb::ObjectStore> objects_;
};

class StoreTarget final : public Target {
  public:
    explicit StoreTarget(const std::string& folder) : files_(kRoom) {
        for (const char* name : kImages) images_.push_back(load_image(folder, name));
    }

    void run(std::span<const uint8_t> bytes) override {
        Input input(bytes);
        Image image = images_[input.byte() % images_.size()];
        const uint8_t flags = input.byte();
        const logging::OutletScope silence{[](logging::level_t, std::string_view) {}};
        logging::set_all_levels((flags & kLogEverything) == kLogEverything ? logging::level_t::trace
                                                                           : logging::level_t::off);
        apply_changes(input, image);
        if ((flags & kRepairChecksums) != 0) repair_checksums(image);
        files_.put("db", image.database);
        files_.put("journal", image.journal);
        const bool whole = live(input);
        if ((flags & kSecondLife) == 0) return;
        Input nothing({});
        if (!live(nothing) && whole) throw Violation("A whole database is damaged by a restart");
    }

  private:
    /// False when damage was met. Once the verifier has found nothing, no operation may meet any,
    /// nor leave any behind.
    [[nodiscard]] bool live(Input& input) {
        std::optional<Life> life;
        std::string text;
        const auto failed = [&] { return life && life->failed(); };
        const auto run = [&](auto&& work) { return attempt(text, failed, work); };
        if (run([&] { life.emplace(files_, clock_); }) != outcome_t::done) return false;
        if (run([&] { life->start(); }) != outcome_t::done) return false;
        std::string faults;
        bool whole = run([&] { faults = life->faults(); }) == outcome_t::done && faults.empty();
        expect(run([&] { life->read_all(); }), whole, text);
        for (int left = kMostOperations; !input.empty() && left > 0; --left) {
            const uint8_t what = input.byte();
            const uint8_t which = input.byte();
            const uint8_t size = input.byte();
            whole = whole && !Life::rebuilds(what);
            expect(run([&] { life->operate(what, which, size); }), whole, text);
        }
        const outcome_t end = run([&] { faults = life->faults(); });
        expect(end, whole, text);
        if (whole && !faults.empty()) throw Violation("Operations did harm: " + faults);
        return whole && !life->failed();
    }

    static void expect(outcome_t outcome, bool whole, const std::string& text) {
        if (whole && outcome == outcome_t::damage)
            throw Violation("The verifier has found nothing, but: " + text);
    }

    MemoryFiles files_;
    StillClock clock_;
    std::vector<Image> images_;
};

}  // namespace

std::unique_ptr<Target> make_store_target(const std::string& folder) {
    return std::make_unique<StoreTarget>(folder);
}

std::unique_ptr<Target> make_target(std::string_view name, const std::string& folder) {
    if (name == "store") return make_store_target(folder);
    if (name == "index") return make_index_target(folder);
    if (name == "property") return make_property_target();
    if (name == "lob") return make_lob_target(folder);
    if (name == "unit") return make_unit_target();
    if (name == "layout") return make_layout_target();
    throw std::runtime_error("There is no target " + std::string(name));
}

}  // namespace fuzz
