#include "tools/zopctl/text_format.h"

#include "runtime/format_string.h"

#include <algorithm>
#include <cwctype>

namespace zopctl {

namespace {

struct CodePoint {
    char32_t value;
    std::size_t units; // UTF-16 code units it takes
};

CodePoint codePointAt(std::wstring_view text, std::size_t position) {
    const wchar_t first = text[position];
    if (first >= 0xD800 && first < 0xDC00 && position + 1 < text.size()) {
        const wchar_t second = text[position + 1];
        if (second >= 0xDC00 && second < 0xE000) {
            return {static_cast<char32_t>(0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00)),
                    2};
        }
    }
    return {static_cast<char32_t>(first), 1};
}

struct Range {
    char32_t first;
    char32_t last;
};
constexpr Range combining[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A}, {0x064B, 0x065F},
    {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},
    {0x200B, 0x200F}, {0x20D0, 0x20FF}, {0x3099, 0x309A}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F},
};
constexpr Range wide[] = {
    {0x1100, 0x115F}, {0x2E80, 0x303E},   {0x3041, 0xA4CF},   {0xA960, 0xA97F},
    {0xAC00, 0xD7A3}, {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6}, {0x1F300, 0x1F64F}, {0x1F680, 0x1F9FF}, {0x20000, 0x3FFFD},
};

template <std::size_t N>
bool contains(const Range (&ranges)[N], char32_t value) {
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [&](const Range& r) { return value >= r.first && value <= r.last; });
}

int cellsOf(char32_t value) {
    return value < 0x300 ? 1 : contains(combining, value) ? 0 : contains(wide, value) ? 2 : 1;
}

// How many single letters must change to make one text of the other.
std::size_t distance(const std::wstring& first, const std::wstring& second) {
    std::vector<std::size_t> row(second.size() + 1);
    for (std::size_t j = 0; j <= second.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= first.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= second.size(); ++j) {
            const bool same = std::towlower(first[i - 1]) == std::towlower(second[j - 1]);
            const std::size_t above = row[j];
            row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row.back();
}

} // namespace

std::wstring formatCount(std::int64_t count) {
    std::wstring digits = std::to_wstring(count);
    const std::ptrdiff_t sign = count < 0 ? 1 : 0;
    for (std::ptrdiff_t at = static_cast<std::ptrdiff_t>(digits.size()) - 3; at > sign; at -= 3) {
        digits.insert(static_cast<std::size_t>(at), 1, L',');
    }
    return digits;
}

std::wstring formatBytes(std::int64_t bytes) {
    if (bytes < 1024) {
        return countOf(bytes, L"byte", L"bytes");
    }
    static constexpr const wchar_t* units[] = {L"KB", L"MB", L"GB", L"TB", L"PB", L"EB"};
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // 1023.95 and more would be shown as "1024 MB"
    while (value >= 999.5 && unit + 1 < std::size(units)) {
        value /= 1024;
        ++unit;
    }
    return formatString(value < 9.95 ? L"%.1f %s" : L"%.0f %s", value, units[unit]);
}

std::wstring formatDuration(std::uint64_t milliseconds) {
    if (milliseconds < 9950) {
        return formatString(L"%.1f s", static_cast<double>(milliseconds) / 1000);
    }
    const unsigned long long seconds = (milliseconds + 500) / 1000;
    if (seconds < 60) {
        return formatString(L"%llu s", seconds);
    }
    if (seconds < 3600) {
        return formatString(L"%llu min %02llu s", seconds / 60, seconds % 60);
    }
    return formatString(L"%llu h %02llu min", seconds / 3600, seconds / 60 % 60);
}

std::wstring formatRate(std::int64_t bytes, std::uint64_t milliseconds) {
    if (bytes <= 0 || milliseconds == 0) {
        return {};
    }
    const double rate = static_cast<double>(bytes) * 1000 / static_cast<double>(milliseconds);
    return formatBytes(static_cast<std::int64_t>(std::min(rate, 9e18))) + L"/s";
}

std::wstring countOf(std::int64_t count, const wchar_t* one, const wchar_t* many) {
    return formatCount(count) + L" " + (count == 1 ? one : many);
}

int cellWidth(std::wstring_view text) {
    int cells = 0;
    for (std::size_t at = 0; at < text.size();) {
        const CodePoint point = codePointAt(text, at);
        cells += cellsOf(point.value);
        at += point.units;
    }
    return cells;
}

std::wstring cutToCells(std::wstring_view text, int cells) {
    if (cellWidth(text) <= cells) {
        return std::wstring(text);
    }
    if (cells < 4) {
        return std::wstring(static_cast<std::size_t>(std::max(cells, 0)), L'.');
    }
    int room = cells - 3;
    // A third in front of the dots: the drive and first folder; the rest behind: the name.
    std::size_t front = 0;
    for (int left = room / 3; front < text.size();) {
        const CodePoint point = codePointAt(text, front);
        left -= cellsOf(point.value);
        if (left < 0) {
            break;
        }
        room -= cellsOf(point.value);
        front += point.units;
    }
    std::size_t back = text.size();
    while (back > front) {
        std::size_t begin = back - 1;
        if (begin > front && codePointAt(text, begin - 1).units == 2) {
            --begin;
        }
        room -= cellsOf(codePointAt(text, begin).value);
        if (room < 0) {
            break;
        }
        back = begin;
    }
    return std::wstring(text.substr(0, front)) + L"..." + std::wstring(text.substr(back));
}

std::wstring nearest(const std::wstring& text, const std::vector<std::wstring>& candidates) {
    std::wstring best;
    std::size_t least = std::max<std::size_t>(text.size() / 3, 1) + 1;
    for (const std::wstring& candidate : candidates) {
        const std::size_t apart = distance(text, candidate);
        if (apart < least) {
            least = apart;
            best = candidate;
        }
    }
    return best;
}

std::wstring printable(std::wstring_view text) {
    std::wstring result(text);
    for (wchar_t& c : result) {
        if (c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x2028 && c <= 0x202E) ||
            (c >= 0x2066 && c <= 0x2069)) {
            c = 0xFFFD;
        }
    }
    return result;
}

std::wstring printableLines(std::wstring_view text) {
    std::wstring result;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(L'\n', begin), text.size());
        std::wstring_view line = text.substr(begin, end - begin);
        if (line.ends_with(L'\r')) {
            line.remove_suffix(1);
        }
        result.append(begin == 0 ? L"" : L"\n").append(printable(line));
        begin = end + 1;
    }
    return result;
}

std::wstring sentence(const std::wstring& text) {
    return text.ends_with(L'.') ? text : text + L".";
}

std::wstring quoted(std::wstring_view text) {
    return L"\"" + printable(text) + L"\"";
}

} // namespace zopctl
