// One registry value that follows a directory: its text when the record was made, and the text that
// is stored now. The value is a REG_SZ in the 64-bit view.
#pragma once

#include "relocation/vhosts/old_path.h"

#include <string>
#include <windows.h>

class RegValueTraits {
public:
    // Reads the value; throws vexception when it is not there or is no string.
    RegValueTraits(HKEY root, std::wstring keyName, std::wstring valueName);

    const std::wstring& getKeyName() const noexcept { return keyName_; }
    const std::wstring& getValueName() const noexcept { return valueName_; }
    const std::wstring& getValue() const noexcept { return current_; }

    // The saved text as it is stored, with what stands behind its end, and what change() would
    // store.
    std::wstring getStored() const { return savedValue_ + behindText_; }
    std::wstring getStoredNew(const OldPath& oldPath, const std::wstring& newPath) const {
        return getNewValue(oldPath, newPath) + behindText_;
    }
    // Saves another text in place of the one that was read.
    void setStored(const std::wstring& text);

    // Whether the text names oldPath or something in it (relocation/vhosts/old_path.h). An empty
    // text never does.
    bool needChange(const OldPath& oldPath) const;

    // The text with newPath in place of oldPath; the text as it is where that cannot be told, which
    // is logged.
    std::wstring getNewValue(const OldPath& oldPath, const std::wstring& newPath) const;

    // Stores the new text. When that throws (vosexception), getValue is the saved text again.
    void change(const OldPath& oldPath, const std::wstring& newPath);

    // Stores the saved text, whether it was changed or not.
    void restore();

private:
    void storeValue(const std::wstring& text) const;

    HKEY root_;
    std::wstring keyName_;
    std::wstring valueName_;
    std::wstring savedValue_;
    std::wstring behindText_; // from the text's first zero character on; goes with every text
    std::wstring current_;
};
