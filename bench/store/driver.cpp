#include "store/driver.h"

#include <array>
#include <fmt/format.h>
#include <functional>
#include <stdexcept>

#include "common/folder.h"
#include "platform/file.h"

namespace bench {

namespace {

constexpr double kMiB = 1 << 20;

void expect(bool held, const char* what) {
    if (!held) throw std::runtime_error(fmt::format("wrong result: {}", what));
}

/// How often `operation` is done per second when it is done `count` times.
double rate_of(uint32_t count, const std::function<void()>& operation) {
    const double seconds = seconds_of([&] {
        for (uint32_t i = 0; i < count; ++i) operation();
    });
    return count / seconds;
}

Figures measure_work(Store& store, const Sizes& sizes) {
    Figures figures;
    const uint32_t count = sizes.objects;
    uint32_t created = 0;
    const auto create = [&] { store.create(Object(created++)); };
    figures["async_create"] = rate_of(count, create);

    Shuffle ordinals(7, count);
    uint64_t counter = 0;
    const auto update = [&] { store.update(id_of(ordinals.next()), ++counter); };
    figures["async_update"] = rate_of(sizes.updates, update);

    Object object;
    uint32_t last = 0;
    figures["read"] = rate_of(sizes.reads, [&] {
        last = ordinals.next();
        store.read(id_of(last), object);
    });
    expect(object.is(last), "read");

    std::vector<Child> children;
    figures["list"] = rate_of(sizes.lists, [&] {
        last = ordinals.next();
        store.list(parent_of(last), children);
        expect(children.size() == kChildrenPerParent, "count of children");
    });
    bool found = false;
    for (const Child& child : children)
        found |= child.id == id_of(last) && child.name == Object(last).name.value;
    expect(found, "list");

    store.set_durable(true);
    figures["sync_update"] = rate_of(sizes.durable_commits, update);
    figures["sync_create"] = rate_of(sizes.durable_commits, create);
    store.set_durable(false);
    return figures;
}

/// Opens a store whose process was killed with a full log and reads one object.
double open_after_kill_ms(OpenStore open, const std::string& folder) {
    Object object;
    const double seconds = seconds_of([&] { open(folder)->read(id_of(0), object); });
    expect(object.is(0), "read after the kill");
    return seconds * 1000;
}

}  // namespace

Figures measure_store(OpenStore open, const std::string& base, const Sizes& sizes) {
    const Folder folder(base);
    Figures figures = run_in_child([&] {
        const double before = resident_bytes();
        const auto store = open(folder.path());
        Figures measured = measure_work(*store, sizes);
        measured["resident"] = (resident_bytes() - before) / kMiB;
        measured["size"] = store->settle() / kMiB;
        return measured;
    });
    run_and_kill([&] { open(folder.path()).release()->fill_log(sizes.objects); });
    figures.merge(run_in_child([&] {
        return Figures{{"open", open_after_kill_ms(open, folder.path())}};
    }));
    return figures;
}

Figures measure_disk(const std::string& base, const Sizes& sizes) {
    constexpr size_t kLength = 400;
    const Folder folder(base);
    platform::SystemFiles files;
    const auto file = files.create(folder.path() + "/flushes");
    const std::vector<char> zeros(kMiB);
    for (uint64_t at = 0; at < kLogBytes; at += zeros.size())
        file->write_at(zeros.data(), zeros.size(), at);
    file->sync_data();
    uint64_t at = 0;
    const std::array<char, kLength> data{};
    return {{"sync_update", rate_of(sizes.durable_commits, [&] {
                 file->write_durable_at(data.data(), data.size(), at);
                 at += kLength;
             })}};
}

}  // namespace bench
