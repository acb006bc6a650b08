// NtfsFake: the backup API.
#include "tests/support/ntfs_fake_state.h"

#include <algorithm>
#include <random>

namespace ntfs {

namespace {

constexpr DWORD idData = 1, idEa = 2, idSecurity = 3, idAlternate = 4, idObjectId = 7,
                idReparse = 8, idSparse = 9;
constexpr DWORD sparseAttribute = 8;

#pragma pack(push, 4)
struct Header { // the SDK's has 4 bytes more behind it
    DWORD id = 0, attributes = 0;
    std::int64_t size = 0;
    DWORD nameSize = 0;
};
#pragma pack(pop)
static_assert(sizeof(Header) == 20);

} // namespace

// A copy under way. An item's streams are held whole: tests have no large ones.
struct Context {
    bool reading = false;
    HANDLE handle = nullptr;
    std::mt19937 random;
    std::string bytes;              // reading: all of it; writing: what is no whole stream yet
    std::size_t given = 0;          // reading
    std::shared_ptr<UnixFile> data; // writing: where sparse blocks go
};

namespace {

void addData(Context& context, const UnixFile& file, DWORD id, const std::wstring& name) {
    const bool sparse = isSparse(file);
    const DWORD attributes = sparse ? sparseAttribute : 0;
    const std::string content = unixRead(file.proc());
    if (!sparse || state->fake->sparseAsData) {
        if (!content.empty() || id != idData || sparse) { // an empty file has no data stream
            context.bytes += BackupStream{id, attributes, name, content}.packed();
        }
        return;
    }
    context.bytes += BackupStream{id, attributes, name, {}}.packed();
    auto ranges = allocatedRanges(file);
    ranges.emplace_back(content.size(), 0); // the end of the file
    for (const auto& [offset, length] : ranges) {
        const std::string at(reinterpret_cast<const char*>(&offset), sizeof offset);
        context.bytes += BackupStream{idSparse, sparseAttribute, L"",
                                      at + content.substr(static_cast<std::size_t>(offset),
                                                          static_cast<std::size_t>(length))}
                             .packed();
    }
}

void begin(Context& context, const OpenFile& open, bool security) {
    const auto whole = [&](DWORD id, DWORD attributes, const std::string& payload) {
        if (!payload.empty()) {
            context.bytes += BackupStream{id, attributes, L"", payload}.packed();
        }
    };
    if (security) {
        SECURITY_INFORMATION parts =
            OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
        parts |= (open.access & ACCESS_SYSTEM_SECURITY) != 0 ? SACL_SECURITY_INFORMATION : 0;
        whole(idSecurity, 2, securityOf(open.file).selfRelative(parts));
    }
    const Extra* extra = extraOf(open.file);
    whole(idReparse, 0, reparseDataOf(open.file));
    if (extra != nullptr) {
        whole(idEa, 0, extra->ea);
    }
    if (!open.link && !open.file.stat().isDirectory()) {
        addData(context, open.file, idData, L"");
    }
    if (extra != nullptr) {
        for (const auto& [name, backing] : extra->streams) {
            addData(context, UnixFile(backing), idAlternate, decorated(name));
        }
        whole(idObjectId, 0, extra->objectId);
    }
    for (const BackupStream& stream : state->fake->appended) {
        context.bytes += stream.packed();
    }
}

// The context that a call names; null, with the reason noted, when it may not.
Context* enter(HANDLE handle, LPVOID* slot, bool reading, bool abort, const char* function) {
    const auto breach = [&](const char* what) -> Context* {
        state->violation(std::string(function) + ": " + what);
        fail(ERROR_INVALID_PARAMETER);
        return nullptr;
    };
    auto* named = static_cast<Context*>(*slot);
    if (named == nullptr) {
        if (abort) {
            return breach("ended without a context");
        }
        auto made = std::make_shared<Context>();
        made->reading = reading;
        made->handle = handle;
        made->random.seed(state->fake->chunkSeed);
        *slot = made.get();
        return state->contexts.emplace(made.get(), made).first->first;
    }
    if (!state->contexts.contains(named)) {
        return breach("a context that was never begun, or has ended");
    }
    if (named->reading != reading) {
        return breach("a context of the other direction");
    }
    return named->handle == handle ? named : breach("a context of another handle");
}

BOOL leave(Context* context, LPVOID* slot, DWORD* count) {
    state->contexts.erase(context);
    *slot = nullptr;
    *count = 0;
    return TRUE;
}

BOOL WINAPI backupRead(HANDLE handle, LPBYTE buffer, DWORD wanted, LPDWORD read, BOOL abort,
                       BOOL security, LPVOID* slot) {
    const Lock lock;
    OpenFile* open = state->find(handle);
    if (state->fake->backupRefusal != 0 || open == nullptr) {
        return fail(open == nullptr ? ERROR_INVALID_HANDLE : state->fake->backupRefusal);
    }
    const bool first = *slot == nullptr;
    Context* context = enter(handle, slot, true, abort, "BackupRead");
    if (context == nullptr || abort) {
        return context != nullptr && leave(context, slot, read);
    }
    if (first) {
        if (!open->may(READ_CONTROL) || (!open->link && !open->may(FILE_READ_DATA))) {
            leave(context, slot, read);
            return fail(ERROR_ACCESS_DENIED);
        }
        begin(*context, *open, security);
    }
    if (state->fake->chunkSeed != 0 && wanted > 1) {
        const DWORD most = context->random() % 3 == 0 ? wanted : std::min<DWORD>(wanted, 64);
        wanted = context->random() % most | 1;
    }
    *read = static_cast<DWORD>(
        context->bytes.copy(reinterpret_cast<char*>(buffer), wanted, context->given));
    context->given += *read;
    return TRUE;
}

DWORD applyData(Context& context, OpenFile& open, const Header& header, const std::wstring& name,
                const std::string& payload) {
    if (header.id == idSparse) {
        std::int64_t offset = 0;
        std::memcpy(&offset, payload.data(), sizeof offset);
        if (payload.size() > sizeof offset) {
            return errorOf(unixWrite(context.data->proc(), payload.substr(sizeof offset),
                                     unixcall::ReadWrite, offset));
        }
        return errorOf(unixCall(unixcall::TruncateTo, context.data->proc().c_str(),
                                unixcall::number(offset))); // the end of the file
    }
    DWORD code = ERROR_SUCCESS;
    context.data = std::make_shared<UnixFile>(
        header.id == idData ? UnixFile(open.file.proc())
                            : openStream(open.file, name.substr(1, name.size() - 7), true, code));
    return code != 0 ? code
                     : errorOf(unixWrite(context.data->proc(), payload, unixcall::ReadWrite));
}

DWORD applySmall(OpenFile& open, const Header& header, const std::string& payload) {
    if (header.id == idReparse) {
        return setReparse(open, payload);
    }
    if (header.id == idEa) {
        extraOf(open.file, true)->ea = payload;
    } else {
        state->violation("BackupWrite: a stream that a file does not keep");
    }
    return ERROR_SUCCESS;
}

// Whether a file can take such a stream.
DWORD judge(const Context& context, const OpenFile& open, const Header& header,
            const std::wstring& name) {
    if (header.size < 0 || header.id == 0 || header.id > 10 ||
        (header.id == idSparse && (!context.data || header.size < 8))) {
        return ERROR_INVALID_DATA;
    }
    if (header.id == idData && (open.link || open.file.stat().isDirectory())) {
        return ERROR_INVALID_PARAMETER;
    }
    return header.id == idAlternate &&
                   (!name.starts_with(L':') || !name.ends_with(L":$DATA") || name.size() < 8)
               ? ERROR_INVALID_NAME
               : ERROR_SUCCESS;
}

// Writes all streams that have come whole; before: how many bytes were there before this call.
DWORD applyWhole(Context& context, OpenFile& open, std::size_t before) {
    for (std::string& bytes = context.bytes; bytes.size() >= sizeof(Header); before = 0) {
        Header header;
        std::memcpy(&header, bytes.data(), sizeof header);
        const std::size_t head = sizeof(Header) + header.nameSize;
        if (header.nameSize > 1024) {
            return ERROR_INVALID_DATA;
        }
        if (bytes.size() < head) {
            break;
        }
        std::wstring name(header.nameSize / sizeof(wchar_t), L'\0');
        std::memcpy(name.data(), bytes.data() + sizeof(Header), header.nameSize);
        if (const DWORD code = judge(context, open, header, name)) {
            return code;
        }
        const bool isData =
            header.id == idData || header.id == idAlternate || header.id == idSparse;
        const auto size = static_cast<std::size_t>(header.size);
        if (bytes.size() - head < size) {
            if (!isData && before < head) {
                state->violation("BackupWrite: a small stream in more than one call");
            }
            break;
        }
        const std::string payload = bytes.substr(head, size);
        const DWORD code = isData ? applyData(context, open, header, name, payload)
                                  : applySmall(open, header, payload);
        if (code != 0) {
            return code;
        }
        bytes.erase(0, head + size);
    }
    return ERROR_SUCCESS;
}

BOOL WINAPI backupWrite(HANDLE handle, LPBYTE buffer, DWORD size, LPDWORD written, BOOL abort, BOOL,
                        LPVOID* slot) {
    const Lock lock;
    OpenFile* open = state->find(handle);
    if (state->fake->backupRefusal != 0 || open == nullptr) {
        return fail(open == nullptr ? ERROR_INVALID_HANDLE : state->fake->backupRefusal);
    }
    Context* context = enter(handle, slot, false, abort, "BackupWrite");
    if (context == nullptr || abort) {
        return context != nullptr && leave(context, slot, written);
    }
    *written = 0;
    if (!open->link && !open->may(FILE_WRITE_DATA)) {
        return fail(ERROR_ACCESS_DENIED);
    }
    std::int64_t& limit = state->fake->writeLimit;
    *written = limit >= 0 ? static_cast<DWORD>(std::min<std::int64_t>(limit, size)) : size;
    limit -= limit >= 0 ? *written : 0;
    const std::size_t before = context->bytes.size();
    context->bytes.append(reinterpret_cast<const char*>(buffer), *written);
    const DWORD code = applyWhole(*context, *open, before);
    return code == 0 || fail(code);
}

} // namespace

void State::onClose(HANDLE handle) {
    for (const auto& [key, context] : contexts) {
        if (context->handle == handle) {
            violation("the handle was closed before its context was ended");
        }
    }
    std::erase_if(contexts, [&](const auto& entry) { return entry.second->handle == handle; });
}

void patchBackup(State& to) {
    patch(to, "BackupRead", backupRead);
    patch(to, "BackupWrite", backupWrite);
}

} // namespace ntfs

std::string BackupStream::packed() const {
    const ntfs::Header header{id, attributes, static_cast<std::int64_t>(payload.size()),
                              static_cast<DWORD>(name.size() * sizeof(wchar_t))};
    std::string out(reinterpret_cast<const char*>(&header), sizeof header);
    out.append(reinterpret_cast<const char*>(name.data()), header.nameSize);
    return out + payload;
}
