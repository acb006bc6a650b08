// Brings the physical paths of IIS sites into line when the directory of virtual hosts moves. The
// product's utilities do it; this class finds the sites and keeps what rollback() needs.
//
// COM is initialised for the thread that makes the object, which uses it alone.
#pragma once

#include "runtime/com.h"
#include "runtime/event.h"

#include <cstdint>
#include <map>
#include <string>

class TarvoIIsSites {
public:
    TarvoIIsSites() = default;
    TarvoIIsSites(const TarvoIIsSites&) = delete;
    TarvoIIsSites& operator=(const TarvoIIsSites&) = delete;

    // The sites that follow a move of oldRoot, added to those known already. Changes nothing else.
    void getSites(const std::wstring& oldRoot);
    // By name in lower case: the path that rollback() would give the site.
    const std::map<std::wstring, std::wstring>& get_sites() const noexcept { return sites_; }

    // Throws CanceledException when a handler cancels, otherwise returns false. Sites that were
    // changed before a failure stay so until rollback().
    bool change(const std::wstring& oldRoot, const std::wstring& newRoot);
    bool rollback();
    // Forgets what rollback() would restore.
    void commit() noexcept;
    bool isPending() const noexcept { return pending_; }

    Event<std::int32_t, bool&> progressEvent_Total;
    Event<const std::wstring&, bool&> progressEvent_Name;
    Event<std::int32_t, std::int64_t, bool&> progressEvent_MoveDomainTotal;
    Event<const std::wstring&, bool, std::int64_t, bool&> progressEvent_MoveDomainName;
    Event<const std::wstring&> errorEvent;
    Event<const std::wstring&, bool&> ignorebleErrorEvent;

private:
    RunTime::ComScope com_;
    std::map<std::wstring, std::wstring> sites_;
    bool pending_ = false;
    std::wstring newRoot_;
};
