#include "tools/zopctl/vhosts_move_command.h"

#include "config/tarvo_srv_client.h"
#include "relocation/place_check.h"
#include "relocation/vhosts/move_vhosts.h"
#include "relocation/vhosts/vhosts_preflight.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "tools/zopctl/move_session.h"
#include "tools/zopctl/text_format.h"
#include "tools/zopctl/vhosts_move_arguments.h"

#include <algorithm>
#include <memory>

namespace zopctl {

namespace {

constexpr std::int32_t steps = 19;
constexpr std::int32_t firstStepBehindTheTree = 10; // permissions; nothing is copied any more
constexpr std::int64_t settingsBesideSites = 4;     // that are named: permissions, FTP, ...

// It drives the transaction of the library directly, not its public class, whose errors are texts
// only.
class VHostsMove final : public MoveSession {
public:
    VHostsMove(const VHostsMoveOptions& options, Console& console)
        : MoveSession(L"vhosts move", options, console), relink_(options.relink) {}

private:
    JsonFields startFields() const override { return {{"relink", relink_}}; }

    MovePreflight::Result examine() override {
        VHostsPreflight preflight;
        const Hook progress = preflight.progressEvent.hook(
            [this](const TreeContents& contents, bool& cancel) { look(contents, cancel); });
        VHostsPreflight::Options options;
        options.keepGoing = options_.keepGoing;
        options.copyOwner = options_.copyOwner;
        options.relink = relink_;
        options.streams = options_.streams;
        panel_ = preflight.examine(options_.source, options_.target, options);
        links_ = preflight.takeLinks();
        return static_cast<const MovePreflight::Result&>(panel_);
    }

    MoveDetails plan() const override {
        return {{L"Sets:  " + changes()},
                {{"homes", panel_.homes},
                 {"homesOnDisk", panel_.homesOnDisk},
                 {"sites", panel_.sites},
                 {"wwwRoots", panel_.wwwRoots},
                 {"installerValues", panel_.installerValues},
                 {"quotas", panel_.quotas},
                 {"otherVolume", panel_.otherVolume},
                 {"linksIntoSource", panel_.links},
                 {"notCovered", panel_.notCovered}}};
    }

    std::wstring changes() const {
        return countOf(panel_.homes, L"home of an account", L"homes of accounts") + L", " +
               countOf(panel_.sites, L"IIS site", L"IIS sites") + L", " +
               countOf(panel_.wwwRoots, L"document root", L"document roots") + L", " +
               countOf(panel_.installerValues, L"installer value", L"installer values") + L", " +
               config::name::vhosts;
    }

    std::wstring question() const override {
        return L"FTP is down until the move has ended. " + MoveSession::question();
    }

    void planWork(MoveMeter& meter) override {
        MoveSession::planWork(meter);
        meter.planSettings(panel_.sites + settingsBesideSites);
    }

    void transfer() override {
        mover_ = std::make_unique<MoveVHosts>();
        mover_->set_streams(options_.streams);
        mover_->set_copyOwner(options_.copyOwner);
        listen();
        meter_.begin(seen_.willCopy ? MoveMeter::Step::Copy : MoveMeter::Step::Rename);
        if (options_.source.empty()) {
            mover_->move(seen_.target);
        } else {
            mover_->move(seen_.source, seen_.target);
        }
        completed_ = true;
        if (!unheeded_.empty()) { // a step may pass over its failure; whoever ordered it does not
            throw vexception(unheeded_, {L"", "zopctl::VHostsMove::transfer", __LINE__});
        }
        outcome_.files = seen_.contents.files;
        outcome_.directories = seen_.contents.directories;
        outcome_.bytes = seen_.contents.bytes;
    }

