#include "support/power_cuts.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace support {

namespace {

constexpr uint64_t kSectorsOfPage = kDiskPage / kDiskSector;

}  // namespace

PowerCuts::PowerCuts(const DiskImage& base, const std::vector<DiskOp>& log)
    : log_(log), stable_(base) {
    points_.push_back({0, false});
    for (size_t op = 0; op < log.size(); ++op) {
        if (log[op].kind == DiskOp::kind_t::durable_write) points_.push_back({op, true});
        points_.push_back({op + 1, false});
    }
}

void PowerCuts::go_to(size_t point) {
    for (; point_ < point; ++point_) {
        const Point& next = points_[point_ + 1];
        if (next.in_flight)
            add_versions(next.completed);
        else
            apply(next.completed - 1);
    }
}

void PowerCuts::apply(size_t number) {
    const DiskOp& op = log_[number];
    switch (op.kind) {
        case DiskOp::kind_t::durable_write:
            settle_write(op);
            break;
        case DiskOp::kind_t::sync:
            settle_file(op.file);
            break;
        case DiskOp::kind_t::failed_sync:
            forget_file(op.file);
            break;
        case DiskOp::kind_t::sync_folder:
            settle_names();
            break;
        default:
            add_versions(number);
    }
}

void PowerCuts::add_versions(size_t number) {
    const DiskOp& op = log_[number];
    if (stable_.files.size() <= op.file) stable_.files.resize(op.file + 1);
    switch (op.kind) {
        case DiskOp::kind_t::create:
            open_[{thing_t::name, 0, 0, op.path}].push_back({.op = number, .file = op.file});
            return;
        case DiskOp::kind_t::rename:
            open_[{thing_t::name, 0, 0, op.path}].push_back({.op = number});
            open_[{thing_t::name, 0, 0, op.new_path}].push_back({.op = number, .file = op.file});
            return;
        case DiskOp::kind_t::remove:
            open_[{thing_t::name, 0, 0, op.path}].push_back({.op = number});
            return;
        default:
            break;
    }
    remember(op);
    for (size_t at = 0; at < op.sectors.size(); at += kDiskSector)
        open_[{thing_t::sector, op.file, (op.sectors_from + at) / kDiskSector, {}}].push_back(
            {.op = number, .bytes = op.sectors.data() + at});
    const Key length{thing_t::length, op.file, 0, {}};
    const auto known = open_.find(length);
    const uint64_t before =
        known == open_.end() ? stable_.files[op.file].size() : known->second.back().length;
    if (op.file_length != before) open_[length].push_back({.op = number, .length = op.file_length});
}

/// Makes the bytes of a durable write durable, and of the file's length what they need.
void PowerCuts::settle_write(const DiskOp& op) {
    if (stable_.files.size() <= op.file) stable_.files.resize(op.file + 1);
    std::vector<std::byte>& bytes = stable_.files[op.file];
    if (bytes.size() < op.offset + op.length) bytes.resize(op.offset + op.length);
    const auto length = open_.find({thing_t::length, op.file, 0, {}});
    if (length != open_.end() && length->second.back().length <= bytes.size()) open_.erase(length);
    for (uint64_t sector = op.offset / kDiskSector; sector * kDiskSector < op.offset + op.length;
         ++sector) {
        open_.erase({thing_t::sector, op.file, sector, {}});
        forgotten_.erase({thing_t::sector, op.file, sector, {}});
        put_sector(stable_, op.file, sector,
                   op.sectors.data() + (sector * kDiskSector - op.sectors_from), kDiskSector);
    }
}

void PowerCuts::settle_file(uint32_t file) {
    const auto length = open_.find({thing_t::length, file, 0, {}});
    if (length != open_.end()) {
        stable_.files[file].resize(length->second.back().length);
        open_.erase(length);
    }
    const auto first = open_.lower_bound({thing_t::sector, file, 0, {}});
    const auto last = open_.lower_bound({thing_t::sector, file + 1, 0, {}});
    for (auto it = first; it != last;) {
        if (forgotten_.contains(it->first)) {
            ++it;
            continue;
        }
        put_sector(stable_, file, it->first.sector, it->second.back().bytes, kDiskSector);
        it = open_.erase(it);
    }
}

