#include "tests/security/hosting/hosting_fixture.h"

#include "runtime/text.h"
#include "security/hosting/undo_log.h"
#include "tests/support/mutator.h"
#include "tests/support/unix_call.h"

#include <cstring>

namespace HostingSecurity {

namespace {

constexpr wchar_t damagedList[] = L"O:BAG:SYD:AI(A;;FA;;;WD)";

using Bytes = std::vector<std::uint8_t>;

class MemoryBytes : public IUndoBytes {
public:
    explicit MemoryBytes(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}
    std::uint64_t size() override { return bytes_.size(); }
    void read(std::uint64_t offset, std::span<unsigned char> to) override {
        ASSERT_LE(offset, bytes_.size());
        ASSERT_LE(to.size(), bytes_.size() - offset);
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), to.size(), to.begin());
    }

private:
    std::span<const std::uint8_t> bytes_;
};

class UndoTest : public HostingFixture {
protected:
    // Repairs damaged items, and returns what the undo file holds.
    std::string repaired(std::initializer_list<const wchar_t*> names) {
        for (const wchar_t* name : names) {
            ntfs.setSecurity(place.writeFile(std::wstring(L"vhosts\\d1\\") + name), damagedList);
        }
        const auto subject = manager();
        Recorder recorder;
        subject->commit(recorder, CommitMode::Repair, true, false);
        file = subject->getUndoFile();
        return place.readFile(file.substr(place.nice().size() + 1));
    }
    std::wstring file;
};

// Puts sizes and checksums right again behind a mutation, as far as records can be told apart, so
// that what is inside of them is read.
void reseal(Bytes& bytes) {
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at + 20 <= bytes.size();) {
        DWORD size = 0;
        std::memcpy(&size, &bytes[at], sizeof size);
        if (size < 20 || size > bytes.size() - at) {
            return;
        }
        sum ^= 0xCBF29CE484222325;
        for (std::size_t i = at; i < at + size - 12; ++i) {
            sum = (sum ^ bytes[i]) * 0x100000001B3;
        }
        std::memcpy(&bytes[at + size - 12], &sum, sizeof sum);
        std::memcpy(&bytes[at + size - 4], &size, sizeof size);
        at += size;
    }
}

} // namespace

TEST_F(UndoTest, OnlyTheItemsOfThenAreTouched) {
    repaired({L"same", L"gone", L"other", L"dir\\behind", L"linked", L"locked"});
    std::map<std::wstring, std::wstring> right;
    for (const wchar_t* name : {L"other", L"linked", L"same"}) {
        right[name] = ntfs.security(at(name));
    }
    ASSERT_TRUE(::DeleteFileW(at(L"gone").c_str()));
    ASSERT_TRUE(::MoveFileExW(at(L"other").c_str(), at(L"moved").c_str(), 0));
    place.writeFile(L"vhosts\\d1\\other");
    ntfs.setSecurity(at(L"other"), right[L"other"]);
    ASSERT_TRUE(::CreateHardLinkW((place / L"name").c_str(), at(L"linked").c_str(), nullptr));
    ASSERT_TRUE(ntfs.swapForLink(at(L"dir"), unixPath(at(L"dir")) + ".aside"));
    Recorder recorder;
    const UndoCounts counts = undo(file, recorder);
    EXPECT_EQ(ntfs.security(at(L"same")), damagedList);
    EXPECT_EQ(ntfs.security(at(L"locked")), damagedList);
    EXPECT_EQ(ntfs.security(at(L"other")), right[L"other"]);
    EXPECT_EQ(ntfs.security(at(L"moved")), right[L"other"]);
    EXPECT_EQ(ntfs.security(at(L"linked")), right[L"linked"]);
    EXPECT_NE(ntfs.security(at(L"dir.aside\\behind")), damagedList);
    for (const wchar_t* name : {L"gone", L"other", L"linked", L"dir\\behind"}) {
        EXPECT_TRUE(recorder.errors.contains(nice(at(name)))) << toUtf8(name);
    }
    EXPECT_EQ(counts.passedOver, recorder.errors.size());
    EXPECT_EQ(counts.restored, recorder.items.size());
}

TEST_F(UndoTest, TheFileIsForAdministratorsAndSystemAlone) {
    repaired({L"page"});
    const std::wstring restricted = L"D:P(A;;FA;;;SY)(A;;FA;;;BA)";
    EXPECT_TRUE(ntfs.security(L"\\\\?\\" + file).find(restricted) != std::wstring::npos)
        << toUtf8(ntfs.security(L"\\\\?\\" + file));
}

TEST_F(UndoTest, DamagedTruncatedAndForeignFilesChangeNothing) {
    const std::string whole = repaired({L"a", L"wwwroot\\b"});
    const std::string before = ntfs.fingerprint(root);
    const auto refused = [&](const std::string& bytes) {
        const std::wstring path = place.writeFile(L"try.undo", bytes);
        Recorder recorder;
        EXPECT_THROW(undo(path, recorder), UndoFileException);
        EXPECT_EQ(recorder.items.size(), 0u);
    };
    refused("");
    refused("<xml/>");
    refused(whole + "x");
    refused(whole + whole);
    for (std::size_t length = 1; length < whole.size(); length += 7) {
        refused(whole.substr(0, length));
        std::string flipped = whole;
        flipped[length] = static_cast<char>(flipped[length] ^ 0x10);
        refused(flipped);
    }
    EXPECT_EQ(ntfs.fingerprint(root), before);
    EXPECT_THROW(
        {
            Recorder recorder;
            undo(root, recorder);
        },
        UndoFileException);
    // The machine went down: what was written whole counts, where that is asked for.
    const std::wstring cut = place.writeFile(L"cut.undo", whole.substr(0, whole.size() - 30));
    Recorder recorder;
    EXPECT_THROW(undo(cut, recorder), UndoFileException);
    EXPECT_GT(undo(cut, recorder, true).restored, 0u);
    EXPECT_EQ(ntfs.security(at(L"a")), damagedList);
}

