#include "api/call_frame.h"

#include "api/utils.h"
#include "runtime/exception.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "tests/support/expect_error.h"
#include "tests/support/traced.h"

#include <comdef.h>

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

TEST(CallFrameTest, EveryKindOfFailureIsWordedTaggedAndEndsWithTheSite) {
    const Traced traced;
    static int alive;
    alive = 0;
    struct Case {
        void (*fail)();
        const char* tag;
        std::string text;
        std::string tagged;
    };
    const std::string native = toUtf8(systemTextOf(5)) +
                               " (Error code 5) at Unable to duplicate handle"
                               "\n   at (RunTime::AutoHandle::duplicate line 837)";
    const std::string com = toUtf8(systemTextOf(static_cast<DWORD>(E_ACCESSDENIED)));
    const std::string fault = "C structured exception: 0xc0000005";
    const auto faulty = [] {
        const Counted counted(alive);
        volatile int* volatile nowhere = nullptr;
        *nowhere = 1;
    };
    const Case kinds[] = {
        {duplicate, "vexception", native, native},
        {[] { throw std::runtime_error("caf\xC3\xA9"); }, "std::exception", "caf\xC3\xA9",
         "caf\xC3\xA9"},
        {[] { throw _com_error(E_ACCESSDENIED); }, "_com_error", com, com},
        {faulty, "cwrpexception", fault, fault},
        {[] { throw 42; }, "...", "Unexpected error", "unknown"},
    };
    for (const Case& kind : kinds) {
        EXPECT_EQ(kind.text + siteLine, failureOf(kind.fail));
        EXPECT_EQ(failedSpan(kind.tag, kind.tagged), takeTraces());
    }
    EXPECT_EQ(0, alive) << "a destructor did not run";
    EXPECT_NE(siteLine, failureOf([] { throw _com_error(HRESULT(0x80041234)); }))
        << "a code without a text still says something";
    const CallSite inner{"zopobsolete::zop::Item::set", 98, 110};
    EXPECT_EQ("text\n   at (zopobsolete::zop::Item::set line 110)" + siteLine,
              failureOf([&] { callFrame(inner, [] { throw vexception(L"text"); }); }));
    struct DatabaseException : zopobsolete::Exception {
        using Exception::Exception;
    };
    EXPECT_EQ("x" + siteLine, failureOf<DatabaseException>([] { throw vexception(L"x"); }));
}

TEST(CallFrameTest, ARequestCancelsTheCallOnceEvenBeforeItsWorkBegins) {
    const DWORD self = ::GetCurrentThreadId();
    const std::string within = failureOf([&] {
        ThreadCancelation::request(self);
        ThreadCancelation::check();
    });
    EXPECT_TRUE(within.starts_with("Canceled!\n   at (ThreadCancelation::check line ")) << within;
    EXPECT_EQ("no failure", failureOf([] { ThreadCancelation::check(); }))
        << "so a rollback can follow";
    ThreadCancelation::request(self);
    bool ran = false;
    EXPECT_TRUE(failureOf([&] { ran = true; }).starts_with("Canceled!"));
    EXPECT_FALSE(ran);
}

TEST(CallFrameTest, SuccessIsTaggedOnTheSpanWhileTracingIsOn) {
    const Traced traced;
    callFrame(site, [] {});
    EXPECT_EQ(start + "tag zopobsolete::zop::Item::get if_error []\n" + finish, takeTraces());
    RegistryOverride::setDword(L"opentracing_enabled", 0);
    callFrame(site, [] {});
    EXPECT_EQ("", takeTraces());
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
