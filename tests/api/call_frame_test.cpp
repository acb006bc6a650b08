#include "api/call_frame.h"

#include "api/utils.h"
#include "runtime/exception.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "tests/support/expect_error.h"
#include "tests/support/traced.h"

#include <comdef.h>
#include <future>
#include <thread>

namespace {

using zopobsolete::callFrame;
using zopobsolete::CallSite;

constexpr CallSite site{"zopobsolete::zop::Item::get", 68, 91};
const std::string siteLine = "\n   at (zopobsolete::zop::Item::get line 91)";
const std::string start = "start zopobsolete::zop::Item::get 68 []\n";
const std::string finish = "finish zopobsolete::zop::Item::get\n";

// The text of the public exception that ends the call.
template <class PublicException = zopobsolete::Exception, class Payload>
std::string failureOf(Payload&& payload) {
    try {
        callFrame<PublicException>(site, std::forward<Payload>(payload));
    } catch (const PublicException& e) {
        EXPECT_EQ(e.what(), toUtf8(e.message()));
        return e.what();
    }
    return "no failure";
}

// What a failing call leaves on its span, between start and finish.
std::string failedSpan(const std::string& tag, const std::string& value) {
    const std::string name = "zopobsolete::zop::Item::get";
    return start + "error " + name + " []\ntag " + name + " " + tag + " [" + value + "]\n" + finish;
}

void duplicate() {
    _throwError(L"Unable to duplicate handle", ERROR_ACCESS_DENIED,
                {L"", "RunTime::AutoHandle::duplicate", 837});
}

struct Counted {
    explicit Counted(int& counter) : counter_(counter) { ++counter_; }
    ~Counted() { --counter_; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    int& counter_;
};

} // namespace

TEST(CallFrameTest, ResultsOfAnyKindComeBack) {
    EXPECT_EQ(7, callFrame(site, [] { return 7; }));
    const auto text = callFrame(site, [] { return std::make_unique<std::wstring>(L"moved"); });
    EXPECT_EQ(L"moved", *text);
    bool ran = false;
    callFrame(site, [&] { ran = true; });
    EXPECT_TRUE(ran);
    const CallSite inner{"zopobsolete::zop::getInstance", 1, 2};
    EXPECT_EQ(1, callFrame(site, [&] { return callFrame(inner, [] { return 1; }); }));
}

TEST(CallFrameTest, SuccessIsTaggedOnTheSpanWhileTracingIsOn) {
    const Traced traced;
    callFrame(site, [] {});
    EXPECT_EQ(start + "tag zopobsolete::zop::Item::get if_error []\n" + finish, takeTraces());
    RegistryOverride::setDword(L"opentracing_enabled", 0);
    callFrame(site, [] {});
    EXPECT_EQ("", takeTraces());
}

TEST(CallFrameTest, NativeFailureEndsWithALinePerSite) {
    const Traced traced;
    const std::string system = toUtf8(systemTextOf(5));
    const std::string native = system + " (Error code 5) at Unable to duplicate handle"
                                        "\n   at (RunTime::AutoHandle::duplicate line 837)";
    EXPECT_EQ(native + siteLine, failureOf([] { duplicate(); }));
    EXPECT_EQ(failedSpan("vexception", native), takeTraces());
    EXPECT_EQ("plain" + siteLine, failureOf([] { throw vexception(L"plain"); }));
}

TEST(CallFrameTest, StandardExceptionsAreWidened) {
    const Traced traced;
    EXPECT_EQ("caf\xC3\xA9" + siteLine, failureOf([] { throw std::runtime_error("caf\xC3\xA9"); }));
    EXPECT_EQ(failedSpan("std::exception", "caf\xC3\xA9"), takeTraces());
}

TEST(CallFrameTest, ComErrorsSayTheirMessage) {
    const Traced traced;
    const std::string text = toUtf8(systemTextOf(static_cast<DWORD>(E_ACCESSDENIED)));
    EXPECT_EQ(text + siteLine, failureOf([] { throw _com_error(E_ACCESSDENIED); }));
    EXPECT_EQ(failedSpan("_com_error", text), takeTraces());
    EXPECT_NE(siteLine, failureOf([] { throw _com_error(HRESULT(0x80041234)); }))
        << "a code without a text still says something";
}

TEST(CallFrameTest, FaultsAreTranslatedAndDestructorsRun) {
    const Traced traced;
    int alive = 0;
    const std::string text = "C structured exception: 0xc0000005";
    EXPECT_EQ(text + siteLine, failureOf([&] {
                  const Counted counted(alive);
                  volatile int* volatile nowhere = nullptr;
                  *nowhere = 1;
              }));
    EXPECT_EQ(0, alive);
    EXPECT_EQ(failedSpan("cwrpexception", text), takeTraces());
}

TEST(CallFrameTest, AnythingElseIsAnUnexpectedError) {
    const Traced traced;
    EXPECT_EQ("Unexpected error" + siteLine, failureOf([] { throw 42; }));
    EXPECT_EQ(failedSpan("...", "unknown"), takeTraces());
}

TEST(CallFrameTest, NestedCallsAddALineEach) {
    const CallSite inner{"zopobsolete::zop::Item::set", 98, 110};
    EXPECT_EQ("text\n   at (zopobsolete::zop::Item::set line 110)" + siteLine,
              failureOf([&] { callFrame(inner, [] { throw vexception(L"text"); }); }));
}

TEST(CallFrameTest, DatabaseClassesThrowTheirOwnType) {
    struct DatabaseException : zopobsolete::Exception {
        using Exception::Exception;
    };
    EXPECT_EQ("x" + siteLine, failureOf<DatabaseException>([] { throw vexception(L"x"); }));
}

TEST(CallFrameTest, ProviderThatCrashesDoesNotFailTheCall) {
    const Traced traced;
    setTracingProviderFault(TestProviderFault::Crash);
    EXPECT_EQ(7, callFrame(site, [] { return 7; }));
    EXPECT_EQ("x" + siteLine, failureOf([] { throw vexception(L"x"); }));
}

TEST(CallFrameTest, RequestFromAnotherThreadCancelsTheCall) {
    std::promise<DWORD> started;
    std::promise<void> requested;
    auto requestMade = requested.get_future();
    std::string failure;
    std::string next;
    std::thread worker([&] {
        failure = failureOf([&] {
            started.set_value(::GetCurrentThreadId());
            requestMade.wait();
            ThreadCancelation::check();
        });
        next = failureOf([] { ThreadCancelation::check(); });
    });
    ThreadCancelation::request(started.get_future().get());
    requested.set_value();
    worker.join();
    EXPECT_EQ(0u, failure.find("Canceled!\n   at (ThreadCancelation::check line "));
    EXPECT_EQ("no failure", next) << "so a rollback can follow";
}

TEST(CallFrameTest, RequestBeforeTheCallKeepsItsWorkFromBeginning) {
    ThreadCancelation::request(::GetCurrentThreadId());
    bool ran = false;
    EXPECT_EQ(0u, failureOf([&] { ran = true; }).find("Canceled!"));
    EXPECT_FALSE(ran);
}

TEST(CallFrameTest, FailingConstructorLeaksNothing) {
    struct Part {
        Part(int& alive, bool fail) : counted(alive) {
            if (fail) {
                throw vexception(L"part");
            }
        }
        Counted counted;
    };
    struct Public { // as a public class holds its native object
        Public(int& alive, bool fail)
            : first(zopobsolete::makeInFrame<Part>(site, alive, false)),
              second(zopobsolete::makeInFrame<Part>(site, alive, fail)) {}
        std::unique_ptr<Part> first;
        std::unique_ptr<Part> second;
    };
    int alive = 0;
    EXPECT_THROW(Public(alive, true), zopobsolete::Exception);
    EXPECT_EQ(0, alive);
    const Public whole(alive, false);
    EXPECT_EQ(2, alive);
}

TEST(PublicExceptionTest, CopiesShareTheTextAndTheEmptyOneStillSpeaks) {
    const zopobsolete::Exception original(L"\u4e2d");
    const zopobsolete::Exception copy = original;
    EXPECT_EQ(original.what(), copy.what()) << "the very same characters";
    EXPECT_STREQ("\xE4\xB8\xAD", copy.what());
    EXPECT_STREQ("Unexpected error", zopobsolete::Exception().what());
    EXPECT_EQ(L"Unexpected error", zopobsolete::Exception().message());
}

TEST(UtilsTest, UnmanagedStringKeepsEveryUnit) {
    const std::u16string text = {u'a', 0, 0xD800, u'b'};
    EXPECT_EQ((std::wstring{L'a', 0, 0xD800, L'b'}), Utils::toUnmanagedString(text));
}
