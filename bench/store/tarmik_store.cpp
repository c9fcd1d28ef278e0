#include <filesystem>

#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "platform/clock.h"
#include "store/store.h"

namespace bench {

namespace {

class TarmikStore final : public Store {
  public:
    explicit TarmikStore(const std::string& folder)
        : settings_{make_files(files_, folder)}, database_(settings_, files_, clock_) {
        indexes_.init_required_indexes();
        for (uint32_t n = mdb::kRequiredIndexes; n < mdb::kMaxIndexes; ++n)
            static_cast<void>(indexes_.ensure_index(n));
    }

    void set_durable(bool durable) override { asynchronous_ = !durable; }

    void create(const Object& object) override {
        mdb::Serializer& serializer = database_.serializer();
        mdb::Transaction transaction(database_.journal());
        serializer.serial_reset();
        for (const mdb::Property* property : object.properties()) serializer.serial_add(*property);
        database_.journal().transaction_touch(object.id.value);
        objects_.store_object({});
        transaction.commit(asynchronous_);
    }

    void update(NodeId id, uint64_t counter) override {
        mdb::Transaction transaction(database_.journal());
        change(id, counter);
        transaction.commit(asynchronous_);
    }

    void read(NodeId id, Object& object) override {
        object.decode(mdb::ObjectRecords(objects_.fetch_object(place(id))));
    }

    void list(NodeId parent, std::vector<Child>& children) override {
        places_.clear();
        for (auto at = indexes_.non_unique_search(mdb::parent_id_index, parent);
             at.at_searched_key(); indexes_.iterator_next(at))
            places_.push_back(indexes_.iterator_value(at));
        children.resize(places_.size());
        for (size_t i = 0; i < places_.size(); ++i)
            decode_child(mdb::ObjectRecords(objects_.fetch_object(places_[i])), children[i]);
    }

    void fill_log(uint32_t count) override {
        // A half is filled by small commits up to where a checkpoint would begin the next one, and
        // then by one large transaction up to its end.
        mdb::Journal& journal = database_.journal();
        const uint32_t checkpoint = journal.journal_length() / 8;
        Shuffle ordinals(11, count);
        uint64_t counter = kFillCounter;
        journal.checkpoint_and_flip();
        while (journal.free_space() > checkpoint + 4096) update(id_of(ordinals.next()), ++counter);
        mdb::Transaction transaction(journal);
        while (journal.free_space() > 8192) change(id_of(ordinals.next()), ++counter);
        transaction.commit(true);
    }

    double settle() override {
        database_.journal().full_checkpoint();
        return static_cast<double>(database_.store().file_length());
    }

  private:
    static mdb::Settings make_files(platform::FileSystem& files, const std::string& folder) {
        mdb::FormatOptions options;
        options.database_path = folder + "/objects.odb";
        options.journal_path = folder + "/objects.odbj";
        options.journal_size_bytes = kLogBytes;
        if (!files.exists(options.database_path)) mdb::format_database(files, options);
        mdb::Settings settings;
        settings.database_path = options.database_path;
        return settings;
    }

    mdb::block_handle_t place(NodeId id) { return indexes_.unique_search(mdb::node_id_index, id); }

    void change(NodeId id, uint64_t counter) {
        database_.journal().transaction_touch(id);
        mdb::dobj image = objects_.begin_object_update(place(id));
        objects_.update_property(image, mdb::PropertyUint64(prop::counter, counter), false, false);
        objects_.commit_object_update(image);
    }

    platform::SystemFiles files_;
    platform::SystemClock clock_;
    mdb::Settings settings_;
    mdb::Database database_;
    mdb::IndexTable indexes_{database_};
    mdb::ObjectStore objects_{database_, indexes_};
    bool asynchronous_ = true;
    std::vector<mdb::block_handle_t> places_;
};

}  // namespace

std::unique_ptr<Store> open_tarmik(const std::string& folder) {
    return std::make_unique<TarmikStore>(folder);
}

double bytes_of_files(const std::string& folder, const std::string& suffix) {
    double sum = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.is_regular_file() && entry.path().string().ends_with(suffix))
            sum += static_cast<double>(entry.file_size());
    return sum;
}

}  // namespace bench
