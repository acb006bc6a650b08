#include "relocation/copy_outlook.h"

#include "relocation/name_collisions.h"
#include "runtime/format_string.h"

#include <utility>

namespace {

std::wstring megabytes(std::int64_t bytes) {
    return formatString(L"%.1f MB", static_cast<double>(bytes) / (1024 * 1024));
}

} // namespace

CopyOutlook::CopyOutlook(MovePreflight::Result& result, const MovePreflight::Options& options,
                         const std::wstring& source, const std::wstring& target,
                         const RunTime::VolumeInformation& sourceVolume,
                         const RunTime::VolumeInformation& targetVolume)
    : MoveFindings(result), result_(result), options_(options), source_(source), target_(target),
      sourceVolume_(sourceVolume), targetVolume_(targetVolume) {}

void CopyOutlook::check() {
    checkStreams();
    if (result_.willCopy) {
        checkSpace();
        checkLosses();
        checkCollisions();
    }
    checkPathLengths();
    checkLinks();
}

void CopyOutlook::checkStreams() {
    const std::pair<StreamType, const wchar_t*> kinds[] = {
        {StreamType::EAData, L"extended attributes"},
        {StreamType::SecurityData, L"permissions"},
        {StreamType::AlternateData, L"named streams"},
        {StreamType::ReparseData, L"links"},
    };
    if (!result_.willCopy || options_.streams == StreamType::All ||
        options_.streams == StreamType::None) {
        return;
    }
    if (!has(options_.streams, StreamType::Data)) {
        refuse("no-data",
               L"The list of --streams leaves out \"data\": every file would arrive empty, "
               L"and the old ones be deleted.",
               L"Add \"data\" to the list.");
    }
    for (const auto& [kind, name] : kinds) {
        if (!has(options_.streams, kind)) {
            warn("streams-left-out",
                 std::wstring(L"As --streams says, ") + name + L" are not carried over.");
        }
    }
}

void CopyOutlook::checkSpace() {
    const std::int64_t missing = result_.bytesNeeded - result_.bytesFree;
    if (missing > 0) {
        return refuse("no-space",
                      L"The move needs " + megabytes(result_.bytesNeeded) + L" on " +
                          quoted(targetVolume_.root) + L", where " + megabytes(result_.bytesFree) +
                          L" are free for you.",
                      L"Free " + megabytes(missing) + L" there, or choose another drive.");
    }
    const auto total = static_cast<std::int64_t>(targetVolume_.totalBytes);
    if (result_.bytesFree - result_.bytesNeeded < total / 20) {
        warn("little-space",
             L"After the move less than 5 % of " + quoted(targetVolume_.root) + L" will be free.");
    }
}

bool CopyOutlook::losesFeature(DWORD flag) const {
    return (sourceVolume_.flags & flag) != 0 && (targetVolume_.flags & flag) == 0;
}

// What the tree holds and the source's file system keeps, but the target's does not.
void CopyOutlook::checkLosses() {
    const TreeContents& tree = result_.contents;
    const auto lose = [&](DWORD feature, const TreeContents::Special& special,
                          const wchar_t* what) {
        if (losesFeature(feature) && special.count != 0) {
            warn("lost-on-target", number(special.count) + L" " + what + L" " +
                                       exampleText(special) + L": " + targetVolume_.fileSystem +
                                       L" on " + quoted(targetVolume_.root) +
                                       L" has no such thing.");
        }
    };
    lose(FILE_NAMED_STREAMS, tree.namedStreams, L"items lose their named streams");
    lose(FILE_FILE_COMPRESSION, tree.compressed, L"compressed items will be stored plainly");
    lose(FILE_SUPPORTS_SPARSE_FILES, tree.sparse, L"sparse files will take their whole size");
    lose(FILE_SUPPORTS_HARD_LINKS, tree.hardLinks, L"names of shared files become separate files");
    result_.losesStreams = losesFeature(FILE_NAMED_STREAMS);
    result_.lostAttributes =
        (losesFeature(FILE_FILE_COMPRESSION) ? FILE_ATTRIBUTE_COMPRESSED : 0) |
        (losesFeature(FILE_SUPPORTS_SPARSE_FILES) ? FILE_ATTRIBUTE_SPARSE_FILE : 0);
    const auto cannot = [&](DWORD feature, std::int64_t count, const wchar_t* what) {
        if (!losesFeature(feature) || count == 0) {
            return;
        }
        find(options_.keepGoing ? Severity::Warn : Severity::Refuse, "impossible-on-target",
             number(count) + L" " + what + L" cannot exist on " + quoted(targetVolume_.root) +
                 L" (" + targetVolume_.fileSystem + L").",
             options_.keepGoing ? L"They are left at the old place."
                                : L"Choose a drive with NTFS, or leave them behind with "
                                  L"--keep-going.");
    };
    cannot(FILE_SUPPORTS_ENCRYPTION, tree.encrypted.count, L"encrypted items");
    cannot(FILE_SUPPORTS_REPARSE_POINTS, tree.links, L"links");
    if (tree.cloud.count != 0) {
        warn("cloud-files", number(tree.cloud.count) + L" files keep their data elsewhere " +
                                exampleText(tree.cloud) +
                                L"; copying fetches it, which can take long.");
    }
}

void CopyOutlook::checkCollisions() {
    if (!result_.targetHoldsItems()) {
        return;
    }
    const TreeContents::Special collisions = findNameCollisions(source_, target_);
    if (collisions.count != 0) {
        find(options_.keepGoing ? Severity::Warn : Severity::Refuse, "collisions",
             number(collisions.count) +
                 L" items of the source have names that the target has "
                 L"already " +
                 exampleText(collisions) + L".",
             options_.keepGoing ? L"They are left at the old place."
                                : L"Remove or rename them in the target, choose another "
                                  L"target, or leave them behind with --keep-going.");
    }
}

void CopyOutlook::checkPathLengths() {
    if (result_.contents.pathsTooLong != 0) {
        warn("long-paths",
             number(result_.contents.pathsTooLong) +
                 L" paths will be longer than 259 characters, the longest has " +
                 number(static_cast<std::int64_t>(result_.longestPath)) +
                 L": many programs, web servers among them, cannot open them.",
             L"Choose a target with a shorter path.");
    }
}

void CopyOutlook::checkLinks() {
    if (result_.contents.linksIntoTree.count != 0) {
        warn("links-into-source",
             number(result_.contents.linksIntoTree.count) +
                 L" links lead into the old place by its full path " +
                 exampleText(result_.contents.linksIntoTree) +
                 L"; after the move they lead nowhere.",
             L"Make them anew after the move.");
    }
}
