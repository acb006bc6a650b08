#include "tests/support/mutator.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <set>
#include <stdexcept>
#include <string>

namespace {

const FuzzCorpus corpus = {{1, 2, 3, 4, 5, 6, 7, 8}, std::vector<std::uint8_t>(40, 0xAA)};

} // namespace

// A failure of input n is repeated by the seed s + n.
TEST(MutatorTest, EveryInputCanBeMadeAloneAndHardlyAnyTwoAreEqual) {
    Mutator all(corpus, 100);
    std::set<std::vector<std::uint8_t>> seen;
    for (std::uint64_t n = 0; n < 2000; ++n) {
        const auto input = all.next();
        Mutator alone(corpus, 100 + n);
        const auto again = alone.next();
        ASSERT_TRUE(std::equal(input.begin(), input.end(), again.begin(), again.end())) << n;
        seen.insert({input.begin(), input.end()});
    }
    EXPECT_GT(seen.size(), 1200u);
}

// The faults that such tests are for: a length that is believed, and a leak on a rare path.
TEST(MutatorTest, FaultsOfAReaderAreFound) {
    if (std::getenv("ZOP_FUZZ_COUNT") != nullptr || std::getenv("ZOP_FUZZ_SEED") != nullptr) {
        GTEST_SKIP() << "other inputs than these are asked for";
    }
    EXPECT_NONFATAL_FAILURE(fuzz(corpus,
                                 [found = false](std::span<const std::uint8_t> input) mutable {
                                     if (!found && !input.empty() && input[0] > input.size()) {
                                         found = true;
                                         throw std::length_error("a length was believed");
                                     }
                                 }),
                            "a length was believed");
    std::vector<std::string> leaked;
    EXPECT_NONFATAL_FAILURE(fuzz(corpus,
                                 [&leaked](std::span<const std::uint8_t> input) {
                                     if (input.size() > 3 && input[3] == 0xFF) {
                                         leaked.emplace_back(50, 'x');
                                     }
                                 }),
                            "blocks of memory are left over");
}
