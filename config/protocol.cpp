#include "config/protocol.h"

#include <cstring>

namespace config::protocol {

namespace {

constexpr std::size_t lengthAt = 12; // of the payload's length in the header

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

    void string(const std::wstring& text) {
        if (text.size() > (maxMessageBytes - message_.size()) / sizeof(wchar_t)) {
            throw ProtocolError("the text is too long for a message");
        }
        number(static_cast<std::uint32_t>(text.size()));
        for (const wchar_t unit : text) {
            number(static_cast<std::uint16_t>(unit));
        }
    }

    Message finish() {
        if (message_.size() > maxMessageBytes) {
            throw ProtocolError("the message is too long");
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
            throw ProtocolError("the message is too long");
        }
        if (number<std::uint32_t>() != magic) {
            throw ProtocolError("the message does not begin with the protocol's mark");
        }
        const auto theirs = number<std::uint16_t>();
        if (theirs != version) {
            throw ProtocolError("version " + std::to_string(theirs) +
                                " of the protocol is not known here");
        }
        const auto code = number<std::uint16_t>();
        if (code < static_cast<std::uint16_t>(Operation::GetString) ||
            code > static_cast<std::uint16_t>(Operation::List)) {
            throw ProtocolError("operation " + std::to_string(code) + " is not known here");
        }
        operation_ = static_cast<Operation>(code);
        status_ = number<std::uint32_t>();
        if (number<std::uint32_t>() != rest_.size()) {
            throw ProtocolError("the message is not as long as its header says");
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

    std::wstring string() {
        const auto units = number<std::uint32_t>();
        if (units > rest_.size() / sizeof(wchar_t)) {
            throw ProtocolError("a text is longer than the message");
        }
        const MessageView bytes = take(units * sizeof(wchar_t));
        std::wstring text(units, L'\0');
        std::memcpy(text.data(), bytes.data(), bytes.size());
        return text;
    }

    void end() const {
        if (!rest_.empty()) {
            throw ProtocolError("the message goes on behind its end");
        }
    }

private:
    MessageView take(std::size_t count) {
        if (count > rest_.size()) {
            throw ProtocolError("the message is cut off");
        }
        const MessageView taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }

    MessageView rest_;
    Operation operation_ = Operation::GetString;
    std::uint32_t status_ = 0;
};

} // namespace

Message encode(const Request& request) {
    Writer writer(request.operation, 0);
    if (request.operation != Operation::IsVE) {
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
        throw ProtocolError("a request has no status");
    }
    Request request;
    request.operation = reader.operation();
    if (request.operation != Operation::IsVE) {
        request.name = reader.string();
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
    case Operation::IsVE:
        writer.number(reply.dword);
        break;
    case Operation::List:
        writer.number(std::uint32_t{reply.more});
        writer.number(static_cast<std::uint32_t>(reply.values.size()));
        for (const ListedValue& value : reply.values) {
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
        reply.dword = reader.number<std::uint32_t>();
        if (reply.dword > 1) {
            throw ProtocolError("neither yes nor no");
        }
        break;
    case Operation::List: {
        const auto more = reader.number<std::uint32_t>();
        if (more > 1) {
            throw ProtocolError("neither yes nor no");
        }
        reply.more = more == 1;
        // The list grows with the bytes that are there, never with the count that is claimed.
        for (auto left = reader.number<std::uint32_t>(); left > 0; --left) {
            std::wstring name = reader.string();
            reply.values.push_back({std::move(name), reader.number<std::uint32_t>()});
        }
        if (reply.more && reply.values.empty()) {
            throw ProtocolError("an empty list that goes on");
        }
        break;
    }
    case Operation::SetString:
    case Operation::SetDWORD:
        break;
    }
    reader.end();
    return reply;
}

} // namespace config::protocol
