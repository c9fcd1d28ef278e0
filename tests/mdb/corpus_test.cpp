// Replays the kept corpus of the fuzzers: damaged files that the store once fell over, and those
// that lead into its remoter branches; and bytes that nobody has chosen.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <unistd.h>
#include <vector>

#include "log/log.h"
#include "support/rng.h"
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

/// The same with bytes drawn at random, which change the databases of the targets here and there.
TEST_P(Corpus, NorAreAnyOtherBytes) {
    const char* source = std::getenv("TARMIK_SOURCE");
    if (source == nullptr) GTEST_SKIP() << "TARMIK_SOURCE tells where the databases are";
    const auto target = fuzz::make_target(GetParam(), std::string(source) + "/fuzz");
    for (uint64_t seed = 1; seed <= 250; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        support::Rng rng(seed);
        std::vector<uint8_t> input(rng.below(200));
        for (uint8_t& byte : input) byte = static_cast<uint8_t>(rng.next());
        ::alarm(kDeadline_s);
        EXPECT_NO_THROW(target->run(input));
    }
}

INSTANTIATE_TEST_SUITE_P(Fuzz, Corpus, testing::ValuesIn(fuzz::kTargets),
                         [](const auto& target) { return std::string(target.param); });

}  // namespace
