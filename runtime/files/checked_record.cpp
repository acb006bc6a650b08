#include "runtime/files/checked_record.h"

namespace RunTime {

namespace {

template <class Number>
Number get(std::span<const unsigned char> bytes, std::size_t at) {
    Number number;
    std::memcpy(&number, &bytes[at], sizeof(number));
    return number;
}

} // namespace

std::uint64_t recordChecksum(std::uint64_t seed, std::span<const unsigned char> bytes) {
    std::uint64_t sum = seed ^ 0xCBF2'9CE4'8422'2325;
    for (const unsigned char byte : bytes) {
        sum = (sum ^ byte) * 0x0000'0100'0000'01B3;
    }
    return sum;
}

std::uint64_t appendRecord(RecordBytes& to, DWORD kind, std::span<const unsigned char> content,
                           std::uint64_t seed) {
    const std::size_t begin = to.size();
    const auto size = static_cast<DWORD>(recordHeadSize + content.size() + recordTailSize);
    putNumber(to, size);
    putNumber(to, kind);
    to.insert(to.end(), content.begin(), content.end());
    const std::uint64_t checksum = recordChecksum(seed, std::span(to).subspan(begin));
    putNumber(to, checksum);
    putNumber(to, size);
    return checksum;
}

bool readRecord(std::span<const unsigned char> bytes, std::uint64_t seed, CheckedRecord& record) {
    constexpr std::size_t least = recordHeadSize + recordTailSize;
    if (bytes.size() < least) {
        return false;
    }
    const auto size = get<DWORD>(bytes, 0);
    if (size < least || size > bytes.size() || get<DWORD>(bytes, size - sizeof(DWORD)) != size) {
        return false;
    }
    const auto summed = bytes.first(size - recordTailSize);
    if (get<std::uint64_t>(bytes, summed.size()) != recordChecksum(seed, summed)) {
        return false;
    }
    record.size = size;
    record.kind = get<DWORD>(bytes, sizeof(DWORD));
    record.content = summed.subspan(recordHeadSize);
    return true;
}

RecordContent& RecordContent::block(std::span<const unsigned char> bytes) {
    number(static_cast<DWORD>(bytes.size()));
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
}

RecordContent& RecordContent::text(const std::wstring& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    return block({bytes, text.size() * sizeof(wchar_t)});
}

std::span<const unsigned char> RecordParts::take(std::size_t count) {
    if (!whole_ || count > bytes_.size()) {
        whole_ = false;
        return {};
    }
    const auto taken = bytes_.first(count);
    bytes_ = bytes_.subspan(count);
    return taken;
}

std::span<const unsigned char> RecordParts::block(std::size_t limit) {
    const auto size = number<DWORD>();
    whole_ = whole_ && size <= limit;
    return take(size);
}

std::wstring RecordParts::text(std::size_t limit, bool zeros) {
    const auto bytes = block(limit);
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    if (!text.empty()) {
        std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    }
    whole_ =
        whole_ && bytes.size() % sizeof(wchar_t) == 0 && (zeros || text.find(L'\0') == text.npos);
    return text;
}

} // namespace RunTime
