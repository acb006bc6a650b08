// Who is told what a commit, or its undoing, finds.
#pragma once

#include "runtime/exception.h"

#include <string>

namespace HostingSecurity {

// Called on the calling thread; what a handler throws ends the operation. The default handlers do
// nothing.
class ICommitCallback {
public:
    virtual ~ICommitCallback() = default;
    // An item is looked at. Paths in nice form.
    virtual void onItem(const std::wstring& path);
    // An item's permissions are not those of the template; text says in words what was expected and
    // what was found.
    virtual void onSecurityException(const std::wstring& path, const std::wstring& text);
    // An item could not be read or repaired; the commit passes over it.
    virtual void onError(const std::wstring& path, const vexception& error);
};

} // namespace HostingSecurity
