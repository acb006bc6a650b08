#include "runtime/heap_corruption_handler.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/registry/config_values.h"
#include "runtime/se_translator.h"

#include <atomic>
#include <cstdio>
// after windows.h
#include <dbghelp.h>

namespace {

constexpr DWORD heapCorruption = 0xC0000374; // STATUS_HEAP_CORRUPTION

// On the stack throughout: the heap is what is broken.
struct DumpPath {
    wchar_t text[1024];
};

template <std::size_t size, class... Args>
void print(wchar_t (&to)[size], const wchar_t* format, Args... args) {
    const int length = ::_snwprintf(to, size, format, args...);
    if (length < 0 || static_cast<std::size_t>(length) >= size) {
        throw vexception(L"Unable to build the crash dump file name",
                         {L"", "HeapCorruptionHandler::getDumpFile", __LINE__});
    }
}

void getDumpFile(DumpPath& path) {
    wchar_t directory[900];
    DWORD size = sizeof directory;
    RunTime::AutoRegKey key;
    LSTATUS status = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, config::configKey, 0,
                                     KEY_READ | KEY_WOW64_32KEY, key.put());
    if (status == ERROR_SUCCESS) {
        status = ::RegGetValueW(key.get(), nullptr, config::name::crashDumpDirectory, RRF_RT_REG_SZ,
                                nullptr, directory, &size);
    }
    if (status != ERROR_SUCCESS || directory[0] == L'\0') {
        throw vexception(L"Crash dumping does not enabled",
                         {L"", "HeapCorruptionHandler::getDumpFile", __LINE__});
    }
    wchar_t prefix[32];
    print(prefix, L"zopnative_%lu_", ::GetCurrentProcessId());
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    wchar_t name[32];
    print(name, L"%04d%02d%02d_%02d%02d%02d.dmp", now.wYear, now.wMonth, now.wDay, now.wHour,
          now.wMinute, now.wSecond);
    print(path.text, L"%s\\%s%s", directory, prefix, name);
}

void writeDump(EXCEPTION_POINTERS* exception) {
    DumpPath path{};
    getDumpFile(path);
    RunTime::AutoHandle file(::CreateFileW(path.text, GENERIC_WRITE | DELETE, 0, nullptr,
                                           CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to create the crash dump file", code,
                    {L"", "HeapCorruptionHandler::writeDump", __LINE__});
    }
    MINIDUMP_EXCEPTION_INFORMATION information{};
    information.ThreadId = ::GetCurrentThreadId();
    information.ExceptionPointers = exception;
    information.ClientPointers = FALSE;
    constexpr auto type =
        static_cast<MINIDUMP_TYPE>(MiniDumpWithThreadInfo | MiniDumpWithIndirectlyReferencedMemory);
    if (!::MiniDumpWriteDump(::GetCurrentProcess(), ::GetCurrentProcessId(), file.get(), type,
                             &information, nullptr, nullptr)) {
        const DWORD code = ::GetLastError();
        FILE_DISPOSITION_INFO remove{TRUE}; // half a dump only misleads
        ::SetFileInformationByHandle(file.get(), FileDispositionInfo, &remove, sizeof remove);
        _throwError(L"Unable to write the crash dump", code,
                    {L"", "HeapCorruptionHandler::writeDump", __LINE__});
    }
}

} // namespace

VectoredExceptionHandler::~VectoredExceptionHandler() {
    if (handle_ != nullptr) {
        ::RemoveVectoredExceptionHandler(handle_);
    }
}

HeapCorruptionHandler::HeapCorruptionHandler(bool enable) {
    if (enable) {
        handle_ = ::AddVectoredExceptionHandler(1, &HeapCorruptionHandler::handle);
    }
}

LONG CALLBACK HeapCorruptionHandler::handle(EXCEPTION_POINTERS* exception) {
    if (exception->ExceptionRecord->ExceptionCode != heapCorruption) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    // Writing the dump may run into the corruption again; one attempt is all there is.
    static std::atomic<bool> writing{false};
    if (!writing.exchange(true)) {
        const SeTranslatorLocal translator;
        try {
            writeDump(exception);
        } catch (...) { // nothing may keep the process from its proper end
        }
        writing = false;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}