/// What is unsynced now is taken for written by the system: it stays open whatever is synced later.
void PowerCuts::forget_file(uint32_t file) {
    const auto first = open_.lower_bound({thing_t::sector, file, 0, {}});
    const auto last = open_.lower_bound({thing_t::sector, file + 1, 0, {}});
    for (auto it = first; it != last; ++it) forgotten_.insert(it->first);
}

/// A write to a page has the system write all of it, with the bytes that it had forgotten.
void PowerCuts::remember(const DiskOp& op) {
    if (forgotten_.empty()) return;
    const uint64_t first = op.sectors_from / kDiskPage * kSectorsOfPage;
    const uint64_t end =
        (op.sectors_from + op.sectors.size() + kDiskPage - 1) / kDiskPage * kSectorsOfPage;
    forgotten_.erase(forgotten_.lower_bound({thing_t::sector, op.file, first, {}}),
                     forgotten_.lower_bound({thing_t::sector, op.file, end, {}}));
}

void PowerCuts::settle_names() {
    const auto first = open_.lower_bound({thing_t::name, 0, 0, {}});
    for (auto it = first; it != open_.end(); ++it) {
        if (const auto file = it->second.back().file)
            stable_.names[it->first.path] = *file;
        else
            stable_.names.erase(it->first.path);
    }
    open_.erase(first, open_.end());
}

void PowerCuts::put_sector(DiskImage& image, uint32_t file, uint64_t sector, const std::byte* bytes,
                           size_t length) const {
    std::vector<std::byte>& content = image.files[file];
    const uint64_t at = sector * kDiskSector;
    if (at >= content.size()) return;
    std::memcpy(content.data() + at, bytes, std::min<size_t>(length, content.size() - at));
}

uint64_t PowerCuts::combinations(uint64_t limit) const {
    uint64_t count = 1;
    for (const auto& [key, versions] : open_) {
        count *= versions.size() + 1;
        if (count >= limit) return limit;
    }
    return count;
}

void PowerCuts::combination(uint64_t number, DiskImage& out) const {
    Choice choice;
    for (const auto& [key, versions] : open_) {
        choice.states.push_back(number % (versions.size() + 1));
        number /= versions.size() + 1;
    }
    build(choice, out);
}

void PowerCuts::everything(DiskImage& out) const {
    build(as_of(log_.size()), out);
}

void PowerCuts::draw(Rng& rng, DiskImage& out) const {
    Choice choice;
    switch (rng.below(8)) {
        case 0:
        case 1:
            choice = pages(rng);
            break;
        case 2:
            choice = single_sectors(rng);
            break;
        case 3:
            choice = as_of(random_moment(rng));
            break;
        case 4:
            choice = one_odd(rng, true);
            break;
        case 5:
            choice = one_odd(rng, false);
            break;
        default:
            choice = last_write_in_part(rng);
            break;
    }
    if (rng.chance(25)) tear_one(rng, choice);
    build(choice, out);
}

bool PowerCuts::draw_torn(Rng& rng, DiskImage& out) const {
    Choice choice = rng.chance(50) ? last_write_in_part(rng) : as_of(log_.size());
    tear_one(rng, choice);
    if (!choice.torn) return false;
    const auto& [key, versions] =
        *std::next(open_.begin(), static_cast<std::ptrdiff_t>(*choice.torn));
    const size_t state = choice.states[*choice.torn];
    // A short file ends before it.
    std::vector<std::byte> before(kDiskSector);
    if (state > 1) {
        std::copy_n(versions[state - 2].bytes, kDiskSector, before.begin());
    } else if (const auto& content = stable_.files[key.file];
               content.size() > key.sector * kDiskSector) {
        const size_t at = key.sector * kDiskSector;
        std::copy_n(&content[at], std::min(kDiskSector, content.size() - at), before.begin());
    }
    std::vector<size_t> changed;
    for (size_t at = 1; at < kDiskSector; ++at)
        if (before[at] != versions[state - 1].bytes[at]) changed.push_back(at);
    if (!changed.empty()) choice.torn_at = changed[rng.below(changed.size())];
    build(choice, out);
    return true;
}

