// What lies below a path, held still: every item with its data, streams, attributes, times,
// security and links, so that a test can compare a tree with what it was before, or a copy with its
// original. Only Win32 calls of this executable are used, so fakes that replace them are seen.
//
//     const TreeImage before = imageOf(root);
//     ...
//     EXPECT_TRUE(sameTree(before, imageOf(root)));
#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <windows.h>

struct ItemImage {
    enum class Kind { File, Directory, Link };

    Kind kind = Kind::File;
    DWORD attributes = 0; // FILE_ATTRIBUTE_NORMAL left out
    std::int64_t size = 0;
    std::string content;
    std::int64_t created = 0; // FILETIME as a number; 0 where times are left out or not kept
    std::int64_t written = 0;
    std::map<std::wstring, std::string> streams; // ":name:$DATA" -> content
    std::string security;                        // self-relative descriptor
    std::string reparse;   // reparse data, or the text of a Unix link where there is none
    std::wstring linkedTo; // first name of its group of hard links, when that is another one
    DWORD error = 0;       // code of the first call that could not tell

    bool operator==(const ItemImage&) const = default;
};

// Names are relative to the root, the root itself is L"". Empty when the root does not exist.
using TreeImage = std::map<std::wstring, ItemImage>;

struct ImageOptions {
    bool directoryTimes = true; // they change with every child that comes or goes
    bool security = true;
};

TreeImage imageOf(const std::wstring& path, const ImageOptions& options = {});

// A failure has one line for each item that differs, saying how.
testing::AssertionResult sameTree(const TreeImage& expected, const TreeImage& actual);

// Bytes that are the same for the same size and seed, and nowhere periodic.
std::string sampleBytes(std::size_t size, unsigned seed = 1);

// Makes trees. Names are relative to the root, with backslashes; directories above an item come by
// themselves. Everything is made under "\\?\", so that any name goes. Attributes and times are set
// by finish(), which the destructor calls: deepest items first, so that they stay.
class TreeBuilder {
public:
    static constexpr std::int64_t defaultTime = 132'000'000'001'234'567; // 2019, odd 100 ns

    explicit TreeBuilder(const std::wstring& root);
    ~TreeBuilder() noexcept(false);
    TreeBuilder(const TreeBuilder&) = delete;
    TreeBuilder& operator=(const TreeBuilder&) = delete;

    TreeBuilder& directory(const std::wstring& name, DWORD attributes = 0,
                           std::int64_t written = defaultTime);
    TreeBuilder& file(const std::wstring& name, const std::string& content = {},
                      DWORD attributes = 0, std::int64_t written = defaultTime);
    TreeBuilder& hardLink(const std::wstring& name, const std::wstring& existing);
    // A Unix link, under Wine; target is a Unix path or relative to the link.
    TreeBuilder& link(const std::wstring& name, const std::string& target);
    // One of everything that trips a careless copier: empty and large files and empty directories,
    // deep and long paths, odd names, attributes, hard links. No symbolic links.
    TreeBuilder& everything();
    void finish();

    std::wstring path(const std::wstring& name) const;

private:
    struct Finish {
        DWORD attributes;
        std::int64_t written;
    };
    std::wstring root_;
    std::map<std::wstring, Finish> pending_; // by full path: a child sorts behind its parent
};
