#include "relocation/vhosts/recorded_move.h"

#include "relocation/vhosts/move_record.h"
#include "relocation/vhosts/multiple_key_value_change.h"
#include "runtime/files/checked_record.h"
#include "runtime/files/path.h"

#include <algorithm>
#include <cstring>

namespace {

using RunTime::CheckedRecord;
using RunTime::RecordParts;
using Kind = MoveRecord::Kind;

constexpr std::size_t maxValueBytes = 4 * 1024 * 1024;
constexpr std::size_t maxLinkBytes = MAXIMUM_REPARSE_DATA_BUFFER_SIZE;

[[noreturn]] void refuse(const wchar_t* why, int line) {
    throw MoveRecordException(why, {L"", "readRecordedMove", line});
}

constexpr wchar_t damaged[] = L"The record of the move is damaged, or no record of a move";

void require(bool condition, int line) {
    if (!condition) {
        refuse(damaged, line);
    }
}

// A whole path that means itself: no "..", no stream, no device.
bool isPlace(const std::wstring& path) {
    if (!RunTime::isFullyQualified(path) || path.size() > RunTime::maxPathBytes / 2) {
        return false;
    }
    const std::wstring nice = RunTime::nicePath(path);
    const bool isShare = nice.starts_with(L"\\\\");
    const bool isDrive = nice.size() > 2 && nice[1] == L':';
    if (isShare ? nice.starts_with(L"\\\\.") || nice.starts_with(L"\\\\?") : !isDrive) {
        return false;
    }
    std::size_t at = isDrive ? 3 : 2;
    while (at < nice.size()) {
        const std::size_t end = std::min(nice.find_first_of(L"\\/", at), nice.size());
        const std::wstring name = nice.substr(at, end - at);
        if (RunTime::isDotEntry(name) || name.find_first_of(L":*?\"<>|") != name.npos) {
            return false;
        }
        at = end + 1;
    }
    return true;
}

bool isPlaceBelow(const std::wstring& path, const std::wstring& directory) {
    return isPlace(path) && RunTime::isStrictlyInside(RunTime::nicePath(path), directory);
}

bool isAside(const std::wstring& path, const std::wstring& directory) {
    return isPlace(path) &&
           RunTime::equalNames(RunTime::parentPath(RunTime::nicePath(path)), directory) &&
           RunTime::beginsWith(RunTime::lastName(path), L"$Backup");
}

// Fills a move from records in their order.
class Reading {
public:
    explicit Reading(RecordedMove& move) : move_(move) {}

    void take(const CheckedRecord& record, bool isFirst) {
        const auto kind = static_cast<Kind>(record.kind);
        require(isFirst == (kind == Kind::Head), __LINE__);
        RecordParts parts(record.content);
        read(kind, parts);
        require(parts.isWhole(), __LINE__);
    }

private:
    void read(Kind kind, RecordParts& parts) {
        switch (kind) {
        case Kind::Head:
            if (parts.number<DWORD>() != MoveRecord::version) {
                refuse(L"The record of the move was written by another version", __LINE__);
            }
            move_.begun = parts.number<std::int64_t>();
            move_.setting = parts.text();
            readPlaces(parts);
            break;
        case Kind::Paths:
            readPlaces(parts);
            break;
        case Kind::Part: {
            const auto number = parts.number<DWORD>();
            require(number >= 1 && number <= static_cast<DWORD>(lastMovePart), __LINE__);
            move_.parts.insert(static_cast<MovePart>(number));
            break;
        }
        case Kind::Made:
            move_.made.push_back(parts.text());
            require(isPlace(move_.made.back()) &&
                        RunTime::File::inpath(move_.to, move_.made.back()),
                    __LINE__);
            break;
        case Kind::Completed:
            move_.completed = true;
            break;
        case Kind::Commit:
            move_.committing = true;
            break;
        default:
            readSetting(kind, parts);
        }
    }

    void readPlaces(RecordParts& parts) {
        move_.from = parts.text();
        move_.to = parts.text();
        require(isPlace(move_.from) && isPlace(move_.to), __LINE__);
    }

    void readSetting(Kind kind, RecordParts& parts) {
        switch (kind) {
        case Kind::Value: {
            RecordedMove::Value value;
            value.key = parts.text();
            value.name = parts.text();
            value.before = parts.text(maxValueBytes, true);
            value.after = parts.text(maxValueBytes, true);
            require(RunTime::equalNames(value.key, installerKey) ||
                        RunTime::isStrictlyInside(value.key, installerKey),
                    __LINE__);
            move_.values.push_back(std::move(value));
            break;
        }
        case Kind::Site: {
            std::wstring name = parts.text();
            std::wstring path = parts.text();
            require(!name.empty() && !path.empty(), __LINE__);
            move_.sites.insert_or_assign(std::move(name), std::move(path));
            break;
        }
        case Kind::Roots:
            move_.hasRoots = true;
            break;
        case Kind::Root: {
            std::wstring domain = parts.text();
            RecordedMove::Root root;
            root.before = parts.text();
            root.after = parts.text();
            require(!domain.empty() && domain.find_first_not_of(L"0123456789") == domain.npos,
                    __LINE__);
            move_.roots.insert_or_assign(std::move(domain), std::move(root));
            break;
        }
        case Kind::Webmail:
            readWebmail(parts);
            break;
        case Kind::User:
        case Kind::Account:
        case Kind::Quota:
            readUser(kind, parts);
            break;
        default:
            readTree(kind, parts);
        }
    }

