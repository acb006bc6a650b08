// Times the check and the repair of a hosting's permissions: items a second, and Win32 calls an
// item. Prints them for a repair of everything, for a check of the repaired tree (which must write
// nothing), and for the report alone.
//
//     hosting_bench DIRECTORY [ITEMS]
//
// DIRECTORY exists and is empty. Wine keeps no permissions, so they are kept here beside its own
// calls, which are made all the same: they are what is measured.
#include "bench/telling_failures.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/text.h"
#include "security/hosting/security_manager.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/registry_override.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>
#include <windows.h>

namespace {

using Bytes = std::vector<unsigned char>;

// Descriptors by path.
class Permissions {
public:
    Permissions() { self = this; }
    ~Permissions() { self = nullptr; }
    Permissions(const Permissions&) = delete;
    Permissions& operator=(const Permissions&) = delete;

    long closed = 0;
    void forget() { kept_.clear(); }

private:
    static HANDLE WINAPI open(LPCWSTR name, DWORD access, DWORD share,
                              LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                              HANDLE model) {
        const HANDLE handle = self->open_.original<decltype(&::CreateFileW)>()(
            name, access, share, security, disposition, flags, model);
        self->names_[handle] = name;
        return handle;
    }
    static BOOL WINAPI close(HANDLE handle) {
        ++self->closed;
        return self->close_.original<decltype(&::CloseHandle)>()(handle);
    }
    static BOOL WINAPI get(HANDLE handle, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR to,
                           DWORD size, LPDWORD needed) {
        const BOOL done = self->get_.original<decltype(&::GetKernelObjectSecurity)>()(
            handle, parts, to, size, needed);
        const auto kept = self->kept_.find(self->names_[handle]);
        if (done && kept != self->kept_.end()) {
            std::memcpy(to, kept->second.data(), kept->second.size());
        }
        return done;
    }
    // Only lists are ever written; the owner is left out of what is kept.
    static BOOL WINAPI set(HANDLE handle, SECURITY_INFORMATION parts,
                           PSECURITY_DESCRIPTOR descriptor) {
        const auto* bytes = static_cast<const unsigned char*>(descriptor);
        self->kept_[self->names_[handle]].assign(bytes,
                                                 bytes + ::GetSecurityDescriptorLength(descriptor));
        return self->set_.original<decltype(&::SetKernelObjectSecurity)>()(handle, parts,
                                                                           descriptor);
    }

    static inline Permissions* self = nullptr;
    std::unordered_map<HANDLE, std::wstring> names_;
    std::unordered_map<std::wstring, Bytes> kept_;
    ImportPatch open_{"CreateFileW", &open};
    ImportPatch close_{"CloseHandle", &close};
    ImportPatch get_{"GetKernelObjectSecurity", &get};
    ImportPatch set_{"SetKernelObjectSecurity", &set};
};

class Lookup final : public DiskSecurity::AccountLookup {
public:
    RunTime::Sid lookup(const std::wstring& account, const std::wstring&) override {
        return RunTime::Sid(L"S-1-5-21-1-2-3-" + std::to_wstring(1000 + account.size()));
    }
};

class Count final : public HostingSecurity::ICommitCallback {
public:
    long items = 0, wrong = 0, errors = 0;
    void onItem(const std::wstring&) override { ++items; }
    void onSecurityException(const std::wstring&, const std::wstring&) override { ++wrong; }
    void onError(const std::wstring&, const vexception&) override { ++errors; }
};

void makeTree(const std::wstring& root, int items) {
    constexpr int files = 20, directories = 4;
    std::vector<std::wstring> open = {root};
    for (std::size_t next = 0; items > 0; ++next) {
        const std::wstring above = open[next];
        for (int i = 0; i < directories && items > 0; ++i, --items) {
            open.push_back(above + L"\\d" + std::to_wstring(i));
            ::CreateDirectoryW(open.back().c_str(), nullptr);
        }
        for (int i = 0; i < files && items > 0; ++i, --items) {
            const std::wstring name = above + L"\\file" + std::to_wstring(i) + L".html";
            ::CloseHandle(
                ::CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
        }
    }
}

void measure(const char* what, HostingSecurity::SecurityManager& manager, Permissions& permissions,
             HostingSecurity::CommitMode mode, bool forget) {
    using Clock = std::chrono::steady_clock;
    Count count;
    const auto start = Clock::now();
    manager.commit(count, mode, true, true);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (forget) {
        permissions.forget();
    }
    const long closed = permissions.closed;
    Count again;
    std::map<std::string, long> calls =
        countCalls([&] { manager.commit(again, mode, true, true); });
    calls["CloseHandle"] = permissions.closed - closed;
    std::printf(
        "%-7s %ld items, %ld wrong, %ld errors, %.2f s, %.0f items a second; calls an item:", what,
        count.items, count.wrong, count.errors, seconds,
        static_cast<double>(count.items) / seconds);
    long all = 0;
    for (const auto& [name, made] : calls) {
        all += made;
        if (made * 100 > again.items) {
            std::printf(" %s %.2f", name.c_str(),
                        static_cast<double>(made) / static_cast<double>(again.items));
        }
    }
    std::printf("; all %.2f; writes %ld\n",
                static_cast<double>(all) / static_cast<double>(again.items),
                calls["SetKernelObjectSecurity"]);
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) {
        std::fputs("usage: hosting_bench DIRECTORY [ITEMS]\n", stderr);
        return 2;
    }
    return tellingFailures([&] {
        const std::wstring place = RunTime::longPath(argv[1]);
        const RegistryOverride registry;
        RegistryOverride::setString(L"HTTPD_VHOSTS_D", RunTime::nicePath(place) + L"\\vhosts");
        RegistryOverride::setString(L"PRODUCT_DATA_D", RunTime::nicePath(place) + L"\\data");
        for (const wchar_t* name :
             {L"\\vhosts", L"\\data", L"\\vhosts\\d1", L"\\vhosts\\d1\\wwwroot"}) {
            ::CreateDirectoryW((place + name).c_str(), nullptr);
        }
        makeTree(place + L"\\vhosts\\d1\\wwwroot", argc > 2 ? std::stoi(argv[2]) : 50'000);
        HostingSecurity::replaceAccountLookup([] { return std::make_shared<Lookup>(); });
        HostingSecurity::SecurityManager manager(place + L"\\vhosts\\d1");
        manager.setHosting(HostingSecurity::HostingKind::Domain,
                           {.user = L"d1", .parent = L"", .poolUser = L"pool"});
        Permissions permissions;
        using HostingSecurity::CommitMode;
        measure("repair", manager, permissions, CommitMode::Repair, true);
        measure("check", manager, permissions, CommitMode::Repair, false);
        measure("fast", manager, permissions, CommitMode::Fast, false);
        measure("report", manager, permissions, CommitMode::Report, false);
        return 0;
    });
}
