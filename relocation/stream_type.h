// Kinds of backup stream that a tree copy carries over; flags. None of them stands for all.
#pragma once

#include <cstdint>

enum class StreamType : std::int32_t {
    None = 0,
    Data = 1,
    EAData = 2,
    SecurityData = 4,
    AlternateData = 8,
    PropertyData = 16,
    ObjectId = 32,
    ReparseData = 64,
    All = 127,
};

constexpr StreamType operator|(StreamType a, StreamType b) {
    return static_cast<StreamType>(static_cast<std::int32_t>(a) | static_cast<std::int32_t>(b));
}
constexpr StreamType operator&(StreamType a, StreamType b) {
    return static_cast<StreamType>(static_cast<std::int32_t>(a) & static_cast<std::int32_t>(b));
}
constexpr bool has(StreamType set, StreamType flag) {
    return (set & flag) == flag;
}
