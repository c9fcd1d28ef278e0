#include <algorithm>
#include <fmt/format.h>

#include "error/exception.h"
#include "mdb/large_object.h"
#include "mdb/property_types.h"
#include "mdb/verify.h"
#include "workload.h"

namespace torture {

namespace {

NodeId id_of(const mdb::RecordView& record, mdb::block_handle_t place) {
    mdb::PropertyNodeId value;
    value.read_record(record, place);
    return value.value;
}

std::string read_large(Script& script, uint32_t block) {
    std::vector<std::byte> bytes;
    mdb::read_lob(script.database(), block, bytes);
    std::string text(bytes.size(), '\0');
    std::transform(bytes.begin(), bytes.end(), text.begin(),
                   [](std::byte byte) { return static_cast<char>(byte); });
    return text;
}

/// What the store has at `place`, read record by record.
void read_object(Script& script, mdb::block_handle_t place, Model& out) {
    NodeId id;
    Values values;
    uint32_t large = 0;
    const mdb::dobj object = script.objects().load_object(place);
    for (const mdb::RecordView record : mdb::ObjectRecords(object)) switch (record.id()) {
            case 0:
                id = id_of(record, place);
                break;
            case 2:
                values.parent = id_of(record, place);
                break;
            case 59:
                values.inherits = id_of(record, place);
                break;
            case 3800:
                values.master = id_of(record, place);
                break;
            case 3901:
                values.notify = id_of(record, place);
                break;
            case 502: {
                mdb::PropertyBool active;
                active.read_record(record, place);
                values.active = active.value;
                break;
            }
            case kTextProperty: {
                mdb::PropertyString text;
                text.read_record(record, place);
                values.text = text.value;
                break;
            }
            case kLargeProperty: {
                mdb::PropertyUint32 block;
                block.read_record(record, place);
                large = block.value;
                break;
            }
            default:
                throw mdb::error_consistency(
                    fmt::format("Object has the unknown property {}", record.id()));
        }
    if (large != 0) values.large = read_large(script, large);
    out[id] = std::move(values);
}

Model read_model(Script& script) {
    Model model;
    mdb::IndexTable& indexes = script.indexes();
    for (auto it = indexes.iterate_first(mdb::node_id_index); it.valid(); indexes.iterator_next(it))
        read_object(script, indexes.iterator_value(it), model);
    return model;
}

std::string verify(Script& script) {
    mdb::VerifyOptions options;
    options.most_faults = 8;
    options.large_object_properties = {kLargeProperty};
    options.lost_index_blocks = script.setup().drops_indexes;
    return mdb::verify(script.database(), options).text();
}

std::string describe(const Values& values) {
    return fmt::format("parent {} active {} {} {} {} text of {} \"{}\" large {}", values.parent,
                       values.active, values.inherits, values.master, values.notify,
                       values.text.size(), values.text.substr(0, 12),
                       values.large ? std::to_string(values.large->size()) : "none");
}

/// The first few differences.
std::string differences(const Model& wanted, const Model& there) {
    std::string text;
    int shown = 0;
    for (const auto& [id, values] : wanted) {
        const auto found = there.find(id);
        if (found != there.end() && found->second == values) continue;
        if (++shown > 4) break;
        text += fmt::format("    {} is {}\n      instead of {}\n", id,
                            found == there.end() ? "missing" : describe(found->second),
                            describe(values));
    }
    for (const auto& [id, values] : there)
        if (!wanted.contains(id) && ++shown < 8)
            text += fmt::format("    {} is there: {}\n", id, describe(values));
    return text;
}

/// The number of the state that is there; none when it isn't one of those allowed.
std::optional<size_t> find_state(const History& history, History::Range allowed,
                                 const std::optional<Model>& there) {
    for (size_t i = allowed.last + 1; i-- > allowed.first;)
        if (history.states()[i].model == there) return i;
    return std::nullopt;
}

std::string wrong_state(const History& history, History::Range allowed,
                        const std::optional<Model>& there) {
    std::string text =
        fmt::format("What is there is none of the states {} to {}.\n", allowed.first, allowed.last);
    for (size_t i = 0; i < history.states().size(); ++i)
        if (history.states()[i].model == there) text += fmt::format("  It is state {}.\n", i);
    if (!there) return text + "  There is no database.\n";
    for (const size_t i : {allowed.first, allowed.last}) {
        if (!history.states()[i].model) continue;
        text += fmt::format("  Against state {}:\n{}", i,
                            differences(*history.states()[i].model, *there));
        if (allowed.first == allowed.last) break;
    }
    return text;
}

/// An update that has the length of the workload's own, so that a log of the past would go on
/// behind it; then other things, some of them durable.
void work_on(Script& script) {
    const auto object = std::find_if(script.model().begin(), script.model().end(),
                                     [](const auto& entry) { return entry.first != kRoot; });
    if (object != script.model().end()) {
        const NodeId id = object->first;
        Values values = object->second;
        for (char& letter : values.text) letter = '+';
        script.update(id, values);
        script.begin();
        for (char& letter : values.text) letter = '-';
        script.update(id, values);
        script.commit(false);
    }
    // An earlier crash may have come in the middle of this.
    for (const NodeId id : {NodeId{9, 2}, NodeId{9, 1}})
        if (script.model().contains(id)) script.remove(id);
    script.create({9, 1}, {.parent = kRoot, .active = true, .text = "after the crash"});
    if (script.setup().large_objects) script.set_large({9, 1}, std::string(2500, '*'));
    script.begin();
    script.create({9, 2}, {.parent = kRoot, .notify = {9, 1}, .text = std::string(100, 'n')});
    script.remove({9, 1});
    script.commit(false);
    script.remove({9, 2});
}

/// Further work and two more starts.
std::string live_on(Script& script) {
    work_on(script);
    for (int start = 0; start < 2; ++start) {
        script.open();
        std::string fault = verify(script);
        const Model there = read_model(script);
        if (there != script.model()) fault += differences(script.model(), there);
        if (!fault.empty()) return fmt::format("After start {} of a new life:\n{}", start, fault);
    }
    return {};
}

}  // namespace

std::string check_going_on(Script& script) {
    try {
        std::string fault = verify(script);
        const Model there = read_model(script);
        if (there != script.model()) fault += differences(script.model(), there);
        return fault.empty() ? live_on(script) : fault;
    } catch (const error::Exception& failure) {
        return fmt::format("The store throws: {}\n", failure.text());
    }
}

std::string check_readable(Script& script, const History& history, History::Range allowed) {
    try {
        std::string fault = verify(script);
        const std::optional<Model> there = read_model(script);
        if (!find_state(history, allowed, there)) fault += wrong_state(history, allowed, there);
        return fault;
    } catch (const error::Exception& failure) {
        return fmt::format("The store throws: {}\n", failure.text());
    }
}

Check check_after_crash(const Workload& workload, support::SimDisk& disk, const History& history,
                        History::Range allowed) {
    Check check;
    check.after.emplace(Model{});
    try {
        Script script(disk, &disk, workload.setup, *check.after);
        std::optional<Model> there;
        const bool none = !disk.exists(kDatabase);
        // What is left of an attempt to make a database must not be in the way of the next one.
        if (none) script.format(true);
        script.open();
        check.start_ops = disk.log().size();
        check.fault = verify(script);
        Model model = read_model(script);
        if (!none) there = model;
        const auto state = find_state(history, allowed, there);
        if (state)
            check.state = *state;
        else
            check.fault += wrong_state(history, allowed, there);
        if (!check.fault.empty()) return check;
        *check.after = History(model);
        script.set_model(model);
        check.fault = live_on(script);
    } catch (const error::Exception& failure) {
        check.fault += fmt::format("The store throws: {}\n", failure.text());
    }
    return check;
}

}  // namespace torture
