// Looks before the directory of virtual hosts is moved: at the two places as every move does, and
// at everything on the server that has to follow: the configuration service, the panel's database,
// its utilities, accounts and their homes, sites, document roots, the installer's values, links,
// and what names the old place and will not be changed. Changes nothing, but for the probe file of
// MovePreflight. One thread; handlers run on the calling thread.
//
//     VHostsPreflight preflight;
//     const VHostsPreflight::Result seen = preflight.examine({}, L"D:\\vhosts", {});
//     if (seen.isRefused()) ... // show seen.findings
#pragma once

#include "relocation/move_preflight.h"
#include "relocation/vhosts/link_relink.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class VHostsPreflight {
public:
    struct Options {
        bool keepGoing = false;
        bool copyOwner = false;
        bool relink = false; // links into the old place will be pointed at the new one
        StreamType streams = StreamType::All;
    };

    // The findings are refusals first, each kind of the paths first, then of the panel.
    struct Result : MovePreflight::Result {
        std::int64_t homes = 0;       // in the directory, of accounts that Windows has
        std::int64_t homesOnDisk = 0; // of these: they are copied ahead of the tree
        std::int64_t sites = 0;
        std::int64_t wwwRoots = 0;
        std::int64_t installerValues = 0;
        std::int64_t quotas = 0; // of the accounts with a home in the directory
        bool otherVolume = false;
        std::int64_t links = 0; // that lead into the old place by its full path
        // What names the old place and is not changed: "HKEY_LOCAL_MACHINE\...\value", or a file;
        // at most maxReferences.
        std::vector<std::wstring> notCovered;
    };
    static constexpr std::size_t maxReferences = 100;

    VHostsPreflight() = default;
    VHostsPreflight(const VHostsPreflight&) = delete;
    VHostsPreflight& operator=(const VHostsPreflight&) = delete;

    // source  absolute; empty for the configured place, "HTTPD_VHOSTS_D"
    // Throws CanceledException when a handler cancels. Whatever else fails is a finding.
    Result examine(const std::wstring& source, const std::wstring& target, const Options& options);

    // The links of the last examination, ready to be changed once the tree has moved.
    std::unique_ptr<LinkRelink> takeLinks() noexcept { return std::move(links_); }

    // What the scan of the source has seen so far, cancel; once per item.
    Event<const TreeContents&, bool&> progressEvent;

private:
    std::unique_ptr<LinkRelink> links_;
};
