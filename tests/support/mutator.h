// Fuzz tests: a reader of foreign bytes is given many damaged copies of valid ones.
//
//     fuzz({validMessage, anotherOne}, [](std::span<const std::uint8_t> input) { decode(input); });
//
// ZOP_FUZZ_COUNT says how many inputs (100,000 where it is not set), ZOP_FUZZ_SEED which ones. The
// same seed gives the same inputs, and input n of seed s is input 0 of seed s + n, so one that
// failed can be repeated alone.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <span>
#include <vector>

using FuzzCorpus = std::vector<std::vector<std::uint8_t>>;

// Damages inputs of a corpus: bits flipped; bytes, words and dwords replaced by numbers at which
// readers err (0, 1, all ones, sign changes, the input's own lengths and their neighbours);
// truncation, extension, ranges doubled, moved, removed or taken from another input.
class Mutator {
public:
    // The corpus must outlive the object and not be empty; its inputs may be.
    Mutator(const FuzzCorpus& corpus, std::uint64_t seed);

    // Valid until the next call.
    std::span<const std::uint8_t> next();
    std::size_t longest() const noexcept { return longest_; } // that an input may become

private:
    std::size_t below(std::size_t limit); // 0 where limit is
    std::uint64_t interesting();
    void mutate();
    void overwrite();
    void insert(std::size_t at, std::span<const std::uint8_t> bytes);

    const FuzzCorpus& corpus_;
    std::mt19937_64 random_;
    std::uint64_t seed_;
    std::size_t longest_ = 0;
    std::vector<std::uint8_t> input_;
    std::vector<std::uint8_t> piece_;
};

// Memory behind which there is none: who reads past the end of an input crashes.
class GuardedBuffer {
public:
    explicit GuardedBuffer(std::size_t capacity);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    // A copy of the bytes that ends where the memory does. Valid until the next call. Throws
    // std::length_error when it is longer than the capacity.
    std::span<std::uint8_t> hold(std::span<const std::uint8_t> bytes);

private:
    std::uint8_t* begin_;
    std::uint8_t* end_;
};

// Gives the inputs to a target, each in a GuardedBuffer. The test fails where the target throws,
// records a failure, takes longer than ten seconds for one input, or holds more memory or handles
// after the run than soon after its start. Each failure says how to repeat the input; so does a
// crash. share divides the number of inputs, for targets that are slow.
void fuzz(const FuzzCorpus& corpus,
          const std::function<void(std::span<const std::uint8_t>)>& target, unsigned share = 1);
