// The messages between the configuration service and its clients: one request and one reply, each
// one message of the pipe. docs/config-protocol.md tells the layout.
//
// Both sides read what another process wrote: every length is checked before it is used, and a
// message that is not exactly what it should be is refused whole.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>
#include <windows.h>

namespace config::protocol {

inline constexpr std::uint32_t magic = 0x43504F5A; // "ZOPC" as bytes
inline constexpr std::uint16_t version = 1;
inline constexpr std::size_t headerBytes = 16;
inline constexpr std::size_t maxMessageBytes = 1024 * 1024;

enum class Operation : std::uint16_t {
    GetString = 1,
    SetString = 2,
    GetDWORD = 3,
    SetDWORD = 4,
    IsVE = 5,
    List = 6, // names and types of the values, without what they hold
};

using Message = std::vector<std::uint8_t>;
using MessageView = std::span<const std::uint8_t>;

// Why a message was refused.
class ProtocolError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What a client asks. Members that the operation has no use for are empty.
struct Request {
    Operation operation = Operation::GetString;
    std::wstring name;       // of the value; for List: list the names behind this one
    std::wstring string;     // SetString
    std::uint32_t dword = 0; // SetDWORD
};

struct ListedValue {
    std::wstring name;
    std::uint32_t type; // REG_SZ, REG_DWORD, ...
};

// What the service answers. When status is not 0 there is a text only.
struct Reply {
    Operation operation = Operation::GetString;
    std::uint32_t status = 0;        // a Win32 code
    std::wstring text;               // what went wrong, for people
    std::wstring string;             // GetString
    std::uint32_t dword = 0;         // GetDWORD; IsVE: 0 or 1
    std::vector<ListedValue> values; // List
    bool more = false;               // List: ask again with the last name
};

// Throw ProtocolError when the message would pass maxMessageBytes.
Message encode(const Request& request);
Message encode(const Reply& reply);

// Throw ProtocolError for whatever encode would not have made.
Request decodeRequest(MessageView message);
Reply decodeReply(MessageView message);

} // namespace config::protocol
