#include "config/protocol.h"

#include "runtime/wipe.h"
#include "tests/support/mutator.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace config::protocol;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(const Message& message) {
    return {message.begin(), message.end()};
}

template <class Call>
std::uint32_t refusalOf(Call call) {
    try {
        call();
        return 0;
    } catch (const ProtocolError& e) {
        return e.status();
    }
}

const std::vector<Request>& requests() {
    static const std::vector<Request> all = {
        {Operation::GetString, L"FTPPassword"},
        {Operation::SetString, L"PRODUCT_ROOT_D", L"C:\\Program Files\\Panel \x20AC"},
        {Operation::SetString, L"x", L""},
        {Operation::GetDWORD, L"Debug"},
        {Operation::SetDWORD, L"MySQLConnectionTimeout", {}, 0xFEDCBA98},
        {Operation::IsVE},
        {Operation::List},
        {Operation::List, std::wstring(maxNameLength, L'n')},
    };
    return all;
}

const std::vector<Reply>& replies() {
    static const std::vector<Reply> all = {
        {.string = L"C:\\panel"},
        {.operation = Operation::SetString},
        {.operation = Operation::GetDWORD, .dword = 1},
        {.operation = Operation::SetDWORD},
        {.operation = Operation::IsVE, .dword = 1},
        {.operation = Operation::List},
        {.operation = Operation::List,
         .values = {{L"Alpha", REG_SZ}, {L"beta", REG_DWORD}, {L"B\x00C4", 0xFFFFFFFF}},
         .more = true},
        {.operation = Operation::GetDWORD, .status = ERROR_FILE_NOT_FOUND, .text = L"not there"},
        {.operation = Operation::List, .status = ERROR_ACCESS_DENIED},
    };
    return all;
}

// Half of the inputs get a header that fits their length: the rest is refused for that mostly.
void repair(std::span<std::uint8_t> bytes) {
    if (bytes.size() >= headerBytes && bytes.back() % 2 == 0) {
        const auto length = static_cast<std::uint32_t>(bytes.size() - headerBytes);
        std::memcpy(bytes.data() + 12, &length, sizeof length);
    }
}

template <class Decode>
void fuzzDecoder(const FuzzCorpus& corpus, Decode decode) {
    std::uint64_t accepted = 0;
    GuardedBuffer buffer(maxMessageBytes);
    fuzz(corpus, [&](std::span<const std::uint8_t> input) {
        const auto bytes = buffer.hold(input);
        repair(bytes);
        std::optional<decltype(decode(bytes))> read;
        try {
            read = decode(bytes);
        } catch (const ProtocolError&) {
            return;
        }
        // There is one way to write a message: what is accepted is what encode makes.
        EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), bytesOf(encode(*read)));
        ++accepted;
    });
    EXPECT_GT(accepted, 0u) << "the inputs are too damaged to test much";
}

} // namespace

// The worked example of docs/config-protocol.md.
TEST(ProtocolTest, MessagesAreTheBytesOfTheDocumentation) {
    const Bytes request = {0x5a, 0x4f, 0x50, 0x43, 0x01, 0x00, 0x03, 0x00, 0x00, 0x00,
                           0x00, 0x00, 0x0e, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,
                           0x44, 0x00, 0x65, 0x00, 0x62, 0x00, 0x75, 0x00, 0x67, 0x00};
    EXPECT_EQ(request, bytesOf(encode(Request{Operation::GetDWORD, L"Debug"})));
    const Bytes reply = {0x5a, 0x4f, 0x50, 0x43, 0x01, 0x00, 0x03, 0x00, 0x00, 0x00,
                         0x00, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00};
    EXPECT_EQ(reply, bytesOf(encode(Reply{.operation = Operation::GetDWORD, .dword = 1})));
}

TEST(ProtocolTest, WhatIsWrittenIsReadAndNoPartOfItIs) {
    for (const Request& request : requests()) {
        const Bytes bytes = bytesOf(encode(request));
        const Request read = decodeRequest(bytes);
        EXPECT_TRUE(read.operation == request.operation && read.name == request.name &&
                    read.string == request.string && read.dword == request.dword);
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            const MessageView part(bytes.data(), length);
            EXPECT_EQ(DWORD{ERROR_INVALID_DATA}, refusalOf([&] { decodeRequest(part); }));
        }
    }
    for (const Reply& reply : replies()) {
        const Reply read = decodeReply(encode(reply));
        EXPECT_TRUE(read.operation == reply.operation && read.status == reply.status &&
                    read.text == reply.text && read.string == reply.string &&
                    read.dword == reply.dword && read.more == reply.more);
        ASSERT_EQ(reply.values.size(), read.values.size());
        for (std::size_t i = 0; i < reply.values.size(); ++i) {
            EXPECT_EQ(reply.values[i].name, read.values[i].name);
            EXPECT_EQ(reply.values[i].type, read.values[i].type);
        }
    }
}

