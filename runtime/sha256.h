// The SHA-256 sum of bytes that come piece by piece.
#pragma once

#include <cstddef>
#include <string>

namespace RunTime {

class Sha256 {
public:
    // Throws vexception where the system gives none.
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void add(const void* bytes, std::size_t count);
    // 64 hexadecimal digits in small letters; ends the sum.
    std::string finish();

private:
    void* hash_ = nullptr;
};

} // namespace RunTime
