#include "tests/support/pending_list.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr const wchar_t* valueName = L"PendingFileRenameOperations";

}

PendingList::PendingList()
    : turn_(::CreateMutexW(nullptr, FALSE, L"Global\\zop-test-pending-operations")) {
    if (!turn_ || ::WaitForSingleObject(turn_.get(), INFINITE) == WAIT_FAILED ||
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE,
                          L"SYSTEM\\CurrentControlSet\\Control\\Session Manager", 0, nullptr, 0,
                          KEY_ALL_ACCESS, nullptr, key_.put(), nullptr) != ERROR_SUCCESS) {
        throw std::runtime_error("the list of pending operations cannot be had");
    }
    before_ = data();
    ::RegDeleteValueW(key_.get(), valueName);
}

PendingList::~PendingList() {
    ::RegDeleteValueW(key_.get(), valueName);
    if (before_) {
        ::RegSetValueExW(key_.get(), valueName, 0, REG_MULTI_SZ,
                         reinterpret_cast<const BYTE*>(before_->data()),
                         static_cast<DWORD>(before_->size() * sizeof(wchar_t)));
    }
    ::ReleaseMutex(turn_.get());
}

std::wstring PendingList::shown() const {
    std::wstring text = data().value_or(L"none");
    std::replace(text.begin(), text.end(), L'\0', L'|');
    return text;
}

void PendingList::write(std::wstring text, DWORD type, DWORD cut) const {
    std::replace(text.begin(), text.end(), L'|', L'\0');
    if (::RegSetValueExW(key_.get(), valueName, 0, type, reinterpret_cast<const BYTE*>(text.data()),
                         static_cast<DWORD>(text.size() * sizeof(wchar_t)) - cut) !=
        ERROR_SUCCESS) {
        throw std::runtime_error("the list of pending operations cannot be set");
    }
}

std::optional<std::wstring> PendingList::data() const {
    DWORD size = 0;
    if (::RegQueryValueExW(key_.get(), valueName, nullptr, nullptr, nullptr, &size) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::wstring data(size / sizeof(wchar_t) + 1, L'\0');
    if (::RegQueryValueExW(key_.get(), valueName, nullptr, nullptr,
                           reinterpret_cast<BYTE*>(data.data()), &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    data.resize(size / sizeof(wchar_t));
    return data;
}
