#include "tools/zopctl/json_writer.h"

#include "runtime/text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace zopctl {

TEST(JsonLineTest, ReadsBackAsItWasWritten) {
    const std::wstring odd = L"C:\\\"a\"\n\x1B\x20AC\xD83D\xDE00";
    const std::wstring line = jsonLine(
        L"result", {{"bytes", std::int64_t{9'007'199'254'740'993}}, // more than a double holds
                    {"flag", true},
                    {"none", JsonValue()},
                    {"name", odd},
                    {"list", JsonList{JsonFields{{"path", L"x"}}, -1}},
                    {"texts", std::vector<std::wstring>{L"a", L"b"}}});
    EXPECT_EQ(line.find(L'\n'), std::wstring::npos);
    const nlohmann::json read = nlohmann::json::parse(toUtf8(line));
    EXPECT_EQ(read["event"], "result");
    EXPECT_EQ(read["bytes"].get<std::int64_t>(), 9'007'199'254'740'993);
    EXPECT_EQ(read["flag"], true);
    EXPECT_TRUE(read["none"].is_null());
    EXPECT_EQ(read["name"].get<std::string>(), toUtf8(odd));
    EXPECT_EQ(read["list"][0]["path"], "x");
    EXPECT_EQ(read["list"][1], -1);
    EXPECT_EQ(read["texts"].size(), 2U);
}

} // namespace zopctl
