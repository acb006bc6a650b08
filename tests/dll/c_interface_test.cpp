#include "tests/dll/c_program.h"
#include "tests/dll/small_tree.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::wstring taken(zop_error* error) {
    const std::wstring text = zop_error_text(error);
    zop_error_free(error);
    return text;
}

} // namespace

TEST(CInterfaceTest, AProgramInCMovesATreeAndHearsOfIt) {
    const SmallTree tree;
    tree.fillTarget();
    int items = 0;
    zop_error* error = nullptr;
    constexpr std::size_t whole = sizeof(zop_data_location_events);
    EXPECT_EQ(zop_interface_version(), std::uint32_t{ZOP_INTERFACE_VERSION});
    EXPECT_EQ(
        move_in_c(tree.source().c_str(), tree.target().c_str(), 2, nullptr, whole, &items, &error),
        0);
    EXPECT_EQ(items, 2);
    EXPECT_EQ(move_in_c(tree.source().c_str(), tree.target().c_str(), 0, L"caf\u00E9", whole,
                        &items, &error),
              -1);
    EXPECT_EQ(zop_error_kind(error), ZOP_ERROR_GENERAL);
    EXPECT_TRUE(taken(error).starts_with(L"caf\u00E9\n"));
    EXPECT_TRUE(tree.isWholeAt(tree.source()));
    // A program built when the structure ended earlier.
    EXPECT_EQ(move_in_c(tree.source().c_str(), tree.target().c_str(), 0, nullptr,
                        offsetof(zop_data_location_events, progress_name), &items, &error),
              1);
    EXPECT_EQ(items, 0);
    EXPECT_TRUE(tree.isWholeAt(tree.target()));
}

TEST(CInterfaceTest, WrongCallsAreErrorsAndNothingIsNeededToFree) {
    zop_error* error = nullptr;
    EXPECT_EQ(zop_config_get(nullptr, &error), nullptr);
    EXPECT_EQ(zop_error_kind(error), ZOP_ERROR_NULL_ARGUMENT);
    EXPECT_EQ(taken(error), L"name");
    EXPECT_EQ(zop_data_location_commit(nullptr, &error), 0);
    EXPECT_EQ(taken(error), L"location");
    EXPECT_EQ(zop_data_location_commit(nullptr, nullptr), 0);
    EXPECT_EQ(zop_cancel_thread(1, &error), 0);
    EXPECT_FALSE(taken(error).empty());
    zop_text* name = zop_user_name_without_domain(L"d\\user", &error);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(zop_text_length(name), 4U);
    EXPECT_STREQ(zop_text_data(name), L"user");
    zop_text_free(name);
    zop_text_free(nullptr);
    zop_list_free(nullptr);
    zop_error_free(nullptr);
    zop_data_location_free(nullptr);
}