PowerCuts::Choice PowerCuts::as_of(size_t end) const {
    Choice choice;
    for (const auto& [key, versions] : open_) {
        size_t state = versions.size();
        while (state > 0 && versions[state - 1].op >= end) --state;
        choice.states.push_back(state);
    }
    return choice;
}

/// After one of the operations that left something open.
size_t PowerCuts::random_moment(Rng& rng) const {
    std::set<size_t> moments{0};
    for (const auto& [key, versions] : open_)
        for (const Version& version : versions) moments.insert(version.op + 1);
    return *std::next(moments.begin(), static_cast<std::ptrdiff_t>(rng.below(moments.size())));
}

/// Each page as it was at some moment.
PowerCuts::Choice PowerCuts::pages(Rng& rng) const {
    Choice choice = as_of(log_.size());
    std::map<std::pair<uint32_t, uint64_t>, size_t> moments;
    size_t at = 0;
    for (const auto& [key, versions] : open_) {
        size_t& state = choice.states[at++];
        if (key.kind != thing_t::sector) {
            state = rng.below(versions.size() + 1);
            continue;
        }
        const auto [page, is_new] = moments.try_emplace({key.file, key.sector / kSectorsOfPage});
        if (is_new) page->second = rng.chance(30) ? log_.size() : random_moment(rng);
        while (state > 0 && versions[state - 1].op >= page->second) --state;
    }
    return choice;
}

PowerCuts::Choice PowerCuts::single_sectors(Rng& rng) const {
    Choice choice;
    for (const auto& [key, versions] : open_)
        choice.states.push_back(rng.below(versions.size() + 1));
    return choice;
}

PowerCuts::Choice PowerCuts::one_odd(Rng& rng, bool keep_the_others) const {
    Choice choice = as_of(keep_the_others ? log_.size() : 0);
    if (open_.empty()) return choice;
    const size_t odd = rng.below(open_.size());
    const size_t versions =
        std::next(open_.begin(), static_cast<std::ptrdiff_t>(odd))->second.size();
    choice.states[odd] = keep_the_others ? rng.below(versions) : 1 + rng.below(versions);
    return choice;
}

/// The writes went to the disk in their order, and the cut came in the middle of one.
PowerCuts::Choice PowerCuts::last_write_in_part(Rng& rng) const {
    const size_t moment = random_moment(rng);
    Choice choice = as_of(moment);
    size_t at = 0;
    for (const auto& [key, versions] : open_) {
        size_t& state = choice.states[at++];
        if (state > 0 && versions[state - 1].op + 1 == moment && rng.chance(50)) --state;
    }
    return choice;
}

void PowerCuts::tear_one(Rng& rng, Choice& choice) const {
    std::vector<size_t> candidates;
    size_t at = 0;
    for (const auto& [key, versions] : open_) {
        if (key.kind == thing_t::sector && choice.states[at] > 0) candidates.push_back(at);
        ++at;
    }
    if (candidates.empty()) return;
    choice.torn = candidates[rng.below(candidates.size())];
    choice.torn_at = 1 + rng.below(kDiskSector - 1);
}

void PowerCuts::build(const Choice& choice, DiskImage& out) const {
    out = stable_;
    size_t at = 0;
    // Lengths first: what lies behind a file's end isn't kept.
    for (const auto& [key, versions] : open_) {
        const size_t state = choice.states[at++];
        if (key.kind == thing_t::length && state > 0)
            out.files[key.file].resize(versions[state - 1].length);
    }
    at = 0;
    for (const auto& [key, versions] : open_) {
        const size_t index = at++;
        const size_t state = choice.states[index];
        if (state == 0) continue;
        const Version& version = versions[state - 1];
        if (key.kind == thing_t::sector) {
            const bool torn = choice.torn == index;
            if (torn && state > 1)
                put_sector(out, key.file, key.sector, versions[state - 2].bytes, kDiskSector);
            put_sector(out, key.file, key.sector, version.bytes,
                       torn ? choice.torn_at : kDiskSector);
        } else if (key.kind == thing_t::name) {
            if (version.file)
                out.names[key.path] = *version.file;
            else
                out.names.erase(key.path);
        }
    }
}

}  // namespace support
