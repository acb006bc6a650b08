#include "relocation/vhosts/reg_value_traits.h"

#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/registry/registry.h"

#include <algorithm>
#include <utility>

RegValueTraits::RegValueTraits(HKEY root, std::wstring keyName, std::wstring valueName)
    : root_(root), keyName_(std::move(keyName)), valueName_(std::move(valueName)),
      savedValue_(registry::getStored(root_, keyName_, valueName_, RegistryView::View64)) {
    setStored(savedValue_);
    current_ = savedValue_;
}

void RegValueTraits::setStored(const std::wstring& text) {
    const std::size_t end = std::min(text.find(L'\0'), text.size());
    behindText_ = text.substr(end);
    savedValue_ = text.substr(0, end);
}

bool RegValueTraits::needChange(const OldPath& oldPath) const {
    return !current_.empty() && oldPath.isNamedBy(current_);
}

std::wstring RegValueTraits::getNewValue(const OldPath& oldPath,
                                         const std::wstring& newPath) const {
    if (!needChange(oldPath)) {
        return current_;
    }
    const std::wstring target =
        RunTime::withoutTrailingBackslash(RunTime::File::nicePath(RunTime::longPath(newPath)));
    try {
        return oldPath.replaceIn(current_, target);
    } catch (const vexception&) { // one value must not keep the others from following
        LogManager::getInstance().vAddLog(
            LogType::Error,
            formatString(L"Unable to fix string %s, old value %s, new value %s", current_.c_str(),
                         oldPath.text().c_str(), newPath.c_str()));
        return current_;
    }
}

void RegValueTraits::change(const OldPath& oldPath, const std::wstring& newPath) {
    current_ = getNewValue(oldPath, newPath);
    try {
        storeValue(current_);
    } catch (...) {
        current_ = savedValue_;
        throw;
    }
}

void RegValueTraits::restore() {
    storeValue(savedValue_);
    current_ = savedValue_;
}

void RegValueTraits::storeValue(const std::wstring& text) const {
    registry::setStored(root_, keyName_, valueName_, text + behindText_, RegistryView::View64);
}
