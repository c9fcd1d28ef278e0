// Workloads on real files, with system calls that are interrupted or transfer less than asked: the
// files come out the same, byte for byte.
#include <cerrno>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "log/log.h"
#include "platform/file.h"
#include "support/faulty_calls.h"
#include "support/temp_dir.h"
#include "workload.h"

namespace {

using support::call_t;
using support::FaultyCalls;
using torture::History;
using torture::Model;
using torture::Script;
using torture::Workload;

/// The machine's files, with names that stand in one folder.
class FolderFiles final : public platform::FileSystem {
  public:
    FolderFiles(const support::TempDir& folder, std::shared_ptr<platform::SystemCalls> calls)
        : folder_(folder), files_(std::move(calls)) {}

    std::unique_ptr<platform::File> open(const std::string& path) override {
        return files_.open(folder_.file(path));
    }
    std::unique_ptr<platform::File> create(const std::string& path) override {
        return files_.create(folder_.file(path));
    }
    std::unique_ptr<platform::Mapping> map(platform::File& file, uint64_t offset,
                                           size_t length) override {
        return files_.map(file, offset, length);
    }
    bool exists(const std::string& path) override { return files_.exists(folder_.file(path)); }
    void rename(const std::string& from, const std::string& to) override {
        files_.rename(folder_.file(from), folder_.file(to));
    }
    void remove(const std::string& path) override { files_.remove(folder_.file(path)); }
    void sync_folder_of(const std::string& path) override {
        files_.sync_folder_of(folder_.file(path));
    }

  private:
    const support::TempDir& folder_;
    platform::SystemFiles files_;
};

/// Both files after a workload.
using Files = std::pair<std::string, std::string>;

std::string content(const support::TempDir& folder, const std::string& name) {
    std::ifstream in(folder.file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

Files run(const Workload& workload, const std::shared_ptr<FaultyCalls>& calls) {
    const support::TempDir folder;
    calls->skip_syncs();
    FolderFiles files(folder, calls);
    History history{Model{}};
    Script script(files, nullptr, workload.setup, history);
    if (workload.prepare) workload.prepare(script);
    workload.work(script);
    script.close();
    return {content(folder, torture::kDatabase), content(folder, torture::kJournal)};
}

class Disturbed : public testing::TestWithParam<std::string> {
  protected:
    Disturbed() { logging::set_all_levels(logging::level_t::off); }
};

TEST_P(Disturbed, CallsLeaveTheSameFiles) {
    const Workload workload = torture::get_workload(GetParam());
    const auto undisturbed = std::make_shared<FaultyCalls>();
    const Files wanted = run(workload, undisturbed);
    ASSERT_FALSE(wanted.first.empty());
    ASSERT_EQ(run(workload, std::make_shared<FaultyCalls>()), wanted) << "runs differ anyway";

    const auto all_at_once = std::make_shared<FaultyCalls>();
    all_at_once->disturb_all();
    EXPECT_TRUE(run(workload, all_at_once) == wanted);

    const std::pair<call_t, int> faults[] = {
        {call_t::open, EINTR},
        {call_t::pread, EINTR},
        {call_t::pwritev2, EINTR},
        {call_t::ftruncate, EINTR},
        {call_t::fchmod, EINTR},
        {call_t::flock, EINTR},
        {call_t::pread, FaultyCalls::kHalf},
        {call_t::pwritev2, FaultyCalls::kHalf},
    };
    uint64_t disturbed = 0;
    for (const auto& [call, fault] : faults) {
        for (uint64_t n = 1; n <= undisturbed->count(call); ++n, ++disturbed) {
            const auto calls = std::make_shared<FaultyCalls>();
            calls->at(call, n, fault);
            ASSERT_TRUE(run(workload, calls) == wanted)
                << "call " << n << " of sort " << static_cast<int>(call) << " fault " << fault;
            ASSERT_TRUE(calls->struck());
        }
    }
    std::cout << fmt::format("{:14} {} calls disturbed", GetParam(), disturbed) << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Some, Disturbed, testing::Values("objects", "growth", "reformat"),
                         [](const auto& of) { return of.param; });

}  // namespace
