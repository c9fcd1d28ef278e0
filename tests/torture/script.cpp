#include <span>

#include "error/exception.h"
#include "mdb/header_layout.h"
#include "mdb/large_object.h"
#include "mdb/property_types.h"
#include "util/byte_order.h"
#include "workload.h"

namespace torture {

namespace {

void add_id(mdb::Serializer& serializer, uint32_t property, NodeId value) {
    if (!value.is_null()) serializer.serial_add(mdb::PropertyNodeId(property, value));
}

}  // namespace

Script::Script(platform::FileSystem& files, support::SimDisk* record, const Setup& setup,
               History& history)
    : files_(files), record_(record), setup_(setup), history_(history), levels_(1) {}

void Script::format(bool force) {
    mdb::FormatOptions options;
    options.database_path = kDatabase;
    options.journal_path = kJournal;
    options.block_size = setup_.block_size;
    options.journal_size_bytes = setup_.journal_size;
    options.capacity_bytes = setup_.capacity;
    options.force = force;
    mdb::format_database(files_, options);
    if (setup_.journal_block != 0) move_journal_into_file();
}

/// Such a database is made by nobody any more, but opened.
void Script::move_journal_into_file() {
    namespace layout = mdb::header_layout;
    const auto database = files_.open(kDatabase);
    const auto journal = files_.open(kJournal);
    mdb::Header old;
    static_cast<void>(database->read_at(old.data(), mdb::Header::kSize, 0));
    mdb::Header::Blank blank;
    blank.block_size = setup_.block_size;
    // One word of the header says where the layout area is and where the journal begins.
    blank.layout_offset = setup_.journal_block;
    blank.roots = {old.index_root(0), old.index_root(1)};
    blank.map_start = old.map_start();
    blank.first_data_block = old.first_data_block();
    mdb::Header header = mdb::Header::make(blank);
    util::store_be32(header.data() + layout::journal_type, layout::kJournalInFile);
    std::vector<std::byte> bytes(journal->size());
    const auto blocks = static_cast<uint32_t>(bytes.size() / setup_.block_size);
    util::store_be32(header.data() + layout::journal_place, blocks);
    header.verify();
    static_cast<void>(journal->read_at(bytes.data(), bytes.size(), 0));
    const uint64_t place = uint64_t{setup_.journal_block} * setup_.block_size;
    database->write_at(bytes.data(), bytes.size(), place);
    // A mark by which nobody takes the blocks.
    const std::vector<std::byte> marks(blocks, static_cast<std::byte>(mdb::mark_t::lob));
    const uint64_t map = uint64_t{old.map_start()} * setup_.block_size;
    database->write_at(marks.data(), marks.size(), map + setup_.journal_block);
    database->write_at(header.data(), mdb::Header::kSize, 0);
    database->sync_data();
    files_.remove(kJournal);
}

void Script::format_recorded(bool force) {
    const Model empty{{kRoot, {}}};
    history_.begin(std::nullopt, now());
    history_.begin(empty, now());
    format(force);
    levels_.assign(1, empty);
    history_.returned(now());
    history_.durable(now());
}

void Script::open() {
    close();
    mdb::Settings settings;
    settings.database_path = kDatabase;
    settings.journal_path = setup_.journal_block == 0 ? kJournal : "";
    settings.buffer_blocks = setup_.buffer_blocks;
    // A second in which nothing was flushed yet, as the journal sees it.
    clock_.advance_us(1'000'000);
    database_ = std::make_unique<mdb::Database>(settings, files_, clock_);
    indexes_ = std::make_unique<mdb::IndexTable>(*database_);
    indexes_->init_required_indexes();
    objects_ = std::make_unique<mdb::ObjectStore>(*database_, *indexes_);
    // The replay has made all durable.
    history_.durable(now());
    synced_second_ = 0;
    if (!indexes_->unique_find(mdb::node_id_index, kRoot)) {
        Model with_root = model();
        with_root[kRoot] = {};
        history_.begin(with_root, now());
        put(kRoot, {}, 0);
        database_->journal().full_checkpoint();
        levels_.back() = with_root;
        history_.returned(now());
        history_.durable(now());
    }
    if (setup_.six_indexes)
        mdb::start_indexes(*indexes_, indexes_->unique_search(mdb::node_id_index, kRoot), 12);
    ready_ = true;
}

void Script::close() {
    ready_ = false;
    objects_.reset();
    indexes_.reset();
    database_.reset();
    levels_.resize(1);
}

/// All that has returned is durable once something has flushed in a later second.
void Script::note_second() {
    const uint64_t second = clock_.monotonic_us() / 1'000'000;
    if (second <= synced_second_) return;
    synced_second_ = second;
    history_.durable(now());
}

void Script::begin() {
    database_->journal().transaction_begin();
    if (!in_transaction()) note_second();
    levels_.push_back(levels_.back());
}

void Script::commit(bool asynchronous) {
    if (levels_.size() > 2) {
        database_->journal().transaction_end(true);
        levels_.erase(levels_.end() - 2);
        return;
    }
    history_.begin(levels_.back(), now());
    database_->journal().transaction_end(asynchronous);
    levels_.erase(levels_.begin());
    history_.returned(now());
    if (asynchronous)
        note_second();
    else
        history_.durable(now());
}

void Script::abort() {
    database_->journal().transaction_abort();
    levels_.pop_back();
}

void Script::one(const std::function<void()>& operation) {
    const bool outermost = !in_transaction();
    if (outermost) begin();
    operation();
    if (outermost) commit(true);
}

mdb::block_handle_t Script::place(NodeId id) {
    return indexes_->unique_search(mdb::node_id_index, id);
}

uint32_t Script::large_block(NodeId id) {
    mdb::PropertyUint32 block(kLargeProperty);
    try {
        block.read(objects_->load_object(place(id)));
    } catch (const mdb::error_nullprop&) {
        return 0;
    }
    return block.value;
}

void Script::put(NodeId id, const Values& values, uint32_t large_block) {
    mdb::Serializer& serializer = database_->serializer();
    serializer.serial_reset();
    serializer.serial_add(mdb::PropertyNodeId(0, id));
    add_id(serializer, 2, values.parent);
    serializer.serial_add(mdb::PropertyBool(502, values.active));
    serializer.serial_add(mdb::PropertyString(kTextProperty, values.text));
    add_id(serializer, 59, values.inherits);
    add_id(serializer, 3800, values.master);
    add_id(serializer, 3901, values.notify);
    if (large_block != 0) serializer.serial_add(mdb::PropertyUint32(kLargeProperty, large_block));
    const auto there = indexes_->unique_find(mdb::node_id_index, id);
    static_cast<void>(objects_->store_object(there.value_or(mdb::block_handle_t{})));
}

void Script::create(NodeId id, const Values& values) {
    one([&] {
        put(id, values, 0);
        levels_.back()[id] = values;
    });
}

void Script::update(NodeId id, const Values& values) {
    one([&] {
        put(id, values, large_block(id));
        Values& now_there = levels_.back().at(id);
        auto large = std::move(now_there.large);
        now_there = values;
        now_there.large = std::move(large);
    });
}

void Script::remove(NodeId id) {
    one([&] {
        if (const uint32_t block = large_block(id)) mdb::free_lob(*database_, block);
        objects_->delete_object(place(id), true);
        levels_.back().erase(id);
    });
}

void Script::set_large(NodeId id, const std::optional<std::string>& bytes) {
    one([&] {
        const uint32_t old = large_block(id);
        const auto free_old = [&] {
            if (old != 0) mdb::free_lob(*database_, old);
        };
        // Near a block that the transaction has freed none is found: with one map block the new
        // one comes first.
        const bool one_map_block =
            setup_.capacity <= uint64_t{setup_.block_size} * setup_.block_size;
        if (!one_map_block) free_old();
        uint32_t block = 0;
        if (bytes) block = mdb::write_lob(*database_, std::as_bytes(std::span(*bytes)));
        if (one_map_block) free_old();
        Values& values = levels_.back().at(id);
        values.large = bytes;
        put(id, values, block);
    });
}

void Script::full_checkpoint() {
    database_->journal().full_checkpoint();
    history_.durable(now());
}

void Script::flip(bool redirect) {
    database_->journal().flip(redirect);
    history_.durable(now());
}

void Script::journal_checkpoint() {
    database_->journal().journal_checkpoint();
    note_second();
}

void Script::drop_index(uint32_t n) {
    // A server does this at its start only, which a failure ends.
    ready_ = false;
    indexes_->drop_index(n);
    ready_ = true;
    history_.durable(now());
}

void Script::pass_time(uint64_t ms) {
    clock_.advance_us(ms * 1000);
}

void Script::limit_growth(std::optional<uint64_t> bytes) {
    error::check(record_ != nullptr, "Only a simulated disk can be full");
    record_->set_most_file_bytes(bytes ? database_->store().file_length() + *bytes : 0);
}

void Script::abort_all() {
    while (in_transaction()) abort();
}

Run::Run(const Workload& workload, support::SimDisk& disk) : workload_(workload), disk_(disk) {}

void Run::prepare() {
    History unrecorded{Model{}};
    Script script(disk_, &disk_, workload_.setup, unrecorded);
    if (workload_.prepare) workload_.prepare(script);
    if (script.is_open()) script.full_checkpoint();
    prepared_ = script.model();
    script.close();
    disk_.restart();
    history_ = std::make_unique<History>(disk_.exists(kDatabase) ? std::optional<Model>(prepared_)
                                                                 : std::nullopt);
}

void Run::work() {
    Script script(disk_, &disk_, workload_.setup, *history_);
    script.set_model(prepared_);
    workload_.work(script);
    script.close();
}

}  // namespace torture
