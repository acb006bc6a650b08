#include "config/encoded_value.h"

#include "runtime/base64.h"
#include "runtime/text.h"

#include <gtest/gtest.h>
#include <random>

namespace {

constexpr const wchar_t* ftp = L"FTPPassword";

} // namespace

TEST(EncodedValueTest, OnlyTheFtpPasswordIsEncodedAndComesBack) {
    EXPECT_EQ(config::toStored(ftp, L"abc"), L"[passwd]YQBiAGMA");
    EXPECT_EQ(config::toStored(ftp, L""), L"");
    EXPECT_EQ(config::toStored(ftp, L"[passwd]"), L"[passwd]WwBwAGEAcwBzAHcAZABdAA==");
    for (const wchar_t* other :
         {L"ftppassword", L"FTPPASSWORD", L"FTPPassword ", L"PRODUCT_ROOT_D"}) {
        EXPECT_EQ(config::toStored(other, L"abc"), L"abc");
        EXPECT_EQ(config::fromStored(other, L"[passwd]YQBiAGMA"), L"[passwd]YQBiAGMA");
    }
    std::mt19937 random(3);
    for (std::size_t length = 1; length < 200; ++length) {
        std::wstring password(length, L'\0');
        for (wchar_t& c : password) {
            c = static_cast<wchar_t>(random());
        }
        EXPECT_TRUE(config::fromStored(ftp, config::toStored(ftp, password)) == password);
    }
}

TEST(EncodedValueTest, WhatWasStoredOtherwiseMeansItself) {
    struct Case {
        const wchar_t* rest;
        const wchar_t* meaning; // null: the stored text itself
    };
    const Case cases[] = {
        {L"", L""},
        {L"YQBiAA==", L"ab"},
        {L"YQBi\r\nAGMA\r\n", L"abc"}, // broken into lines
        {L" YQBiAA =\t= ", L"ab"},
        {L"ADY2", nullptr}, // three bytes: half a character over
        {L"YQBiAA=", nullptr},
        {L"YQBiAA", nullptr},
        {L"YQBiAA===", nullptr},
        {L"YQBiAGMA====", nullptr},
        {L"YQBiAG=A", nullptr},
        {L"YQBiAB==", nullptr}, // bits over
        {L"YQBi!GMA", nullptr},
        {L"YQB\u0130AGMA", nullptr},
        {L"=", nullptr},
    };
    for (const Case& c : cases) {
        const std::wstring stored = std::wstring(L"[passwd]") + c.rest;
        EXPECT_EQ(toUtf8(config::fromStored(ftp, stored)),
                  toUtf8(c.meaning != nullptr ? c.meaning : stored));
    }
    for (const wchar_t* plain :
         {L"", L"abc", L"YQBiAGMA", L"[PASSWD]YQBiAGMA", L"[passwd", L" [passwd]YQBiAGMA"}) {
        EXPECT_EQ(config::fromStored(ftp, plain), plain);
    }
}
