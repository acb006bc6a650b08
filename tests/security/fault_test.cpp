// Each call of each operation fails in turn: the error names it, and what is left is a value still.
#include "security/security_descriptor.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/raw_security.h"

#include <gtest/gtest.h>
#include <map>

using RunTime::Acl;
using RunTime::SecurityDescriptor;
using RunTime::Sid;

namespace {

const std::map<std::string, const wchar_t*> texts = {
    {"ConvertStringSidToSidW", L"Unable to convert a string to SID"},
    {"ConvertSidToStringSidW", L"Unable to convert a SID to it's string form"},
    {"CopySid", L"Unable to copy sid"},
    {"LookupAccountSidW", L"Unable to look up the account of a SID"},
    {"CreateWellKnownSid", L"Unable to create a well-known sid (1)"},
    {"OpenThreadToken", L"Unable to open token"},
    {"OpenProcessToken", L"Unable to open token"},
    {"GetTokenInformation", L"Unable to get the user of a token"},
    {"GetAclInformation", L"Unable to get ACL size"},
    {"InitializeAcl", L"Unable to initialize ACL"},
    {"GetAce", L"Unable to get ACL ACE"},
    {"AddAce", L"Unable to add ACE to ACL"},
    {"DeleteAce", L"Unable to delete ACL ACE (0)"},
    {"ConvertStringSecurityDescriptorToSecurityDescriptorW",
     L"Unable to convert a text to a security descriptor"},
    {"GetSecurityDescriptorDacl", L"Unable to find a list in the text"},
    {"InitializeSecurityDescriptor", L"Unable to initialize SECURITY_DESCRIPTOR"},
    {"SetSecurityDescriptorDacl", L"Unable to set SECURITY_DESCRIPTOR DACL"},
    {"SetSecurityDescriptorOwner", L"Unable to set SECURITY_DESCRIPTOR owner"},
    {"SetSecurityDescriptorGroup", L"Unable to set SECURITY_DESCRIPTOR group"},
};

std::wstring textOf(const Sid& sid) {
    return sid ? sid.string() : std::wstring();
}
std::wstring textOf(const Acl& list) {
    EXPECT_TRUE(list.bytes().empty() || RunTime::aclLength(list.bytes()) != 0);
    return list.sddl();
}
std::wstring textOf(const SecurityDescriptor& descriptor) {
    return descriptor.sddl();
}

template <class Value>
struct Operation {
    std::function<void(Value&)> run;
    const wchar_t* left = nullptr; // by a failure; null: what was there before, "*": anything
};

template <class Value>
void sweep(const Value& before, const std::vector<Operation<Value>>& operations) {
    for (const Operation<Value>& operation : operations) {
        bool fired = true;
        for (long n = 1; fired; ++n) {
            Value value(before);
            const FaultOutcome outcome =
                runWithFault(n, ERROR_ACCESS_DENIED, [&] { operation.run(value); });
            fired = outcome.fired;
            SCOPED_TRACE("operation " + std::to_string(&operation - operations.data()) + ", " +
                         outcome.text());
            const std::wstring left = textOf(value);
            if (fired) {
                const std::string call = outcome.function.substr(0, outcome.function.find(','));
                ASSERT_TRUE(texts.contains(call));
                const std::wstring error = systemMessageOf(ERROR_ACCESS_DENIED, texts.at(call));
                EXPECT_TRUE(outcome.error.starts_with(toUtf8(error)));
                const std::wstring wanted = operation.left ? operation.left : textOf(before);
                EXPECT_TRUE(wanted == L"*" || left == wanted) << toUtf8(left);
            }
            operation.run(value); // it is as good as new
        }
    }
}

} // namespace

TEST(SecurityFaultTest, ErrorsNameTheCallAndLeaveValues) {
    const AddAceInPlace addAce;
    const FaultExclusion ofAddAce({"FindFirstFreeAce"});
    const Sid users(L"BU");
    const Acl list = Acl::fromSddl(L"D:(A;;FA;;;BU)(D;;FW;;;BG)(A;;FR;;;BA)");
    const std::vector<Operation<Sid>> onSids = {
        {[&](Sid& sid) { sid.copy(users.get()); }, L""},
        {[](Sid& sid) { sid.load(L"S-1-5-18"); }, L"*"},
        {[&](Sid& sid) { sid = users; }},
        {[](Sid& sid) { sid.string(), sid.accountName(); }},
        {[](Sid& sid) { sid = Sid::wellKnown(WinWorldSid); }},
        {[](Sid& sid) { sid = Sid::current(); }},
    };
    sweep(Sid(L"S-1-5-32-544"), onSids);
    const std::vector<Operation<Acl>> onLists = {
        {[](Acl& acl) { acl.clear(); }},
        {[&](Acl& acl) { acl.expand(list, nullptr, 0); }},
        {[&](Acl& acl) { acl.addDenied(users, 4); }, L"*"}, // may be in another order
        {[&](Acl& acl) { acl.copy(list); }, L"*"},
        {[](Acl& acl) { acl.copy(acl); }, L"*"},
        {[](Acl& acl) { acl.expand(acl, nullptr, 0), acl.add(acl); }, L"*"},
        {[](Acl& acl) { acl = Acl::fromSddl(L"D:(A;;FA;;;BU)"); }},
        {[](Acl& acl) { acl.deleteAce(0); }},
    };
    sweep(Acl::fromSddl(L"D:(D;;FW;;;BG)(A;ID;FA;;;BA)"), onLists);
    const std::vector<Operation<SecurityDescriptor>> onDescriptors = {
        {[&](SecurityDescriptor& one) { one.dacl(list); }},
        {[&](SecurityDescriptor& one) { one.owner(users); }},
        {[&](SecurityDescriptor& one) { one.group(users); }},
        {[](SecurityDescriptor& one) { one = SecurityDescriptor(); }},
    };
    sweep(SecurityDescriptor::fromSddl(L"O:BAG:SYD:P(A;;FA;;;BA)"), onDescriptors);
}

TEST(SecurityFaultTest, WithoutMemoryNothingIsChanged) {
    const AddAceInPlace addAce;
    const Acl before = Acl::fromSddl(L"D:(A;;FA;;;BU)(D;;FW;;;BG)");
    const Acl other = Acl::fromSddl(L"D:(A;;FA;;;BU)(A;;FA;;;BG)(A;;FA;;;BA)(A;;FA;;;SY)");
    const auto fails = [&](std::size_t size, const auto& run) {
        Acl list(before);
        {
            const MallocFault fault(size);
            expectError<vexception>(L"Unable to allocate new ACL", [&] { run(list); });
        }
        EXPECT_EQ(textOf(list), textOf(before));
    };
    fails(Acl::emptySize, [](Acl& list) { list.clear(); });
    fails(other.bytes().size(), [&](Acl& list) { list.copy(other); });
    fails(before.bytes().size(), [&](Acl& list) { list = before; });
    fails(2 * std::size_t{before.calculateSize(other, nullptr, 0)},
          [&](Acl& list) { list.expand(other, nullptr, 0); });
    {
        const MallocFault fault(SECURITY_DESCRIPTOR_MIN_LENGTH);
        expectError<vexception>(L"Unable to allocate new SECURITY_DESCRIPTOR",
                                [] { SecurityDescriptor(); });
    }
    const Sid administrators(L"BA");
    Sid sid(L"SY");
    const MallocFault fault(administrators.bytes().size());
    expectError<vexception>(L"Unable to allocate (16) bytes",
                            [&] { sid.copy(administrators.get()); });
    EXPECT_EQ(sid, Sid());
}