    void readWebmail(RecordParts& parts) {
        constexpr std::size_t digits = 64;
        const auto sum = parts.block(digits);
        SavedFile::Stamp stamp;
        stamp.sha256.assign(sum.begin(), sum.end());
        stamp.file = parts.number<FILE_BASIC_INFO>();
        stamp.directory = parts.number<FILE_BASIC_INFO>();
        move_.webmail = std::move(stamp);
    }

    void readUser(Kind kind, RecordParts& parts) {
        const std::wstring login = parts.text();
        require(!login.empty(), __LINE__);
        if (kind == Kind::User) {
            RecordedMove::User user;
            user.login = login;
            user.home = parts.text();
            user.newHome = parts.text(); // which is compared, and never gone to
            move_.users.push_back(std::move(user));
            return;
        }
        const auto user = std::ranges::find(move_.users, login, &RecordedMove::User::login);
        require(user != move_.users.end(), __LINE__);
        if (kind == Kind::Account) {
            user->accountHome = parts.text();
            return;
        }
        const bool had = parts.number<DWORD>() != 0;
        const auto quota = parts.number<std::uint64_t>();
        user->quotaMoved = true;
        user->oldQuota = had ? std::optional(quota) : std::nullopt;
    }

    void readTree(Kind kind, RecordParts& parts) {
        switch (kind) {
        case Kind::Identity:
            move_.tree.volume = parts.number<DWORD>();
            move_.tree.file = parts.number<std::uint64_t>();
            break;
        case Kind::SetAside:
            move_.targetAside = parts.text();
            require(isAside(move_.targetAside, RunTime::parentPath(move_.to)), __LINE__);
            break;
        case Kind::Way: {
            const auto way = parts.number<DWORD>();
            move_.log = parts.text();
            require(way <= static_cast<DWORD>(RecordedMove::Way::Rename) &&
                        (move_.log.empty() || isPlace(move_.log)),
                    __LINE__);
            move_.way = static_cast<RecordedMove::Way>(way);
            break;
        }
        case Kind::Servers:
            move_.serversAside = parts.text();
            require(isAside(move_.serversAside, move_.from), __LINE__);
            break;
        case Kind::Link: {
            LinkRelink::Changed link;
            link.path = parts.text();
            const auto before = parts.block(maxLinkBytes);
            const auto after = parts.block(maxLinkBytes);
            link.before.assign(before.begin(), before.end());
            link.after.assign(after.begin(), after.end());
            link.times = parts.number<FILE_BASIC_INFO>();
            link.times.FileAttributes = 0; // stay as they are
            require(link.path.starts_with(L'\\') &&
                        isPlaceBelow(move_.from + link.path, move_.from),
                    __LINE__);
            move_.links.push_back(std::move(link));
            break;
        }
        default:
            refuse(damaged, __LINE__);
        }
    }

    RecordedMove& move_;
};

// Whether a record that was written later than those before the place stands behind it: then the
// place is no torn end.
bool hasRecordBehind(std::span<const unsigned char> bytes, std::uint64_t number) {
    constexpr std::uint64_t furthest = 64; // records that may be lost in between
    CheckedRecord record;
    for (std::size_t at = 1; at + RunTime::recordHeadSize < bytes.size(); ++at) {
        DWORD size = 0;
        std::memcpy(&size, &bytes[at], sizeof(size));
        if (size < RunTime::recordHeadSize + RunTime::recordTailSize || size > bytes.size() - at) {
            continue;
        }
        DWORD again = 0;
        std::memcpy(&again, &bytes[at + size - sizeof(again)], sizeof(again));
        for (std::uint64_t lost = 0; again == size && lost < furthest; ++lost) {
            if (RunTime::readRecord(bytes.subspan(at), number + lost, record)) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

RecordedMove readRecordedMove(std::span<const unsigned char> bytes) {
    RecordedMove move;
    Reading reading(move);
    std::uint64_t number = 0;
    CheckedRecord record;
    for (; RunTime::readRecord(bytes, number, record); ++number) {
        reading.take(record, number == 0);
        bytes = bytes.subspan(record.size);
    }
    if (hasRecordBehind(bytes, number)) {
        refuse(damaged, __LINE__);
    }
    return move;
}