TEST(ProtocolTest, WhatTheOtherEndWouldRefuseIsNotWritten) {
    const std::wstring zero(L"a\0b", 3);
    const std::wstring most((maxMessageBytes - headerBytes - 4) / 2, L'x');
    EXPECT_EQ(maxMessageBytes, encode(Reply{.string = most}).size());
    const Reply bad[] = {
        {.string = most + L'x'},
        {.string = std::wstring(maxMessageBytes, L'x')},
        {.string = zero},
        {.status = 5, .text = zero},
        {.operation = Operation::List, .values = {{L"", REG_SZ}}},
        {.operation = Operation::List, .values = {{zero, REG_SZ}}},
        {.operation = Operation::List, .values = {{std::wstring(maxNameLength + 1, L'n'), 1}}},
    };
    for (const Reply& reply : bad) {
        EXPECT_EQ(DWORD{ERROR_INVALID_DATA}, refusalOf([&] { encode(reply); }));
    }
    for (const std::wstring& name : {std::wstring(), zero, std::wstring(maxNameLength + 1, L'n')}) {
        EXPECT_EQ(DWORD{ERROR_INVALID_DATA}, refusalOf([&] {
                      encode(Request{Operation::GetString, name});
                  }));
    }
    for (const auto& names : {std::pair{L"b", L"a"}, std::pair{L"same", L"SAME"}}) {
        const Reply unordered{.operation = Operation::List,
                              .values = {{names.first, 1}, {names.second, 1}}};
        EXPECT_EQ(DWORD{ERROR_INVALID_DATA}, refusalOf([&] { decodeReply(encode(unordered)); }));
    }
}

// Both sides of a version, or an operation, that one of them does not know yet.
TEST(ProtocolTest, ARefusalTellsTheVersionAndTheOperation) {
    const Bytes known = bytesOf(encode(Request{Operation::GetDWORD, L"Debug"}));
    const auto answerTo = [](const Bytes& request) -> std::optional<Message> {
        try {
            decodeRequest(request);
        } catch (const ProtocolError& e) {
            return encodeRefusal(request, e);
        }
        return Message{};
    };
    Bytes newer = known;
    newer[4] = 2;
    const Reply reply = decodeReply(*answerTo(newer));
    EXPECT_EQ(DWORD{ERROR_REVISION_MISMATCH}, reply.status);
    EXPECT_EQ(L"version 2 of the protocol is not known here, version 1 is", reply.text);
    EXPECT_EQ(Operation::GetDWORD, reply.operation);
    Bytes unknown = known;
    unknown[6] = 7;
    const Message refusal = *answerTo(unknown);
    EXPECT_EQ(7, refusal[6]);
    EXPECT_EQ(ERROR_NOT_SUPPORTED, refusal[8]);
    Bytes stranger = known;
    stranger[0] = 'x';
    EXPECT_FALSE(answerTo(stranger));
    EXPECT_FALSE(answerTo({known.begin(), known.begin() + headerBytes - 1}));
}

TEST(ProtocolTest, DamagedRequestsAreRefusedOrMeanWhatTheySay) {
    FuzzCorpus corpus;
    for (const Request& request : requests()) {
        corpus.push_back(bytesOf(encode(request)));
    }
    fuzzDecoder(corpus, decodeRequest);
}

TEST(ProtocolTest, DamagedRepliesAreRefusedOrMeanWhatTheySay) {
    FuzzCorpus corpus;
    for (const Reply& reply : replies()) {
        corpus.push_back(bytesOf(encode(reply)));
    }
    fuzzDecoder(corpus, decodeReply);
}

// Of a short text, which lies in the object, and of a long one, what it held earlier included.
TEST(ProtocolTest, WipedStringsHoldNothing) {
    for (const std::size_t length : {std::size_t{7}, std::size_t{300}}) {
        std::wstring text(length, L's');
        text.resize(1);
        RunTime::wipe(text);
        EXPECT_TRUE(text.empty());
        EXPECT_GE(text.capacity(), length);
        for (std::size_t i = 0; i < length; ++i) {
            EXPECT_EQ(L'\0', text.data()[i]);
        }
    }
}