    void listen() {
        hooks_.push_back(mover_->stepEvent.hook(
            [this](std::int32_t number, const std::wstring& name) { stepBegins(number, name); }));
        hooks_.push_back(mover_->progressEvent_Cost.hook(
            [this](std::int64_t, bool& cancel) { cancel = isCancelled(); }));
        hooks_.push_back(
            mover_->progressEvent_Name.hook([this](const std::wstring& name, std::int64_t,
                                                   std::int32_t, std::int64_t size, bool& cancel) {
                bytes_ += std::max<std::int64_t>(size, 0);
                current_ = pathOf(name);
                itemNamed(name, bytes_);
                cancel = isCancelled();
            }));
        hooks_.push_back(
            mover_->errorEvent.hook([this](const std::wstring& message) { partFailed(message); }));
        hooks_.push_back(
            mover_->ignorebleErrorEvent.hook([this](const std::wstring& message, bool& ignore) {
                ignore = itemFailed(current_, message);
                if (!ignore && unheeded_.empty()) {
                    unheeded_ = outcome_.failed.back().reason;
                }
            }));
    }

    void stepBegins(std::int32_t number, const std::wstring& name) {
        if (number >= firstStepBehindTheTree && !treeHasMoved_) {
            treeHasMoved_ = true;
            outcome_.renamed = !isThere(seen_.source);
            // Now the copy is as the original; the steps to come change it.
            verify();
            meter_.begin(MoveMeter::Step::Settings);
        }
        meter_.enterStep(number, steps, name.substr(0, name.find(L"...")));
    }

    void complete() override {
        if (!relink_ || !links_ || links_->get_links().empty()) {
            return;
        }
        meter_.enterStep(steps, steps, L"Changing links");
        const Hook name =
            links_->progressEvent_Name.hook([this](const std::wstring& path, bool& cancel) {
                itemNamed(L"Relink: " + path, 0);
                cancel = isCancelled();
            });
        // One that cannot be changed is no reason to give everything up: it is told.
        const Hook error =
            links_->errorEvent.hook([this](const std::wstring& message, bool& ignore) {
                partFailed(message);
                ignore = true;
            });
        const Hook changing = links_->changingEvent.hook(
            [this](const LinkRelink::Changed& link) { mover_->recordLink(link); });
        links_->change(seen_.target);
    }

    void commitMove() override {
        bytes_ = 0;
        try {
            mover_->commit();
        } catch (const vexception&) {
            outcome_.advice.push_back(L"The record of the move stays as well, and no other move "
                                      L"begins before it has gone: " +
                                      putBackCommand());
            throw;
        }
    }

    void rollBackMove() override {
        if (links_) {
            const Hook error = links_->errorEvent.hook(
                [this](const std::wstring& message, bool&) { partFailed(message); });
            try {
                links_->rollback();
            } catch (const vexception& e) { // everything else is still to be put back
                partFailed(e.message());
            }
        }
        if (!mover_) {
            return;
        }
        bytes_ = 0;
        if (completed_) {
            mover_->rollback();
        } else {
            mover_->undo();
        }
    }

    std::vector<std::wstring> failedItems() const override {
        return mover_ ? mover_->get_failed() : std::vector<std::wstring>();
    }
    CopyReport losses() const override { return mover_ ? mover_->get_report() : CopyReport(); }
    std::vector<std::wstring> leftBehind() const override {
        return mover_ ? mover_->get_leftBehind() : std::vector<std::wstring>();
    }
    std::vector<std::wstring> pendingRestart() const override {
        return mover_ ? mover_->get_pendingRestart() : std::vector<std::wstring>();
    }

    MoveDetails summary() const override {
        MoveDetails details{{L"Set:   " + changes()},
                            {{"homes", panel_.homes},
                             {"sites", panel_.sites},
                             {"wwwRoots", panel_.wwwRoots},
                             {"installerValues", panel_.installerValues},
                             {"linksChanged", relink_ && links_ ? links_->get_changed() : 0},
                             {"notCovered", panel_.notCovered}}};
        if (relink_ && links_ && links_->get_changed() != 0) {
            details.lines.push_back(L"Links: " +
                                    countOf(links_->get_changed(), L"link leads", L"links lead") +
                                    L" to the new place now");
        } else if (!relink_ && panel_.links != 0) {
            details.lines.push_back(L"Links: " +
                                    countOf(panel_.links, L"link leads", L"links lead") +
                                    L" to the old place still:");
            list(linkPaths(), panel_.links, details.lines);
        }
        if (!panel_.notCovered.empty()) {
            details.lines.push_back(L"Still naming the old place:");
            list(panel_.notCovered, static_cast<std::int64_t>(panel_.notCovered.size()),
                 details.lines);
        }
        return details;
    }

