#include "config/protocol.h"

#include "runtime/text.h"

#include <cstring>

namespace config::protocol {

namespace {

// Places in the header.
constexpr std::size_t operationAt = 6;
constexpr std::size_t lengthAt = 12; // of the payload

[[noreturn]] void refuse(const std::string& why) {
    throw ProtocolError(ERROR_INVALID_DATA, why);
}

void checkName(bool good) {
    if (!good) {
        refuse("this is not the name of a value");
    }
}

class Writer {
public:
    Writer(Operation operation, std::uint32_t status) {
        number(magic);
        number(version);
        number(static_cast<std::uint16_t>(operation));
        number(status);
        number(std::uint32_t{0});
    }

    template <class Number>
    void number(Number value) {
        for (std::size_t i = 0; i < sizeof value; ++i) {
            message_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
    }

    void string(std::wstring_view text) {
        if (text.size() > maxMessageBytes / sizeof(wchar_t)) {
            refuse("the text is too long for a message");
        }
        if (text.find(L'\0') != text.npos) {
            refuse("the text has a zero character");
        }
        number(static_cast<std::uint32_t>(text.size()));
        const auto bytes = reinterpret_cast<const std::uint8_t*>(text.data());
        message_.insert(message_.end(), bytes, bytes + text.size() * sizeof(wchar_t));
    }

    Message finish() {
        if (message_.size() > maxMessageBytes) {
            refuse("the message is too long");
        }
        const std::size_t length = message_.size() - headerBytes;
        for (std::size_t i = 0; i < sizeof(std::uint32_t); ++i) {
            message_[lengthAt + i] = static_cast<std::uint8_t>(length >> (8 * i));
        }
        return std::move(message_);
    }

private:
    Message message_;
};

class Reader {
public:
    explicit Reader(MessageView message) : rest_(message) {
        if (message.size() > maxMessageBytes) {
            refuse("the message is too long");
        }
        if (number<std::uint32_t>() != magic) {
            refuse("the message does not begin with the protocol's mark");
        }
        const auto theirs = number<std::uint16_t>();
        if (theirs != version) {
            throw ProtocolError(ERROR_REVISION_MISMATCH,
                                "version " + std::to_string(theirs) +
                                    " of the protocol is not known here, version " +
                                    std::to_string(version) + " is");
        }
        const auto code = number<std::uint16_t>();
        if (code < static_cast<std::uint16_t>(Operation::GetString) ||
            code > static_cast<std::uint16_t>(Operation::List)) {
            throw ProtocolError(ERROR_NOT_SUPPORTED,
                                "operation " + std::to_string(code) + " is not known here");
        }
        operation_ = static_cast<Operation>(code);
        status_ = number<std::uint32_t>();
        if (number<std::uint32_t>() != rest_.size()) {
            refuse("the message is not as long as its header says");
        }
    }

    Operation operation() const noexcept { return operation_; }
    std::uint32_t status() const noexcept { return status_; }

    template <class Number>
    Number number() {
        const MessageView bytes = take(sizeof(Number));
        Number value = 0;
        for (std::size_t i = 0; i < sizeof value; ++i) {
            value = static_cast<Number>(value | static_cast<Number>(bytes[i]) << (8 * i));
        }
        return value;
    }

    bool yesOrNo() {
        const auto value = number<std::uint32_t>();
        if (value > 1) {
            refuse("neither yes nor no");
        }
        return value == 1;
    }

    std::wstring string() {
        const auto units = number<std::uint32_t>();
        if (units > rest_.size() / sizeof(wchar_t)) {
            refuse("a text is longer than the message");
        }
        const MessageView bytes = take(units * sizeof(wchar_t));
        std::wstring text(units, L'\0');
        std::memcpy(text.data(), bytes.data(), bytes.size());
        if (text.find(L'\0') != text.npos) {
            RunTime::wipe(text);
            refuse("a text has a zero character");
        }
        return text;
    }

    void end() const {
        if (!rest_.empty()) {
            refuse("the message goes on behind its end");
        }
    }

private:
    MessageView take(std::size_t count) {
        if (count > rest_.size()) {
            refuse("the message is cut off");
        }
        const MessageView taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }

