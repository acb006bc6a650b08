#include "tests/support/mutator.h"

#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/support/process_counters.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <string>
#include <windows.h>

namespace {

constexpr std::uint64_t defaultSeed = 20'240'229;
constexpr std::uint64_t defaultCount = 100'000;
constexpr std::size_t maxGrowth = 64 * 1024; // of an input above the corpus's longest
constexpr ULONGLONG maxMilliseconds = 10'000;
// Caches that fill late are no leak; one in a thousand inputs that leaks is found.
constexpr long long allowedGrowth = 16;

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

// The input that a crash happened in, for the handlers, which have no other way to it.
std::uint64_t currentSeed = 0;

std::string howToRepeat() {
    return "repeat it alone with ZOP_FUZZ_SEED=" + std::to_string(currentSeed) +
           " ZOP_FUZZ_COUNT=1";
}

void report() {
    std::fprintf(stderr, "the fuzzed code crashed: %s\n", howToRepeat().c_str());
    std::fflush(stderr);
}

// While it lives, a crash tells the input.
class CrashReport {
public:
    CrashReport()
        : filter_(::SetUnhandledExceptionFilter(&onException)),
          abort_(std::signal(SIGABRT, &onAbort)) {}
    ~CrashReport() {
        std::signal(SIGABRT, abort_);
        ::SetUnhandledExceptionFilter(filter_);
    }
    CrashReport(const CrashReport&) = delete;
    CrashReport& operator=(const CrashReport&) = delete;

private:
    static LONG WINAPI onException(EXCEPTION_POINTERS*) {
        report();
        return EXCEPTION_CONTINUE_SEARCH;
    }
    static void onAbort(int) { report(); }

    LPTOP_LEVEL_EXCEPTION_FILTER filter_;
    void (*abort_)(int);
};

} // namespace

Mutator::Mutator(const FuzzCorpus& corpus, std::uint64_t seed) : corpus_(corpus), seed_(seed) {
    for (const auto& valid : corpus) {
        longest_ = std::max(longest_, valid.size() + maxGrowth);
    }
}

std::span<const std::uint8_t> Mutator::next() {
    random_.seed(seed_++);
    input_ = corpus_[below(corpus_.size())];
    // Mostly little damage: what is damaged much is refused at its first byte.
    std::size_t rounds = 1;
    while (rounds < 16 && below(2) == 0) {
        ++rounds;
    }
    for (; rounds > 0; --rounds) {
        mutate();
    }
    return input_;
}

std::size_t Mutator::below(std::size_t limit) {
    return limit != 0 ? static_cast<std::size_t>(random_() % limit) : 0;
}

std::uint64_t Mutator::interesting() {
    const std::uint64_t numbers[] = {
        0,          1,          2,          0x7F,          0x80,
        0xFF,       0x7FFF,     0x8000,     0xFFFF,        0x7FFFFFFF,
        0x80000000, 0xFFFFFFFF, UINT64_MAX, input_.size(), input_.size() / sizeof(wchar_t),
        random_()};
    // The neighbours of a number are where comparisons go wrong.
    return numbers[below(std::size(numbers))] + below(3) - 1;
}

void Mutator::mutate() {
    const std::size_t at = below(input_.size() + 1);
    const std::size_t rest = input_.size() - at;
    const std::size_t some = below(4) == 0 ? rest : std::min<std::size_t>(rest, 16);
    const std::size_t length = std::min(some, below(some + 1) + 1);
    const auto begin = input_.begin() + static_cast<std::ptrdiff_t>(at);
    const auto end = begin + static_cast<std::ptrdiff_t>(length);
    switch (below(9)) {
    case 0:
    case 1:
        if (rest != 0) {
            *begin ^= static_cast<std::uint8_t>(1U << below(8));
        }
        break;
    case 2:
    case 3:
        overwrite();
        break;
    case 4:
        input_.resize(at);
        break;
    case 5: // extension, by zeros or by anything
        piece_.assign(below(below(8) == 0 ? 4096 : 16) + 1, 0);
        if (below(2) == 0) {
            std::generate(piece_.begin(), piece_.end(),
                          [this] { return static_cast<std::uint8_t>(random_()); });
        }
        insert(below(2) == 0 ? input_.size() : at, piece_);
        break;
    case 6: // doubled or moved
        piece_.assign(begin, end);
        insert(below(input_.size() + 1), piece_);
        break;
    case 7:
        input_.erase(begin, end);
        break;
    default: {
        const auto& other = corpus_[below(corpus_.size())];
        const std::size_t from = below(other.size() + 1);
        const auto source = std::span(other).subspan(from, below(other.size() - from + 1));
        if (below(2) == 0) {
            insert(at, source);
        } else {
            std::copy_n(source.begin(), std::min(source.size(), rest), begin);
        }
        break;
    }
    }
}

