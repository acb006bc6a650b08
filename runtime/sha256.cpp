#include "runtime/sha256.h"

#include "runtime/exception.h"

#include <algorithm>
#include <array>
#include <bcrypt.h>

namespace RunTime {

namespace {

void check(NTSTATUS status, int line) {
    if (status < 0) {
        _throwError(L"Unable to compute a SHA-256 sum", static_cast<DWORD>(status),
                    {L"", "RunTime::Sha256", line});
    }
}

} // namespace

Sha256::Sha256() {
    // Opened once, for all threads; it goes with the process.
    static const BCRYPT_ALG_HANDLE algorithm = [] {
        BCRYPT_ALG_HANDLE handle = nullptr;
        check(::BCryptOpenAlgorithmProvider(&handle, BCRYPT_SHA256_ALGORITHM, nullptr, 0),
              __LINE__);
        return handle;
    }();
    check(::BCryptCreateHash(algorithm, &hash_, nullptr, 0, nullptr, 0, 0), __LINE__);
}

Sha256::~Sha256() {
    if (hash_ != nullptr) {
        ::BCryptDestroyHash(hash_);
    }
}

void Sha256::add(const void* bytes, std::size_t count) {
    auto* at = static_cast<UCHAR*>(const_cast<void*>(bytes)); // which it only reads
    while (count > 0) {
        const ULONG part = static_cast<ULONG>(std::min<std::size_t>(count, 1U << 30));
        check(::BCryptHashData(hash_, at, part, 0), __LINE__);
        at += part;
        count -= part;
    }
}

std::string Sha256::finish() {
    std::array<UCHAR, 32> sum{};
    check(::BCryptFinishHash(hash_, sum.data(), static_cast<ULONG>(sum.size()), 0), __LINE__);
    std::string text;
    for (const UCHAR byte : sum) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

} // namespace RunTime
