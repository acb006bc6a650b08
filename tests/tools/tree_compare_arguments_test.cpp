#include "tools/zopctl/tree_compare_arguments.h"

#include "runtime/text.h"

#include <gtest/gtest.h>

namespace zopctl {

TEST(TreeCompareArgumentsTest, ComparisonLeavesOutWhatItIsTold) {
    const Parsed<TreeCompareOptions> parsed =
        parseTreeCompare({L"a", L"b", L"--no-times", L"--no-owner", L"--from-disk"});
    ASSERT_TRUE(parsed.options) << toUtf8(parsed.text);
    const TreeComparison::Options& compared = parsed.options->compared;
    EXPECT_FALSE(compared.times || compared.owner);
    EXPECT_TRUE(compared.contents && compared.streams && compared.attributes && compared.security);
    EXPECT_EQ(compared.uncached, TreeComparison::Uncached::Both);
}

} // namespace zopctl
