// The records of a file that is read back after a failure, perhaps of the machine. Each record is
//
//     size      4 bytes, of the whole record
//     kind      4 bytes
//     content
//     checksum  8 bytes, over a seed, size, kind and content
//     size      4 bytes, so that the file can be read backwards
//
// Numbers are little-endian, texts UTF-16 without a zero at their end. The checksum tells damage,
// not forgery. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>
#include <windows.h>

namespace RunTime {

using RecordBytes = std::vector<unsigned char>;

inline constexpr std::size_t recordHeadSize = 2 * sizeof(DWORD);
inline constexpr std::size_t recordTailSize = sizeof(std::uint64_t) + sizeof(DWORD);
inline constexpr std::size_t maxPathBytes = 32'767 * sizeof(wchar_t);

std::uint64_t recordChecksum(std::uint64_t seed, std::span<const unsigned char> bytes);

template <class Number>
void putNumber(RecordBytes& to, Number value) {
    const std::size_t at = to.size();
    to.resize(at + sizeof(value));
    std::memcpy(&to[at], &value, sizeof(value));
}

// Returns the record's checksum.
std::uint64_t appendRecord(RecordBytes& to, DWORD kind, std::span<const unsigned char> content,
                           std::uint64_t seed);

struct CheckedRecord {
    DWORD kind = 0;
    std::size_t size = 0; // of the whole record
    std::span<const unsigned char> content;
};
// The record at the beginning of the bytes; false when there is none that is whole.
bool readRecord(std::span<const unsigned char> bytes, std::uint64_t seed, CheckedRecord& record);

// Puts content together.
class RecordContent {
public:
    template <class Number>
    RecordContent& number(Number value) {
        putNumber(bytes_, value);
        return *this;
    }
    RecordContent& block(std::span<const unsigned char> bytes);
    RecordContent& text(const std::wstring& text);

    const RecordBytes& bytes() const noexcept { return bytes_; }

private:
    RecordBytes bytes_;
};

// Takes content apart, which anybody may have written. What is not there comes out as zeros and
// empty, and isWhole() tells it.
class RecordParts {
public:
    explicit RecordParts(std::span<const unsigned char> bytes) : bytes_(bytes) {}

    template <class Number>
    Number number() {
        Number value{};
        const auto bytes = take(sizeof(value));
        if (!bytes.empty()) {
            std::memcpy(&value, bytes.data(), sizeof(value));
        }
        return value;
    }
    std::span<const unsigned char> block(std::size_t limit);
    // zeros  whether the text may have zero characters in it
    std::wstring text(std::size_t limit = maxPathBytes, bool zeros = false);

    // Whether all that was asked for was there and in order, and nothing is left.
    bool isWhole() const noexcept { return whole_ && bytes_.empty(); }

private:
    std::span<const unsigned char> take(std::size_t count);

    std::span<const unsigned char> bytes_;
    bool whole_ = true;
};

} // namespace RunTime
