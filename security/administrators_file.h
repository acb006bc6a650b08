// Files that are read back and acted on with an administrator's rights: nobody else may have had a
// hand in them, or may look into them.
#pragma once

#include "runtime/auto_handle.h"
#include "security/descriptor_bytes.h"

#include <string>
#include <windows.h>

namespace RunTime {

// Makes a directory for System and Administrators alone, and what is made in it likewise. One that
// is there already stays as it is. "Unable to create directory (%s)".
void createAdministratorsDirectory(const std::wstring& path);

// Makes a file for them; path in long form. On failure an empty handle, with GetLastError() set.
AutoHandle createAdministratorsFile(const std::wstring& path, DWORD access, DWORD share,
                                    DWORD disposition = CREATE_NEW, DWORD flags = 0);

// Whether System, Administrators or the caller's own account own an item with this descriptor, and
// nobody else may write to it.
bool isAdministratorsOwn(const DescriptorBytes& descriptor);

} // namespace RunTime
