// Compares two open items of one kind: the part of TreeComparison that knows no tree.
#pragma once

#include "relocation/tree_compare.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>
#include <windows.h>

class ItemComparison {
public:
    using Report = std::function<void(DifferenceKind, const std::wstring& detail)>;

    struct Settings {
        bool audit = false;
        bool streams = false;
    };

    // options outlives the object. read is called with the bytes compared since its last call; an
    // exception of it ends the comparison.
    void setUp(const TreeComparison::Options& options, const Settings& settings,
               std::function<void(std::int64_t bytes)> read);

    // Flags for opening a file that compareData is to read.
    DWORD readFlags(bool isSecond) const;

    // Size and contents of two files.
    void compareData(HANDLE first, HANDLE second, const Report& report);
    void compareLinks(HANDLE first, HANDLE second, const Report& report);
    // Named streams of two files or directories; paths in long form.
    void compareStreams(const std::wstring& first, const std::wstring& second,
                        const Report& report);
    // Attributes, times, security.
    void compareProperties(HANDLE first, HANDLE second, const Report& report);

private:
    enum class Read { Equal, Different, Failed };
    struct Freer {
        void operator()(unsigned char* memory) const noexcept {
            ::VirtualFree(memory, 0, MEM_RELEASE);
        }
    };
    using Buffer = std::unique_ptr<unsigned char, Freer>;

    // Where two readings differ first, or why one of them failed.
    Read compareBytes(HANDLE first, HANDLE second, std::wstring& detail);
    void compareSecurity(HANDLE first, HANDLE second, const Report& report);

    const TreeComparison::Options* options_ = nullptr;
    Settings settings_;
    std::function<void(std::int64_t)> read_;
    Buffer firstBuffer_; // page-aligned, as reading past the cache demands
    Buffer secondBuffer_;
    std::vector<unsigned char> firstDescriptor_;
    std::vector<unsigned char> secondDescriptor_;
};

// The system's text for a code, on one line.
std::wstring systemText(DWORD code);