void Mutator::overwrite() {
    if (input_.empty()) {
        return;
    }
    const std::size_t width = std::min<std::size_t>(std::size_t{1} << below(4), input_.size());
    std::size_t at = below(input_.size() - width + 1);
    if (below(2) == 0) { // fields are mostly aligned
        at -= at % width;
    }
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value |= std::uint64_t{input_[at + i]} << (8 * i);
    }
    value = below(3) == 0 ? value + below(2) * 2 - 1 : interesting();
    for (std::size_t i = 0; i < width; ++i) {
        input_[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

void Mutator::insert(std::size_t at, std::span<const std::uint8_t> bytes) {
    const std::size_t room = longest_ - std::min(input_.size(), longest_);
    const auto taken = bytes.first(std::min(bytes.size(), room));
    input_.insert(input_.begin() + static_cast<std::ptrdiff_t>(at), taken.begin(), taken.end());
}

GuardedBuffer::GuardedBuffer(std::size_t capacity) {
    constexpr std::size_t page = 4096;
    const std::size_t size = (capacity + page - 1) / page * page;
    begin_ = static_cast<std::uint8_t*>(
        ::VirtualAlloc(nullptr, size + page, MEM_RESERVE, PAGE_NOACCESS));
    if (begin_ == nullptr ||
        (size != 0 && ::VirtualAlloc(begin_, size, MEM_COMMIT, PAGE_READWRITE) == nullptr)) {
        throw std::bad_alloc();
    }
    end_ = begin_ + size;
}

GuardedBuffer::~GuardedBuffer() {
    ::VirtualFree(begin_, 0, MEM_RELEASE);
}

std::span<std::uint8_t> GuardedBuffer::hold(std::span<const std::uint8_t> bytes) {
    if (bytes.size() > static_cast<std::size_t>(end_ - begin_)) {
        throw std::length_error("more than the guarded buffer has room for");
    }
    std::uint8_t* const start = end_ - bytes.size();
    std::copy(bytes.begin(), bytes.end(), start);
    return {start, bytes.size()};
}

void fuzz(const FuzzCorpus& corpus,
          const std::function<void(std::span<const std::uint8_t>)>& target, unsigned share) {
    ASSERT_FALSE(corpus.empty());
    const std::uint64_t first = fromEnvironment("ZOP_FUZZ_SEED", defaultSeed);
    const std::uint64_t count =
        std::max<std::uint64_t>(1, fromEnvironment("ZOP_FUZZ_COUNT", defaultCount) / share);
    const std::uint64_t warmUp = count < 1000 ? 0 : 500;
    Mutator mutator(corpus, first);
    GuardedBuffer buffer(mutator.longest());
    const CrashReport crashes;
    ProcessCounters before;
    for (std::uint64_t n = 0; n < count; ++n) {
        if (n == warmUp) {
            before = ProcessCounters::now();
        }
        currentSeed = first + n;
        const auto input = buffer.hold(mutator.next());
        const ULONGLONG start = ::GetTickCount64();
        std::string thrown;
        try {
            target(input);
        } catch (const std::exception& e) {
            thrown = e.what();
        } catch (const vexception& e) {
            thrown = toUtf8(e.what());
        }
        if (!thrown.empty()) {
            ADD_FAILURE() << "the input let the target throw: " << thrown;
        } else if (::GetTickCount64() - start > maxMilliseconds) {
            ADD_FAILURE() << "the input took longer than " << maxMilliseconds << " ms";
        }
        if (::testing::Test::HasFailure()) {
            ADD_FAILURE() << "input " << n << " of " << input.size() << " bytes, " << howToRepeat();
            return;
        }
    }
    if (warmUp == 0) {
        return;
    }
    const ProcessCounters after = ProcessCounters::now();
    EXPECT_LE(after.blocks - before.blocks, allowedGrowth)
        << "blocks of memory are left over; seed " << first << ", " << count << " inputs";
    EXPECT_LE(after.handles - before.handles, allowedGrowth)
        << "handles are left over; seed " << first << ", " << count << " inputs";
}