    MessageView rest_;
    Operation operation_ = Operation::GetString;
    std::uint32_t status_ = 0;
};

// A list may begin behind no name, so at its beginning.
bool isNameFor(Operation operation, std::wstring_view name) noexcept {
    return isValueName(name) || (name.empty() && operation == Operation::List);
}

} // namespace

bool isValueName(std::wstring_view name) noexcept {
    return !name.empty() && name.size() <= maxNameLength && name.find(L'\0') == name.npos;
}

int compareNames(std::wstring_view first, std::wstring_view second) noexcept {
    return ::CompareStringOrdinal(first.data(), static_cast<int>(first.size()), second.data(),
                                  static_cast<int>(second.size()), TRUE) -
           CSTR_EQUAL;
}

Message encode(const Request& request) {
    Writer writer(request.operation, 0);
    if (request.operation != Operation::IsVE) {
        checkName(isNameFor(request.operation, request.name));
        writer.string(request.name);
    }
    if (request.operation == Operation::SetString) {
        writer.string(request.string);
    } else if (request.operation == Operation::SetDWORD) {
        writer.number(request.dword);
    }
    return writer.finish();
}

Request decodeRequest(MessageView message) {
    Reader reader(message);
    if (reader.status() != 0) {
        refuse("a request has no status");
    }
    Request request;
    request.operation = reader.operation();
    if (request.operation != Operation::IsVE) {
        request.name = reader.string();
        checkName(isNameFor(request.operation, request.name));
    }
    if (request.operation == Operation::SetString) {
        request.string = reader.string();
    } else if (request.operation == Operation::SetDWORD) {
        request.dword = reader.number<std::uint32_t>();
    }
    reader.end();
    return request;
}

Message encode(const Reply& reply) {
    Writer writer(reply.operation, reply.status);
    if (reply.status != 0) {
        writer.string(reply.text);
        return writer.finish();
    }
    switch (reply.operation) {
    case Operation::GetString:
        writer.string(reply.string);
        break;
    case Operation::GetDWORD:
        writer.number(reply.dword);
        break;
    case Operation::IsVE:
        writer.number(std::uint32_t{reply.dword != 0});
        break;
    case Operation::List:
        writer.number(std::uint32_t{reply.more});
        writer.number(static_cast<std::uint32_t>(reply.values.size()));
        for (const ListedValue& value : reply.values) {
            checkName(isValueName(value.name));
            writer.string(value.name);
            writer.number(value.type);
        }
        break;
    case Operation::SetString:
    case Operation::SetDWORD:
        break;
    }
    return writer.finish();
}

Reply decodeReply(MessageView message) {
    Reader reader(message);
    Reply reply;
    reply.operation = reader.operation();
    reply.status = reader.status();
    if (reply.status != 0) {
        reply.text = reader.string();
        reader.end();
        return reply;
    }
    switch (reply.operation) {
    case Operation::GetString:
        reply.string = reader.string();
        break;
    case Operation::GetDWORD:
        reply.dword = reader.number<std::uint32_t>();
        break;
    case Operation::IsVE:
        reply.dword = reader.yesOrNo() ? 1 : 0;
        break;
    case Operation::List:
        reply.more = reader.yesOrNo();
        // The list grows with the bytes that are there, never with the count that is claimed.
        for (auto left = reader.number<std::uint32_t>(); left > 0; --left) {
            std::wstring name = reader.string();
            checkName(isValueName(name));
            if (!reply.values.empty() && compareNames(reply.values.back().name, name) >= 0) {
                refuse("the names of a list are not in order");
            }
            reply.values.push_back({std::move(name), reader.number<std::uint32_t>()});
        }
        if (reply.more && reply.values.empty()) {
            refuse("an empty list that goes on");
        }
        break;
    case Operation::SetString:
    case Operation::SetDWORD:
        break;
    }
    reader.end();
    return reply;
}

std::optional<Message> encodeRefusal(MessageView request, const ProtocolError& error) {
    const auto at = [&](std::size_t place) { return std::uint32_t{request[place]}; };
    if (request.size() < headerBytes || (at(0) | at(1) << 8 | at(2) << 16 | at(3) << 24) != magic) {
        return std::nullopt;
    }
    Reply reply;
    reply.operation = static_cast<Operation>(at(operationAt) | at(operationAt + 1) << 8);
    reply.status = error.status();
    reply.text = toWide(error.what());
    return encode(reply);
}

} // namespace config::protocol
