// NtfsFake: alternate streams and the backup API.
#include "tests/support/ntfs_fake_state.h"

#include <random>
#include <stdexcept>

namespace ntfs {

namespace {

constexpr DWORD idData = 1, idEa = 2, idSecurity = 3, idAlternate = 4, idObjectId = 7,
                idReparse = 8, idSparse = 9;
constexpr DWORD sparseAttribute = 8, headerSize = 20;

struct Header { // packed by hand: the SDK's has 4 bytes more behind it
    DWORD id = 0, attributes = 0;
    std::int64_t size = 0;
    DWORD nameSize = 0;
};

std::string pack(DWORD id, DWORD attributes, std::int64_t size, const std::wstring& name) {
    std::string out(headerSize, '\0');
    const auto nameSize = static_cast<DWORD>(name.size() * sizeof(wchar_t));
    std::memcpy(out.data(), &id, 4);
    std::memcpy(out.data() + 4, &attributes, 4);
    std::memcpy(out.data() + 8, &size, 8);
    std::memcpy(out.data() + 16, &nameSize, 4);
    return out.append(reinterpret_cast<const char*>(name.data()), nameSize);
}

std::string readUnix(const UnixFile& file, std::int64_t offset, std::size_t count) {
    const UnixFile readable(file.proc(), unixcall::ReadOnly);
    std::string bytes(count, '\0');
    const long long read = unixCall(unixcall::Pread, readable.fd(), bytes.data(),
                                    unixcall::number(static_cast<std::intptr_t>(count)), offset);
    bytes.resize(read > 0 ? static_cast<std::size_t>(read) : 0);
    return bytes;
}

std::wstring decorated(const std::wstring& name) {
    return std::wstring(L":").append(name).append(L":$DATA");
}

bool isSparse(const UnixFile& file) {
    const Extra* extra = extraOf(file);
    return extra != nullptr && (extra->flags & FILE_ATTRIBUTE_SPARSE_FILE) != 0;
}

} // namespace

// A copy under way: reading, the pieces still to be given; writing, the stream being taken.
struct Context {
    struct Piece {
        std::string bytes; // a header, or a payload that is held whole
        std::shared_ptr<UnixFile> file;
        std::int64_t offset = 0, length = 0; // of the file
        bool header = false;

        std::int64_t size() const {
            return file ? length : static_cast<std::int64_t>(bytes.size());
        }
    };
    bool reading = false;
    HANDLE handle = nullptr;
    std::deque<Piece> pieces;
    std::int64_t given = 0; // of the first piece
    std::mt19937 random;