    std::vector<std::wstring> linkPaths() const {
        std::vector<std::wstring> paths;
        for (const LinkRelink::Link& link : links_->get_links()) {
            paths.push_back(seen_.target + link.path + L" -> " + link.target);
        }
        return paths;
    }

    static void list(const std::vector<std::wstring>& items, std::int64_t count,
                     std::vector<std::wstring>& lines) {
        constexpr std::size_t most = 20;
        const std::size_t shown = std::min(items.size(), most);
        for (std::size_t i = 0; i < shown; ++i) {
            lines.push_back(L"  " + printable(items[i]));
        }
        const std::int64_t more = count - static_cast<std::int64_t>(shown);
        if (more > 0) {
            lines.push_back(L"  and " + formatCount(more) + L" more");
        }
    }

    std::wstring undoCommand() const override {
        return L"zopctl vhosts move " + quotedPath(seen_.source);
    }

    std::wstring putBackCommand() const override { return L"zopctl vhosts recover"; }

    void advise() override {
        if (completed_ && !unheeded_.empty()) {
            outcome_.advice.push_back(L"Remove the cause and start again; --keep-going passes "
                                      L"such errors over and lists them.");
        } else if (differences_ != 0 || !outcome_.failed.empty()) {
            MoveSession::advise();
        } else {
            outcome_.advice.push_back(L"Remove the cause and start again.");
        }
    }

    void tellWhatIsWhere() override {
        MoveSession::tellWhatIsWhere();
        outcome_.advice.push_back(L"Remove the cause, and have the rest put back: " +
                                  putBackCommand() + L". No other move begins before that.");
        std::wstring configured;
        try {
            configured = TarvoSrvClient::getInstance().getString(config::name::vhosts);
        } catch (const vexception&) {
            outcome_.advice.push_back(L"The configuration service does not answer: start it, and "
                                      L"see that HTTPD_VHOSTS_D is " +
                                      quotedPath(seen_.source) + L".");
        }
        if (!configured.empty() && !RunTime::equalNames(configured, seen_.source)) {
            outcome_.advice.push_back(L"HTTPD_VHOSTS_D is " + quotedPath(configured) +
                                      L" now. Where the sites are in " + quotedPath(seen_.source) +
                                      L", set it back: zopctl config set HTTPD_VHOSTS_D " +
                                      quotedPath(seen_.source));
        }
        adviseByHand();
    }

    // What the panel's own programs can still put right, once the tree is where it is to be.
    void adviseByHand() {
        std::wstring root;
        if (registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, config::name::productRoot, root,
                             RegistryView::View32) != ERROR_SUCCESS) {
            return;
        }
        const auto program = [&](const wchar_t* path) {
            return quotedPath(RunTime::combine(root, path));
        };
        const std::wstring repair = L"  " + program(L"admin\\bin64\\php.exe") + L" " +
                                    program(L"admin\\modlib\\cu\\repair.php");
        outcome_.advice.push_back(L"IIS sites, permissions and FTP can then be put right with");
        outcome_.advice.push_back(L"  " + program(L"admin\\bin64\\webhostctl.exe") +
                                  L" --update-site-paths --site-name=NAME --old-path=" +
                                  quotedPath(seen_.target) + L" --new-path=" +
                                  quotedPath(seen_.source));
        outcome_.advice.push_back(repair + L" --repair-all-webspaces-security");
        outcome_.advice.push_back(repair + L" --reconfigure-ftp-sites");
    }

    bool relink_;
    VHostsPreflight::Result panel_;
    std::unique_ptr<LinkRelink> links_;
    std::unique_ptr<MoveVHosts> mover_;
    std::vector<Hook> hooks_; // after the events they hook, so they go first
    std::wstring current_;    // path of the item last named
    std::int64_t bytes_ = 0;
    std::wstring unheeded_; // the first error that nobody allowed to be passed over
    bool treeHasMoved_ = false;
    bool completed_ = false;
};

} // namespace

ExitCode runVHostsMove(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(parseVHostsMove(arguments), console, [&](const VHostsMoveOptions& options) {
        return VHostsMove(options, console).run();
    });
}

} // namespace zopctl
