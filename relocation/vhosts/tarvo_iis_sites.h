// Brings the physical paths of IIS sites into line when the directory of virtual hosts moves. The
// product's utilities do it; this class finds the sites and keeps what rollback() needs.
//
// A site follows the move when it is that of a hosted domain, wherever it lies, or when it lies in
// the directory and is no domain's. That of a domain without hosting never does.
//
// COM is initialised for the thread that makes the object, which uses it alone.
#pragma once

#include "runtime/com.h"
#include "runtime/event.h"

#include <cstdint>
#include <map>
#include <string>

class MoveRecord;

class TarvoIIsSites {
public:
    TarvoIIsSites() = default;
    TarvoIIsSites(const TarvoIIsSites&) = delete;
    TarvoIIsSites& operator=(const TarvoIIsSites&) = delete;

    // Finds the sites that follow a move of oldRoot and adds them to those known already, whose
    // paths stay. Changes nothing else; adds none when it throws: UtilityException, what the
    // list of sites or the panel's database cannot be read for.
    void getSites(const std::wstring& oldRoot);
    // By name in lower case: the path that rollback() would give the site.
    const std::map<std::wstring, std::wstring>& get_sites() const noexcept { return sites_; }

    // oldRoot, newRoot  absolute, in either form
    // Throws CanceledException when a handler cancels and what getSites() and the utilities throw;
    // otherwise returns false. Sites that were changed before a failure stay so until rollback().
    bool change(const std::wstring& oldRoot, const std::wstring& newRoot);
    // Points the sites back, those that change() had not come to as well; returns false. Throws
    // what a utility throws. The sites that were still to be done are kept then: another call goes
    // on with them. Handlers cannot cancel it.
    bool rollback();
    // For the next change(): where the sites are recorded before the first is changed; null:
    // nowhere.
    void set_record(MoveRecord* record) noexcept { record_ = record; }
    // Takes up what a process that has ended had recorded, for rollback(). It passes over sites
    // that are gone by then.
    void resume(const std::wstring& newRoot, std::map<std::wstring, std::wstring> sites);
    // Forgets what rollback() would restore.
    void commit() noexcept;
    // From the end of the search in change() until rollback() has finished, or commit().
    bool isPending() const noexcept { return pending_; }

    Event<std::int32_t, bool&> progressEvent_Total;
    Event<const std::wstring&, bool&> progressEvent_Name;
    Event<std::int32_t, std::int64_t, bool&> progressEvent_MoveDomainTotal;
    Event<const std::wstring&, bool, std::int64_t, bool&> progressEvent_MoveDomainName;
    Event<const std::wstring&> errorEvent;
    Event<const std::wstring&, bool&> ignorebleErrorEvent;

private:
    static void updateSite(const std::wstring& name, const std::wstring& oldPath,
                           const std::wstring& newPath);

    RunTime::ComScope com_;
    std::map<std::wstring, std::wstring> sites_;
    bool pending_ = false;
    bool resumed_ = false; // by another process
    std::wstring newRoot_;
    MoveRecord* record_ = nullptr;
};