    Header header;
    std::string pending; // of a header, a name or a small payload
    std::int64_t left = 0;
    std::int64_t offset = 0;
    enum { InHeader, InName, InPayload } part = InHeader;
    std::wstring name;
    std::shared_ptr<UnixFile> data; // the stream that data goes to, and sparse blocks after it
};

namespace {

using Piece = Context::Piece;

void addData(Context& context, const UnixFile& from, DWORD id, const std::wstring& name) {
    const auto file = std::make_shared<UnixFile>(from.proc());
    const std::int64_t size = file->stat().size;
    const bool sparse = isSparse(*file);
    const DWORD attributes = sparse ? sparseAttribute : 0;
    if (!sparse || state->fake->sparseAsData) {
        if (size != 0 || id != idData || sparse) { // an empty file has no data stream
            context.pieces.push_back({pack(id, attributes, size, name), nullptr, 0, 0, true});
            context.pieces.push_back({{}, file, 0, size});
        }
        return;
    }
    context.pieces.push_back({pack(id, attributes, 0, name), nullptr, 0, 0, true});
    const auto block = [&](std::int64_t offset, std::int64_t length) {
        context.pieces.push_back(
            {pack(idSparse, sparseAttribute, 8 + length, L""), nullptr, 0, 0, true});
        context.pieces.push_back(
            {std::string(reinterpret_cast<const char*>(&offset), sizeof offset), nullptr});
        context.pieces.push_back({{}, file, offset, length});
    };
    for (const auto& [offset, length] : allocatedRanges(*file)) {
        block(offset, length);
    }
    block(size, 0);
}

void begin(Context& context, const OpenFile& open, bool security) {
    const Extra* extra = extraOf(open.file);
    const auto whole = [&](DWORD id, DWORD attributes, const std::string& payload) {
        if (!payload.empty()) {
            context.pieces.push_back(
                {pack(id, attributes, static_cast<std::int64_t>(payload.size()), L""), nullptr, 0,
                 0, true});
            context.pieces.push_back({payload, nullptr});
        }
    };
    if (security) {
        SECURITY_INFORMATION parts =
            OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
        parts |= (open.access & ACCESS_SYSTEM_SECURITY) != 0 ? SACL_SECURITY_INFORMATION : 0;
        whole(idSecurity, 2, securityOf(open.file).selfRelative(parts));
        extra = extraOf(open.file);
    }
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
        context.pieces.push_back({stream.packed(), nullptr});
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
        Context* context = made.get();
        context->reading = reading;
        context->handle = handle;
        context->random.seed(state->fake->chunkSeed);
        state->contexts.emplace(context, std::move(made));
        *slot = context;
        return context;
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
    *read = 0;
    while (wanted != 0 && !context->pieces.empty()) {
        Piece& piece = context->pieces.front();
        const std::int64_t left = piece.size() - context->given;
        const auto count = static_cast<DWORD>(std::min<std::int64_t>(left, wanted));
        std::string part =
            piece.file ? readUnix(*piece.file, piece.offset + context->given, count)
                       : piece.bytes.substr(static_cast<std::size_t>(context->given), count);
        part.resize(count); // a file cut meanwhile reads as zeros
        std::memcpy(buffer + *read, part.data(), count);
        *read += count;
        wanted -= count;
        context->given += count;
        if (count == left) {
            context->pieces.pop_front();
            context->given = 0;
        }
    }
    return TRUE;
}

BOOL WINAPI backupSeek(HANDLE handle, DWORD low, DWORD high, LPDWORD lowDone, LPDWORD highDone,
                       LPVOID* slot) {
    const Lock lock;
    if (state->fake->backupRefusal != 0) {
        return fail(state->fake->backupRefusal);
    }
    if (*slot == nullptr) {
        state->violation("BackupSeek: before the first BackupRead");
        return fail(ERROR_INVALID_PARAMETER);
    }
    Context* context = enter(handle, slot, true, false, "BackupSeek");
    if (context == nullptr) {
        return FALSE;
    }
    std::int64_t wanted = static_cast<std::int64_t>(high) << 32 | low, done = 0;
    if (!context->pieces.empty() && context->pieces.front().header && context->given != 0) {
        state->violation("BackupSeek: within a header or a name");
        return fail(ERROR_INVALID_PARAMETER);
    }
    while (done < wanted && !context->pieces.empty() && !context->pieces.front().header) {
        const std::int64_t left = context->pieces.front().size() - context->given;
        const std::int64_t step = std::min(left, wanted - done);
        done += step;
        context->given += step;
        if (step == left) {
            context->pieces.pop_front();
            context->given = 0;
        }
    }
    *lowDone = static_cast<DWORD>(done);
    *highDone = static_cast<DWORD>(done >> 32);
    return done == wanted || fail(ERROR_SEEK);
}

bool isSmall(DWORD id) {
    return id == idSecurity || id == idEa || id == idObjectId || id == idReparse;
}

// A header with its name is complete: what follows goes where?
DWORD startStream(Context& context, OpenFile& open) {
    const Header& header = context.header;
    context.offset = 0;
    context.left = header.size;
    const bool directory = open.link || open.file.stat().isDirectory();
    if (header.size < 0 || header.id == 0 || header.id > 10) {
        return ERROR_INVALID_DATA;
    }
    if (header.id == idData) {
        context.data = std::make_shared<UnixFile>(open.file.proc());
        return directory ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
    }
    if (header.id == idAlternate) {
        if (!context.name.starts_with(L':') || !context.name.ends_with(L":$DATA") ||
            context.name.size() < 8) {
            return ERROR_INVALID_NAME;
        }
        DWORD code = ERROR_SUCCESS;
        context.data = std::make_shared<UnixFile>(
            openStream(open.file, context.name.substr(1, context.name.size() - 7), true, code));
        return code;
    }
    return header.id == idSparse && (!context.data || header.size < 8) ? ERROR_INVALID_DATA
                                                                       : ERROR_SUCCESS;
}

DWORD writeData(Context& context, const std::string& bytes) {
    const UnixFile file(context.data->proc(), unixcall::ReadWrite);
    if (context.header.id == idSparse && context.offset == 0 && context.pending.size() < 8) {
        return ERROR_INVALID_DATA;
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const long long count = unixCall(
            unixcall::Pwrite, file.fd(), bytes.data() + done,
            unixcall::number(static_cast<std::intptr_t>(bytes.size() - done)), context.offset);
        if (count < 0) {
            return errorOf(count);
        }
        done += static_cast<std::size_t>(count);
        context.offset += count;
    }
    return ERROR_SUCCESS;
}

// A stream whose payload is held whole has ended.
DWORD finishSmall(Context& context, OpenFile& open, bool security) {
    std::string& payload = context.pending;
    switch (context.header.id) {
    case idSecurity:
        if (security) {
            WORD control = 0;
            if (payload.size() < sizeof(SECURITY_DESCRIPTOR_RELATIVE) ||
                !REAL(IsValidSecurityDescriptor)(payload.data())) {
                return ERROR_INVALID_SECURITY_DESCR;
            }
            auto* head = reinterpret_cast<SECURITY_DESCRIPTOR_RELATIVE*>(payload.data());
            // The backup API asks for what it writes: the marks of inheritance stay.
            head->Control |= SE_DACL_AUTO_INHERIT_REQ | SE_SACL_AUTO_INHERIT_REQ;
            control = head->Control;
            SECURITY_INFORMATION parts = 0;
            parts |= head->Owner != 0 ? OWNER_SECURITY_INFORMATION : 0;
            parts |= head->Group != 0 ? GROUP_SECURITY_INFORMATION : 0;
            parts |= (control & SE_DACL_PRESENT) != 0 ? DACL_SECURITY_INFORMATION : 0;
            parts |= (control & SE_SACL_PRESENT) != 0 ? SACL_SECURITY_INFORMATION : 0;
            return applySecurity(open, parts, payload.data(), false);
        }
        return ERROR_SUCCESS;
    case idEa:
        extraOf(open.file, true)->ea = payload;
        return ERROR_SUCCESS;
    case idObjectId:
        for (const auto& [key, other] : state->extras) {
            if (other.objectId == payload) { // unique on a volume: the second goes without
                return ERROR_SUCCESS;
            }
        }
        extraOf(open.file, true)->objectId = payload;
        return ERROR_SUCCESS;
    case idReparse:
        return setReparse(open, payload);
    default:
        state->fake->notKept.push_back(
            {context.header.id, context.header.attributes, context.name, payload});
        return ERROR_SUCCESS;
    }
}

// Takes what it can of the bytes; a code other than 0 ends the call.
DWORD take(Context& context, OpenFile& open, bool security, const char*& at, std::size_t& left) {
    const auto gather = [&](std::size_t size) {
        const std::size_t count = std::min(size - context.pending.size(), left);
        context.pending.append(at, count);
        at += count;
        left -= count;
        return context.pending.size() == size;
    };
    if (context.part == Context::InHeader) {
        if (!gather(headerSize)) {
            return ERROR_SUCCESS;
        }
        std::memcpy(&context.header.id, context.pending.data(), 4);
        std::memcpy(&context.header.attributes, context.pending.data() + 4, 4);
        std::memcpy(&context.header.size, context.pending.data() + 8, 8);
        std::memcpy(&context.header.nameSize, context.pending.data() + 16, 4);
        context.pending.clear();
        context.part = Context::InName;
    }
    if (context.part == Context::InName) {
        if (context.header.nameSize > 1024 || !gather(context.header.nameSize)) {
            return context.header.nameSize > 1024 ? ERROR_INVALID_DATA : ERROR_SUCCESS;
        }
        context.name.assign(context.pending.size() / sizeof(wchar_t), L'\0');
        std::memcpy(context.name.data(), context.pending.data(), context.pending.size());
        context.pending.clear();
        if (const DWORD code = startStream(context, open)) {
            return code;
        }
        context.part = Context::InPayload;
        if (isSmall(context.header.id) && left < static_cast<std::size_t>(context.left)) {
            state->violation("BackupWrite: a small stream in more than one call");
        }
    }
    const DWORD id = context.header.id;
    const auto rest = static_cast<std::size_t>(context.left);
    if (id == idData || id == idAlternate || id == idSparse) {
        if (id == idSparse && context.offset == 0 && context.left == context.header.size) {
            if (!gather(8)) {
                return ERROR_SUCCESS;
            }
            std::memcpy(&context.offset, context.pending.data(), 8);
            context.left -= 8;
            if (context.left == 0) { // the closing block: the end of the file
                const UnixFile file(context.data->proc(), unixcall::ReadWrite);
                const DWORD code = errorOf(
                    unixCall(unixcall::Ftruncate, file.fd(), unixcall::number(context.offset)));
                context.pending.clear();
                context.part = Context::InHeader;
                return code;
            }
        }
        const std::size_t count =
            std::min({static_cast<std::size_t>(context.left), left, std::size_t(1) << 20});
        if (const DWORD code = writeData(context, std::string(at, count))) {
            return code;
        }
        at += count;
        left -= count;
        context.left -= static_cast<std::int64_t>(count);
    } else {
        if (!gather(rest)) {
            return ERROR_SUCCESS;
        }
        context.left = 0;
        if (const DWORD code = finishSmall(context, open, security)) {
            return code;
        }
    }
    if (context.left == 0) {
        context.pending.clear();
        context.part = Context::InHeader;
    }
    return ERROR_SUCCESS;
}

BOOL WINAPI backupWrite(HANDLE handle, LPBYTE buffer, DWORD size, LPDWORD written, BOOL abort,
                        BOOL security, LPVOID* slot) {
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
    const char* at = reinterpret_cast<const char*>(buffer);
    std::size_t left =
        limit >= 0 ? static_cast<std::size_t>(std::min<std::int64_t>(limit, size)) : size;
    limit -= limit >= 0 ? static_cast<std::int64_t>(left) : 0;
    // A stream without payload ends with its header, so the last of them needs one more turn.
    while (left != 0 || (context->part == Context::InPayload && context->left == 0)) {
        const DWORD code = take(*context, *open, security, at, left);
        *written = static_cast<DWORD>(at - reinterpret_cast<const char*>(buffer));
        if (code != 0) {
            return fail(code);
        }
    }
    return TRUE;
}

BOOL WINAPI findNextStream(HANDLE handle, LPVOID data) {
    const Lock lock;
    const auto found = state->searches.find(handle);
    if (found == state->searches.end() || found->second.next == found->second.streams.size()) {
        return fail(ERROR_HANDLE_EOF);
    }
    const auto& [name, size] = found->second.streams[found->second.next++];
    auto* out = static_cast<WIN32_FIND_STREAM_DATA*>(data);
    *out = {};
    out->StreamSize.QuadPart = size;
    name.copy(out->cStreamName, std::size(out->cStreamName) - 1);
    return TRUE;
}

HANDLE WINAPI findFirstStream(LPCWSTR path, STREAM_INFO_LEVELS, LPVOID data, DWORD) {
    const Lock lock;
    const UnixFile file(unixPath(path), unixcall::OnlyPath | unixcall::NoFollow);
    Search search;
    search.ours = true;
    if (file && !file.stat().isLink()) {
        if (!file.stat().isDirectory()) {
            search.streams.emplace_back(L"::$DATA", file.stat().size);
        }
        if (const Extra* extra = extraOf(file)) {
            for (const auto& [name, backing] : extra->streams) {
                search.streams.emplace_back(decorated(name), UnixFile(backing).stat().size);
            }
        }
    }
    if (search.streams.empty()) {
        fail(file ? ERROR_HANDLE_EOF : ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = REAL(CreateEventW)(nullptr, TRUE, FALSE, nullptr);
    state->searches.insert_or_assign(handle, std::move(search));
    findNextStream(handle, data);
    return handle;
}

} // namespace

std::vector<std::pair<std::int64_t, std::int64_t>> allocatedRanges(const UnixFile& file) {
    const std::int64_t size = file.stat().size;
    if (!isSparse(file)) {
        return size != 0 ? std::vector{std::pair<std::int64_t, std::int64_t>(0, size)}
                         : std::vector<std::pair<std::int64_t, std::int64_t>>();
    }
    std::vector<std::pair<std::int64_t, std::int64_t>> found;
    const UnixFile readable(file.proc(), unixcall::ReadOnly);
    const auto seek = [&](std::int64_t from, std::intptr_t whence) {
        return unixCall(unixcall::Lseek, readable.fd(), unixcall::number(from),
                        unixcall::number(whence));
    };
    for (std::int64_t at = 0; at < size;) {
        const long long begin = seek(at, 3); // SEEK_DATA
        if (begin < 0) {
            break;
        }
        at = seek(begin, 4); // SEEK_HOLE
        found.emplace_back(begin, at - begin);
    }
    return found;
}

std::string readAll(const UnixFile& file) {
    return readUnix(file, 0, static_cast<std::size_t>(file.stat().size));
}

// Opens the Unix file that holds a stream. A read-only file or directory takes no new ones.
UnixFile openStream(const UnixFile& file, const std::wstring& name, bool create, DWORD& code) {
    Extra* extra = extraOf(file, create);
    if (extra == nullptr || !extra->streams.contains(name)) {
        if (!create || extra == nullptr) {
            code = ERROR_FILE_NOT_FOUND;
            return UnixFile("");
        }
        if ((extra->attributes.value_or(0) & FILE_ATTRIBUTE_READONLY) != 0) {
            code = ERROR_ACCESS_DENIED;
            return UnixFile("");
        }
        const std::string backing = state->backing + "/" + std::to_string(++state->backingCount);
        const UnixFile made(backing, unixcall::CreateNew);
        extra->streams[name] = backing;
    }
    return UnixFile(extra->streams[name]);
}

void State::onClose(HANDLE handle) {
    for (const auto& [key, context] : contexts) {
        if (context->handle == handle) {
            violation("the handle was closed before its context was ended");
        }
    }
    std::erase_if(contexts, [&](const auto& entry) { return entry.second->handle == handle; });
}

void patchBackup(State& to) {
    const auto hook = [&](const char* name, auto* function) {
        patch(to, name, reinterpret_cast<void*>(function));
    };
    hook("BackupRead", backupRead);
    hook("BackupWrite", backupWrite);
    hook("BackupSeek", backupSeek);
    hook("FindFirstStreamW", findFirstStream);
    hook("FindNextStreamW", findNextStream);
}

} // namespace ntfs

std::string BackupStream::packed() const {
    return ntfs::pack(id, attributes, static_cast<std::int64_t>(payload.size()), name) + payload;
}

void NtfsFake::setStream(const std::wstring& path, const std::wstring& name,
                         const std::string& content) {
    const ntfs::UnixFile file(unixPath(path));
    DWORD code = 0;
    const ntfs::UnixFile held = ntfs::openStream(file, name, true, code);
    const ntfs::UnixFile writable(held.proc(), unixcall::Truncate);
    if (code != 0 ||
        unixCall(unixcall::Pwrite, writable.fd(), content.data(),
                 unixcall::number(static_cast<std::intptr_t>(content.size())), 0) < 0) {
        throw std::runtime_error("no stream can be made: " + ntfs::narrow(path));
    }
}

std::map<std::wstring, std::string> NtfsFake::streams(const std::wstring& path) {
    std::map<std::wstring, std::string> result;
    if (const ntfs::Extra* record = ntfs::extraAt(unixPath(path))) {
        for (const auto& [name, backing] : record->streams) {
            result[name] = ntfs::readAll(ntfs::UnixFile(backing));
        }
    }
    return result;
}

void NtfsFake::setEa(const std::wstring& path, const std::string& data) {
    ntfs::extraAt(unixPath(path), true)->ea = data;
}

std::string NtfsFake::ea(const std::wstring& path) {
    const ntfs::Extra* record = ntfs::extraAt(unixPath(path));
    return record != nullptr ? record->ea : std::string();
}

void NtfsFake::setObjectId(const std::wstring& path, const std::string& data) {
    ntfs::extraAt(unixPath(path), true)->objectId = data;
}

std::string NtfsFake::objectId(const std::wstring& path) {
    const ntfs::Extra* record = ntfs::extraAt(unixPath(path));
    return record != nullptr ? record->objectId : std::string();
}

std::vector<std::pair<std::int64_t, std::int64_t>> NtfsFake::allocated(const std::wstring& path) {
    const std::size_t colon = path.rfind(L':');
    if (colon != path.npos && colon > path.rfind(L'\\') && path.rfind(L'\\') != path.npos) {
        DWORD code = 0;
        return ntfs::allocatedRanges(ntfs::openStream(
            ntfs::UnixFile(unixPath(path.substr(0, colon))), path.substr(colon + 1), false, code));
    }
    return ntfs::allocatedRanges(ntfs::UnixFile(unixPath(path)));
}
