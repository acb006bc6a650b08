#include "relocation/vhosts/tarvo_iis_sites.h"

#include "relocation/vhosts/move_record.h"
#include "relocation/vhosts/path_groups.h"
#include "relocation/vhosts/site_list.h"
#include "runtime/database/zop_database.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/process/product_utility.h"
#include "runtime/text.h"

namespace {

using SiteMap = std::map<std::wstring, std::wstring>; // name in lower case to path

constexpr wchar_t iisUtility[] = L"webhostctl.exe";

SiteMap allSites() {
    const RunTime::Execute::Result list =
        RunTime::execUtil64Bit(iisUtility, {L"--get-sites-root-path"});
    if (list.truncated) {
        throw vexception(L"The list of IIS sites is too long",
                         {L"", "TarvoIIsSites::getSites", __LINE__});
    }
    SiteMap sites;
    for (const IisSite& site : parseSiteList(list.output)) {
        if (site.name.empty() || site.path.empty()) { // nothing that could be found, or put back
            LogManager::getInstance().vAddLog(
                LogType::Warning, L"The list of IIS sites has no name or no path for (" +
                                      site.name + site.path + L")");
            continue;
        }
        sites[toLower(site.name)] = site.path;
    }
    return sites;
}

} // namespace

void TarvoIIsSites::getSites(const std::wstring& oldRoot) {
    const NativeSpan span("TarvoIIsSites::getSites", __LINE__);
    const RunTime::ComScope com; // the object may have been made on another thread
    SiteMap others = allSites();
    SiteMap found;
    ZOPDatabase database = ZOPDatabase::connect();
    const auto domains = database.enumDomains();
    while (domains->next()) {
        auto site = others.extract(toLower(domains->text(L"name").value_or(L"")));
        // Without hosting a domain's site is left alone, even below the directory.
        if (site && toLower(domains->text(L"htype").value_or(L"")) != L"none") {
            found.insert(std::move(site));
        }
    }
    for (const auto& [name, path] : others) {
        if (RunTime::File::inpath(path, oldRoot)) {
            found.emplace(name, oldRoot);
        }
    }
    sites_.merge(found); // the path of a site that is there already is older
}

bool TarvoIIsSites::change(const std::wstring& oldRoot, const std::wstring& newRoot) {
    constexpr const char* function = "TarvoIIsSites::change";
    const NativeSpan span(function, __LINE__);
    getSites(oldRoot);
    PathGroups groups(oldRoot);
    for (const auto& [name, path] : sites_) {
        groups.add(name, path);
    }
    if (record_ != nullptr) {
        record_->sites(sites_);
    }
    pending_ = true;
    newRoot_ = newRoot;
    bool cancel = false;
    progressEvent_Total.raise(static_cast<std::int32_t>(sites_.size()), cancel);
    if (cancel) {
        throw CanceledException({L"", function, __LINE__});
    }
    for (const auto& [name, path] : sites_) {
        progressEvent_Name.raise(L"Configure IIS site: " + name, cancel);
        if (cancel) {
            throw CanceledException({L"", function, __LINE__});
        }
        if (groups.rootOf(name)) {
            updateSite(name, oldRoot, newRoot);
        }
    }
    return false;
}

void TarvoIIsSites::resume(const std::wstring& newRoot,
                           std::map<std::wstring, std::wstring> sites) {
    sites_ = std::move(sites);
    newRoot_ = newRoot;
    pending_ = true;
    resumed_ = true;
}

bool TarvoIIsSites::rollback() {
    const NativeSpan span("TarvoIIsSites::rollback", __LINE__);
    if (!pending_) { // found, and nothing more
        sites_.clear();
    }
    if (resumed_ && !sites_.empty()) { // one that has gone since must not keep the others away
        const RunTime::ComScope com;
        const SiteMap present = allSites();
        std::erase_if(sites_, [&](const auto& site) { return !present.contains(site.first); });
    }
    bool cancel = false;
    progressEvent_Total.raise(static_cast<std::int32_t>(sites_.size()), cancel);
    for (auto site = sites_.begin(); site != sites_.end(); site = sites_.erase(site)) {
        progressEvent_Name.raise(L"Restore: " + site->first, cancel);
        updateSite(site->first, newRoot_, site->second);
    }
    commit();
    return false;
}

void TarvoIIsSites::commit() noexcept {
    pending_ = false;
    resumed_ = false;
    sites_.clear();
}

void TarvoIIsSites::updateSite(const std::wstring& name, const std::wstring& oldPath,
                               const std::wstring& newPath) {
    const auto arguments = [&](const std::wstring& from, const std::wstring& to) {
        return std::vector<std::wstring>{L"--update-site-paths", L"--site-name=" + name,
                                         L"--old-path=" + from, L"--new-path=" + to};
    };
    RunTime::execUtil64Bit(iisUtility, arguments(oldPath, newPath));
    RunTime::execUtil(L"relink_tool.exe",
                      arguments(RunTime::nicePath(oldPath), RunTime::nicePath(newPath)));
}
