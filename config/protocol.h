// The messages between the configuration service and its clients: one request and one reply, each
// one message of the pipe. docs/config-protocol.md tells the layout.
//
// Both sides read what another process wrote: every length is checked before it is used, and a
// message that is not exactly what it should be is refused whole. Passwords travel in messages, so
// the memory of messages, and of the strings in requests and replies, is wiped.
#pragma once

#include "runtime/wipe.h"

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>
#include <windows.h>

namespace config::protocol {

inline constexpr std::uint32_t magic = 0x43504F5A; // "ZOPC" as bytes
inline constexpr std::uint16_t version = 1;
inline constexpr std::size_t headerBytes = 16;
inline constexpr std::size_t maxMessageBytes = 1024 * 1024;
inline constexpr std::size_t maxNameLength = 16'383; // the system's limit for a value's name

enum class Operation : std::uint16_t {
    GetString = 1,
    SetString = 2,
    GetDWORD = 3,
    SetDWORD = 4,
    IsVE = 5,
    List = 6, // names and types of the values, without what they hold
};

using Message = std::vector<std::uint8_t, RunTime::WipingAllocator<std::uint8_t>>;
using MessageView = std::span<const std::uint8_t>;

// Why a message was refused.
class ProtocolError : public std::runtime_error {
public:
    ProtocolError(std::uint32_t status, const std::string& what)
        : std::runtime_error(what), status_(status) {}

    // For the reply: ERROR_INVALID_DATA, ERROR_REVISION_MISMATCH for another version,
    // ERROR_NOT_SUPPORTED for an operation that is not known here.
    std::uint32_t status() const noexcept { return status_; }

private:
    std::uint32_t status_;
};

// Whether a value may have this name in a message: not empty, not longer than maxNameLength, no
// zero character. Others are left out of lists.
bool isValueName(std::wstring_view name) noexcept;

// The order of the names in a list: by UTF-16 code units, letter case ignored. Below 0, 0 or
// above, as first stands before second, is the same or stands behind it.
int compareNames(std::wstring_view first, std::wstring_view second) noexcept;

// What a client asks. Members that the operation has no use for are empty.
struct Request {
    Operation operation = Operation::GetString;
    std::wstring name{};     // of the value; for List: list the names behind this one
    std::wstring string{};   // SetString
    std::uint32_t dword = 0; // SetDWORD

    ~Request() { RunTime::wipe(string); }
};

struct ListedValue {
    std::wstring name;
    std::uint32_t type; // REG_SZ, REG_DWORD, ...
};

// What the service answers. When status is not 0 there is a text only.
struct Reply {
    Operation operation = Operation::GetString;
    std::uint32_t status = 0;          // a Win32 code
    std::wstring text{};               // what went wrong, for people
    std::wstring string{};             // GetString
    std::uint32_t dword = 0;           // GetDWORD; IsVE: 0 or 1
    std::vector<ListedValue> values{}; // List: each name behind the one before (compareNames)
    bool more = false;                 // List: ask again with the last name

    ~Reply() { RunTime::wipe(string); }
};

// Throw ProtocolError for what the other end would refuse: a name that is none, a text with a zero
// character in it, a message longer than maxMessageBytes.
Message encode(const Request& request);
Message encode(const Reply& reply);

// Throw ProtocolError for whatever encode would not have made.
Request decodeRequest(MessageView message);
Reply decodeReply(MessageView message);

// The reply to a request that decodeRequest refused. It has this side's version, so that a client
// of another one learns it. Nothing when the request does not even begin like one: then the other
// end is no client, and gets no answer.
std::optional<Message> encodeRefusal(MessageView request, const ProtocolError& error);

} // namespace config::protocol
