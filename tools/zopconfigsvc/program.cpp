#include "tools/zopconfigsvc/program.h"

#include "config/service/config_service.h"
#include "runtime/exception.h"
#include "runtime/log_manager.h"
#include "runtime/text.h"
#include "tools/zopconfigsvc/arguments.h"
#include "tools/zopconfigsvc/installation.h"
#include "tools/zopconfigsvc/service_session.h"
#include "tools/zopconfigsvc/stop_key.h"
#include "tools/zopctl/text_format.h"

#include <exception>

namespace zopconfigsvc {

using zopctl::Console;
using zopctl::ExitCode;

namespace {

ExitCode runInForeground(const std::wstring& pipe, Console& console) {
    const auto listener =
        LogManager::getInstance().addListener([&](LogType type, const std::wstring& text) {
            const std::wstring line = zopctl::printable(text);
            if (type == LogType::Error || type == LogType::Warning) {
                console.errorLine((type == LogType::Error ? L"Error: " : L"Warning: ") + line);
            } else {
                console.line(line);
            }
        });
    StopKey key;
    config::ConfigService::Options options;
    options.pipeName = pipe;
    config::ConfigService service(options);
    console.line(L"Ctrl+C ends it.");
    key.wait();
    service.stop();
    return ExitCode::Success;
}

ExitCode runAsService(Console& console) {
    if (!ServiceSession::dispatch()) {
        return print({L"Only Windows starts it with --service. In the foreground: zopconfigsvc "
                      L"--console\nMore:  zopconfigsvc --help",
                      true},
                     console);
    }
    return ExitCode::Success;
}

ExitCode run(const ServiceOptions& options, Console& console) {
    switch (options.action) {
    case ServiceOptions::Action::None:
        break; // refused by parseArguments
    case ServiceOptions::Action::Serve:
        return runAsService(console);
    case ServiceOptions::Action::Console:
        return runInForeground(options.pipe, console);
    case ServiceOptions::Action::Install:
        return install(console);
    case ServiceOptions::Action::Remove:
        return remove(console);
    }
    return ExitCode::Usage;
}

} // namespace

ExitCode runCommandLine(const std::vector<std::wstring>& arguments, Console& console) {
    try {
        return runParsed(parseArguments(arguments), console,
                         [&](const ServiceOptions& options) { return run(options, console); });
    } catch (const vexception& e) {
        console.errorLine(L"Error: " + e.message());
    } catch (const std::exception& e) {
        console.errorLine(L"Error: " + toWide(e.what()));
    }
    return ExitCode::Failed;
}

} // namespace zopconfigsvc