TEST_F(UndoTest, AFileThatOthersOwnOrMayChangeIsRefused) {
    repaired({L"a"});
    const std::string before = ntfs.fingerprint(root);
    for (const wchar_t* foreign :
         {L"O:S-1-5-21-1-2-3-1001G:SYD:P(A;;FA;;;SY)(A;;FA;;;BA)", L"O:BAG:SYD:(A;;0x4;;;BU)",
          L"O:BAG:SYD:(A;;FA;;;BA)(A;;WD;;;S-1-5-21-1-2-3-1001)"}) {
        ntfs.setSecurity(file, foreign);
        Recorder recorder;
        EXPECT_THROW(undo(file, recorder), UndoFileException) << toUtf8(foreign);
    }
    EXPECT_EQ(ntfs.fingerprint(root), before);
    ntfs.setSecurity(file, L"O:SYG:SYD:(A;;FA;;;BA)(A;;FR;;;BU)");
    Recorder recorder;
    EXPECT_GT(undo(file, recorder).restored, 0u);
}

TEST_F(UndoTest, OneRepairOrUndoOfAHostingAtATime) {
    repaired({L"a"});
    ntfs.setSecurity(place.writeFile(L"vhosts\\d1\\b"), damagedList);
    const auto subject = manager();
    struct Meddler : Recorder {
        std::function<void()> meddle;
        void onItem(const std::wstring& path) override {
            Recorder::onItem(path);
            if (const auto once = std::exchange(meddle, nullptr)) {
                once();
            }
        }
    } meddler;
    meddler.meddle = [&] {
        Recorder recorder;
        EXPECT_THROW(subject->commit(recorder, CommitMode::Repair, true, false), vexception);
        EXPECT_EQ(subject->getReplacedCount(), 0U);
        EXPECT_THROW(undo(file, recorder), vexception);
    };
    EXPECT_GT(undo(file, meddler).restored, 0U);
    Recorder recorder;
    subject->commit(recorder, CommitMode::Repair, true, false);
    EXPECT_GT(subject->getReplacedCount(), 0U);
    EXPECT_GT(undo(subject->getUndoFile(), recorder).restored, 0U);
}

// The system takes lists with entries whose inside it does not look at.
TEST_F(UndoTest, AnItemWithAnUnheardOfListDoesNotSpoilTheFile) {
    RunTime::DescriptorBytes odd(20 + sizeof(ACL) + 8);
    SECURITY_DESCRIPTOR_RELATIVE header = {};
    header.Revision = SECURITY_DESCRIPTOR_REVISION;
    header.Control = SE_SELF_RELATIVE | SE_DACL_PRESENT;
    header.Dacl = sizeof(header);
    const ACL list = {ACL_REVISION, 0, sizeof(ACL) + 8, 1, 0};
    const ACE_HEADER entry = {ACCESS_ALLOWED_CALLBACK_ACE_TYPE, 0, 8};
    std::memcpy(odd.data(), &header, sizeof(header));
    std::memcpy(&odd[sizeof(header)], &list, sizeof(list));
    std::memcpy(&odd[sizeof(header) + sizeof(list)], &entry, sizeof(entry));
    {
        UndoLog log({root, {}}, L"d1", 2 * odd.size());
        file = log.path();
        log.add({L"page", {}, odd});
        log.sync();
        EXPECT_THROW(log.add({L"page", {}, odd}), vosexception) << "full";
    }
    const std::string whole = place.readFile(file.substr(place.path().size() + 1));
    const Bytes bytes(whole.begin(), whole.end());
    MemoryBytes source(bytes);
    UndoReader reader(source, false);
    UndoItem item;
    ASSERT_TRUE(reader.previous(item));
    EXPECT_EQ(item.descriptor, odd);
}

TEST_F(UndoTest, NoBytesAreReadPastTheirEndOrTakenForMoreThanTheyAre) {
    const std::string whole = repaired({L"a", L"wwwroot\\b", L"wwwroot\\c"});
    const FuzzCorpus corpus = {{whole.begin(), whole.end()}};
    fuzz(
        corpus,
        [](std::span<const std::uint8_t> input) {
            Bytes bytes(input.begin(), input.end());
            if (bytes.size() % 4 != 0) { // some as they are
                reseal(bytes);
            }
            MemoryBytes source(bytes);
            try {
                UndoReader reader(source, bytes.size() % 2 != 0);
                UndoItem item;
                while (reader.previous(item)) {
                    ASSERT_EQ(item.path.find(L".."), std::wstring::npos);
                    ASSERT_TRUE(
                        RunTime::isWholeDescriptor(item.descriptor.data(), item.descriptor.size()));
                }
            } catch (const UndoFileException&) {
                return; // it has been told from a whole one
            }
        },
        10);
}

} // namespace HostingSecurity
