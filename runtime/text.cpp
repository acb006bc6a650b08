#include "runtime/text.h"

#include <cstdint>
#include <windows.h>

namespace {

constexpr char32_t replacement = 0xFFFD;

bool isHighSurrogate(wchar_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool isLowSurrogate(wchar_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

void appendUtf8(std::string& to, char32_t c) {
    const auto tail = [&](int shift) {
        to.push_back(static_cast<char>(0x80 | ((c >> shift) & 0x3F)));
    };
    if (c < 0x80) {
        to.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        to.push_back(static_cast<char>(0xC0 | (c >> 6)));
        tail(0);
    } else if (c < 0x10000) {
        to.push_back(static_cast<char>(0xE0 | (c >> 12)));
        tail(6);
        tail(0);
    } else {
        to.push_back(static_cast<char>(0xF0 | (c >> 18)));
        tail(12);
        tail(6);
        tail(0);
    }
}

void appendWide(std::wstring& to, char32_t c) {
    if (c < 0x10000) {
        to.push_back(static_cast<wchar_t>(c));
        return;
    }
    to.push_back(static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10)));
    to.push_back(static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
}

// What a first byte promises: how many bytes follow, and the range of the first of them, which is
// narrowed where overlong forms, surrogates or values past U+10FFFF would begin.
struct Lead {
    int tails;
    std::uint8_t low;
    std::uint8_t high;
};

Lead leadOf(std::uint8_t byte) {
    if (byte >= 0xC2 && byte <= 0xDF) {
        return {1, 0x80, 0xBF};
    }
    if (byte >= 0xE0 && byte <= 0xEF) {
        return {2, static_cast<std::uint8_t>(byte == 0xE0 ? 0xA0 : 0x80),
                static_cast<std::uint8_t>(byte == 0xED ? 0x9F : 0xBF)};
    }
    if (byte >= 0xF0 && byte <= 0xF4) {
        return {3, static_cast<std::uint8_t>(byte == 0xF0 ? 0x90 : 0x80),
                static_cast<std::uint8_t>(byte == 0xF4 ? 0x8F : 0xBF)};
    }
    return {0, 0, 0};
}

} // namespace

std::string toUtf8(std::wstring_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const wchar_t c = text[i];
        if (isHighSurrogate(c) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
            const char32_t high = static_cast<char32_t>(c) - 0xD800;
            const char32_t low = static_cast<char32_t>(text[++i]) - 0xDC00;
            appendUtf8(result, 0x10000 + (high << 10) + low);
        } else {
            const bool lone = isHighSurrogate(c) || isLowSurrogate(c);
            appendUtf8(result, lone ? replacement : static_cast<char32_t>(c));
        }
    }
    return result;
}

std::wstring toWide(std::string_view text) {
    std::wstring result;
    result.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto first = static_cast<std::uint8_t>(text[i++]);
        if (first < 0x80) {
            result.push_back(static_cast<wchar_t>(first));
            continue;
        }
        Lead lead = leadOf(first);
        bool whole = lead.tails != 0;
        char32_t c = first & (0x3Fu >> lead.tails);
        for (int n = 0; n < lead.tails; ++n) {
            const auto next =
                i < text.size() ? static_cast<std::uint8_t>(text[i]) : std::uint8_t{0};
            if (next < lead.low || next > lead.high) {
                whole = false; // the byte that does not fit may begin the next character
                break;
            }
            c = (c << 6) | (next & 0x3Fu);
            lead = {lead.tails, 0x80, 0xBF};
            ++i;
        }
        appendWide(result, whole ? c : replacement);
    }
    return result;
}

std::wstring toLower(std::wstring_view text) {
    std::wstring lower(text);
    if (!lower.empty()) {
        const int length = static_cast<int>(lower.size());
        // Without rules of a language the mapping keeps the length, and cannot fail.
        ::LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_LOWERCASE, text.data(), length, lower.data(),
                        length, nullptr, nullptr, 0);
    }
    return lower;
}
