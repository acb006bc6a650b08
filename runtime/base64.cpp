#include "runtime/base64.h"

namespace RunTime {

namespace {

constexpr std::wstring_view alphabet =
    L"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

std::wstring encodeBase64(std::span<const std::uint8_t> bytes) {
    std::wstring text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(bytes.size() - at, 3);
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            group = group << 8 | (i < count ? bytes[at + i] : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            text += i <= count ? alphabet[group >> (18 - 6 * i) & 0x3F] : L'=';
        }
    }
    return text;
}

std::optional<SecretBytes> decodeBase64(std::wstring_view text) {
    SecretBytes bytes;
    bytes.reserve(text.size() / 4 * 3 + 3);
    std::uint32_t group = 0; // what the characters since the last byte have brought
    std::size_t characters = 0;
    std::size_t padding = 0;
    int bits = 0;
    for (const wchar_t c : text) {
        if (c == L' ' || c == L'\t' || c == L'\r' || c == L'\n') {
            continue;
        }
        ++characters;
        if (c == L'=') {
            ++padding;
            continue;
        }
        const std::size_t value = alphabet.find(c);
        if (value == std::wstring_view::npos || padding != 0) {
            return std::nullopt;
        }
        group = group << 6 | static_cast<std::uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<std::uint8_t>(group >> bits));
            group &= (1U << bits) - 1;
        }
    }
    // 6, 4 and 2 bits over belong to 3 (never right), 2 and 1 characters of padding.
    const bool whole = characters % 4 == 0 && padding * 2 == static_cast<std::size_t>(bits);
    return whole && padding < 3 && group == 0 ? std::optional(std::move(bytes)) : std::nullopt;
}

} // namespace RunTime
