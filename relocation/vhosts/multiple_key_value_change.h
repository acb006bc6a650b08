// Registry values below one key that name a directory, changed together to name its new place, and
// put back:
//
//     InstallerPaths paths(HKEY_LOCAL_MACHINE, installerKey);
//     paths.save(oldPath);      // before the directory moves
//     paths.change(newPath);
//     ...
//     paths.restore();          // on rollback
//
// The old texts live in memory only, unless somebody keeps plan() and gives it back by resume().
// One thread at a time.
//
// Text    of the values (std::wstring)
// type    the registry type of the values that are looked at; others are never touched
// Traits  one value's record, such as RegValueTraits: made from root, key and value name, with
//         needChange, change and restore. OldPath is what it is asked with.
#pragma once

#include "relocation/failure.h"
#include "relocation/vhosts/old_path.h"
#include "relocation/vhosts/recorded_move.h"
#include "relocation/vhosts/reg_value_traits.h"
#include "runtime/native_span.h"
#include "runtime/registry/registry.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>
#include <windows.h>

template <class Text, DWORD type, class Traits>
class MultipleKeyValueChange {
public:
    // The key need not exist.
    MultipleKeyValueChange(HKEY root, Text keyName) : root_(root), keyName_(std::move(keyName)) {}

    // Records every value of the type in the key and below it that names oldPath, in the 64-bit
    // view; a missing key has none. What was recorded before is forgotten. Throws vexception when
    // anything cannot be read; nothing is recorded then.
    void save(Text oldPath);

    // Changes the recorded values in their order. The first that cannot be written ends this with
    // its exception; those before it stay changed until restore().
    void change(const Text& newPath);

    // Writes the saved text of every record back, changed or not. One that cannot be written is
    // reported (log, tracing span) and passed by; the result is whether there was none.
    bool restore();

    // What restore() would write, and in place of what once change() has been called with newPath.
    std::vector<RecordedMove::Value> plan(const Text& newPath) const;
    // Takes up what a process that has ended had planned. A value that has got a third text since,
    // or has gone, is left out.
    void resume(const std::vector<RecordedMove::Value>& values);

    // Forgets the records and the old path; the registry stays as it is.
    void clear() noexcept {
        entries_.clear();
        oldPath_.clear();
    }

    const std::vector<Traits>& entries() const noexcept { return entries_; }

private:
    // A key on the way down. A stack of our own: a program's stack may be short, and keys deep.
    struct Level {
        Text key;
        std::vector<Text> subkeys;
        std::size_t next = 0;
    };

    void scan(const OldPath& oldPath);
    void enter(Text key, std::vector<Level>& levels) const;
    void addValues(const Text& key, const OldPath& oldPath);

    HKEY root_;
    Text keyName_;
    Text oldPath_;
    std::vector<Traits> entries_;
};

// The paths that the installer keeps.
inline constexpr wchar_t installerKey[] = L"SOFTWARE\\TARVO\\Installer";
using InstallerPaths = MultipleKeyValueChange<std::wstring, REG_SZ, RegValueTraits>;

template <class Text, DWORD type, class Traits>
void MultipleKeyValueChange<Text, type, Traits>::save(Text oldPath) {
    const NativeSpan span("MultipleKeyValueChange::save", __LINE__);
    clear();
    oldPath_ = std::move(oldPath);
    try {
        scan(oldPath_);
    } catch (...) {
        clear();
        throw;
    }
}

template <class Text, DWORD type, class Traits>
void MultipleKeyValueChange<Text, type, Traits>::change(const Text& newPath) {
    const NativeSpan span("MultipleKeyValueChange::change", __LINE__);
    if (entries_.empty()) {
        return;
    }
    const OldPath oldPath(oldPath_);
    for (Traits& entry : entries_) {
        entry.change(oldPath, newPath);
    }
}

template <class Text, DWORD type, class Traits>
bool MultipleKeyValueChange<Text, type, Traits>::restore() {
    const NativeSpan span("MultipleKeyValueChange::restore", __LINE__);
    bool whole = true;
    for (Traits& entry : entries_) {
        try {
            entry.restore();
        } catch (...) { // the others must still be put back
            reportFailure(span, L"Unable to restore old value (" + entry.getKeyName() + L"\\" +
                                    entry.getValueName() + L")");
            whole = false;
        }
    }
    return whole;
}

template <class Text, DWORD type, class Traits>
std::vector<RecordedMove::Value>
MultipleKeyValueChange<Text, type, Traits>::plan(const Text& newPath) const {
    std::vector<RecordedMove::Value> values;
    if (entries_.empty()) {
        return values;
    }
    const OldPath oldPath(oldPath_);
    for (const Traits& entry : entries_) {
        values.push_back({entry.getKeyName(), entry.getValueName(), entry.getStored(),
                          entry.getStoredNew(oldPath, newPath)});
    }
    return values;
}

template <class Text, DWORD type, class Traits>
void MultipleKeyValueChange<Text, type, Traits>::resume(
    const std::vector<RecordedMove::Value>& values) {
    clear();
    for (const RecordedMove::Value& value : values) {
        if (!registry::keyExists(root_, value.key, RegistryView::View64)) {
            continue;
        }
        const auto known = registry::values(root_, value.key, RegistryView::View64);
        if (std::none_of(known.begin(), known.end(), [&](const registry::ValueName& name) {
                return name.name == value.name && name.type == type;
            })) {
            continue;
        }
        Traits entry(root_, value.key, value.name);
        if (entry.getStored() == value.after) {
            entry.setStored(value.before);
            entries_.push_back(std::move(entry));
        }
    }
}

template <class Text, DWORD type, class Traits>
void MultipleKeyValueChange<Text, type, Traits>::scan(const OldPath& oldPath) {
    std::vector<Level> levels;
    enter(keyName_, levels);
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next < level.subkeys.size()) {
            enter(level.key + L"\\" + level.subkeys[level.next++], levels);
        } else {
            addValues(level.key, oldPath);
            levels.pop_back();
        }
    }
}

template <class Text, DWORD type, class Traits>
void MultipleKeyValueChange<Text, type, Traits>::enter(Text key, std::vector<Level>& levels) const {
    if (registry::keyExists(root_, key, RegistryView::View64)) {
        std::vector<Text> subkeys = registry::subkeys(root_, key, RegistryView::View64);
        levels.push_back({std::move(key), std::move(subkeys)});
    }
}

template <class Text, DWORD type, class Traits>
void MultipleKeyValueChange<Text, type, Traits>::addValues(const Text& key,
                                                           const OldPath& oldPath) {
    for (const registry::ValueName& value : registry::values(root_, key, RegistryView::View64)) {
        if (value.type == type) {
            Traits entry(root_, key, value.name);
            if (entry.needChange(oldPath)) {
                entries_.push_back(std::move(entry));
            }
        }
    }
}
