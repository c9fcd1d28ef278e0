// Replays the kept corpus of the fuzzers: damaged files that the store once fell over, and those
// that lead into its remoter branches.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <unistd.h>
#include <vector>

#include "log/log.h"
#include "targets/target.h"

namespace {

/// Longer than any input may take.
constexpr unsigned kDeadline_s = 60;

class Corpus : public testing::TestWithParam<std::string_view> {
  protected:
    ~Corpus() override {
        ::alarm(0);
        logging::set_all_levels(logging::level_t::info);
    }
};

TEST_P(Corpus, IsHarmless) {
    const char* source = std::getenv("TARMIK_SOURCE");
    if (source == nullptr) GTEST_SKIP() << "TARMIK_SOURCE tells where the corpus is";
    const std::string folder = std::string(source) + "/fuzz";
    const auto target = fuzz::make_target(GetParam(), folder);
    std::vector<std::filesystem::path> files;
    for (const auto& entry :
         std::filesystem::directory_iterator(folder + "/corpus/" + std::string(GetParam())))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    ASSERT_FALSE(files.empty());
    for (const auto& file : files) {
        SCOPED_TRACE(file.string());
        std::ifstream in(file, std::ios::binary);
        const std::vector<uint8_t> input{std::istreambuf_iterator<char>(in), {}};
        ::alarm(kDeadline_s);
        EXPECT_NO_THROW(target->run(input));
    }
}

INSTANTIATE_TEST_SUITE_P(Fuzz, Corpus, testing::ValuesIn(fuzz::kTargets),
                         [](const auto& target) { return std::string(target.param); });

}  // namespace
