#include "relocation/vhosts/vhosts_preflight.h"

#include "relocation/place_check.h"
#include "relocation/vhosts/move_record.h"
#include "relocation/vhosts/panel_check.h"
#include "runtime/exception.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <utility>

namespace {

class Examination : MoveFindings {
public:
    Examination(const VHostsPreflight::Options& options,
                Event<const TreeContents&, bool&>& progress)
        : MoveFindings(result_), options_(options), progress_(progress) {}

    VHostsPreflight::Result run(const std::wstring& given, const std::wstring& target) {
        try {
            look(given, target);
        } catch (const CanceledException&) {
            throw;
        } catch (const vexception& e) {
            refuse("cannot-look", L"The server cannot be examined: " + e.message() + L".",
                   L"Check the drives and your rights there.");
        }
        return std::move(result_);
    }

    std::unique_ptr<LinkRelink> takeLinks() noexcept { return std::move(links_); }

private:
    void look(const std::wstring& given, const std::wstring& target) {
        PanelCheck panel(result_);
        const std::wstring configured = panel.readConfiguredPlace(given);
        const std::wstring source = given.empty() ? configured : given;
        result_.source = RunTime::nicePath(source);
        result_.target = RunTime::nicePath(target);
        if (!checkRecord()) { // what else speaks against it would mistake a half for the whole
            return;
        }
        panel.checkPrograms();
        if (source.empty() || !RunTime::isFullyQualified(source)) {
            if (!source.empty()) {
                examineTree(source, target); // says what is wrong with it
            }
            return;
        }
        panel.checkDatabase(source);
        examineTree(source, target);
        if (result_.isExamined) {
            panel.checkVolumes(source, target);
            panel.checkWebmail(source, target);
            tellOfLinks();
        }
        panel.checkSites(source);
        panel.checkInstaller(configured.empty() ? source : configured);
    }

    // Whether there is none of another move, one that runs or one that was cut off.
    bool checkRecord() {
        std::wstring path;
        try {
            const MoveRecord::State state = MoveRecord::look(path);
            if (state == MoveRecord::State::None) {
                return true;
            }
            const bool isRunning = state == MoveRecord::State::Running;
            refuse(isRunning ? "another-move" : "interrupted-move", MoveRecord::reason(state, path),
                   MoveRecord::remedy(state));
        } catch (const vosexception& e) {
            refuse("cannot-look",
                   L"It cannot be told whether another move is under way: " + e.message() + L".",
                   L"Check your rights there.");
        }
        return false;
    }

    // The findings about the places come before those about the panel.
    void examineTree(const std::wstring& source, const std::wstring& target) {
        MovePreflight preflight;
        MovePreflight::Options options;
        // Homes are copied ahead of the tree, which then finds its target filled.
        options.copy = result_.homesOnDisk != 0;
        options.createsTarget = true;
        options.keepGoing = options_.keepGoing;
        options.copyOwner = options_.copyOwner;
        options.streams = options_.streams;
        if (isThere(source)) {
            links_ = std::make_unique<LinkRelink>(source);
        }
        const Hook progress = forwardEvent(preflight.progressEvent, progress_);
        const Hook links = preflight.linkEvent.hook([this](const std::wstring& path) {
            if (links_) {
                links_->add(path);
            }
        });
        MovePreflight::Result tree = preflight.examine(source, target, options);
        std::erase_if(tree.findings, [](const MoveFinding& finding) {
            return finding.code == "links-into-source"; // has more to it here
        });
        tree.findings.insert(tree.findings.end(), result_.findings.begin(), result_.findings.end());
        static_cast<MovePreflight::Result&>(result_) = std::move(tree);
    }

    void tellOfLinks() {
        if (!links_) {
            return;
        }
        TreeContents::Special into;
        for (const LinkRelink::Link& link : links_->get_links()) {
            into.add(result_.source + link.path);
        }
        into.count += links_->get_notKept();
        result_.links = into.count;
        if (into.count == 0) {
            return;
        }
        const std::wstring reason = L"Links that lead into the old place by its full path: " +
                                    number(into.count) + L" " + exampleText(into);
        if (!options_.relink) {
            return warn("links-into-source", reason + L". After the move they lead nowhere.",
                        L"Add --relink to have them lead to the new place.");
        }
        find(Severity::Info, "links-into-source", reason + L". They will lead to the new place.");
        if (links_->get_notKept() != 0) {
            warn("too-many-links",
                 L"More links lead into the old place than can be changed; after the move these "
                 L"lead nowhere: " +
                     number(links_->get_notKept()) + L".");
        }
    }

    const VHostsPreflight::Options& options_;
    Event<const TreeContents&, bool&>& progress_;
    VHostsPreflight::Result result_;
    std::unique_ptr<LinkRelink> links_;
};

} // namespace

VHostsPreflight::Result VHostsPreflight::examine(const std::wstring& source,
                                                 const std::wstring& target,
                                                 const Options& options) {
    const ThreadCancelation::CancelationPoint cancellable;
    Examination examination(options, progressEvent);
    Result result = examination.run(source, target);
    std::stable_partition(result.findings.begin(), result.findings.end(),
                          [](const MoveFinding& finding) {
                              return finding.severity == MoveFinding::Severity::Refuse;
                          });
    links_ = examination.takeLinks();
    return result;
}
