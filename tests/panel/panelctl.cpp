// The stand-in panel for scripts:
//
//     panelctl make BASE [DOMAINS [FILES [SEED]]]   prints where the panel has its zopctl
//     panelctl snapshot BASE [PLACE...]     compared by diff with another one
//     panelctl references BASE PLACE        what names the place
//     panelctl control BASE [WORD...]       one order of the control file (tests/panel/store.h);
//                                           none for none at all
#include "tests/panel/panel.h"

#include "runtime/exception.h"
#include "runtime/text.h"

#include <algorithm>
#include <fcntl.h>
#include <io.h>
#include <iostream>

namespace {

int run(const panel::Words& words) {
    const auto number = [&](std::size_t at, int otherwise) {
        return at < words.size() ? std::stoi(words[at]) : otherwise;
    };
    const std::wstring what = words.size() < 2 ? L"" : words[0];
    panel::Options options;
    if (what == L"make") {
        options.domains = number(2, options.domains);
        options.files = number(3, options.files);
        options.seed = static_cast<unsigned>(number(4, 1));
    }
    const panel::Panel panel(words.size() < 2 ? L"" : words[1], options);
    const panel::Words rest(words.begin() + std::min<std::ptrdiff_t>(2, std::ssize(words)),
                            words.end());
    if (what == L"make") {
        panel.build();
        std::cout << toUtf8(panel.install(L"zopctl.exe")) << "\n";
    } else if (what == L"snapshot") {
        std::cout << panel.snapshot(rest);
    } else if (what == L"references" && rest.size() == 1) {
        std::cout << panel.references(rest[0]);
    } else if (what == L"control") {
        panel.store().setControl(rest.empty() ? std::vector<panel::Words>{}
                                              : std::vector<panel::Words>{rest});
        panel.store().forgetCalls();
    } else {
        std::cerr << "panelctl make|snapshot|references|control BASE ...\n";
        return 2;
    }
    return 0;
}

} // namespace

int wmain(int count, wchar_t* words[]) {
    _setmode(_fileno(stdout), _O_BINARY);
    try {
        return run({words + 1, words + count});
    } catch (const vexception& e) {
        std::cerr << toUtf8(e.message()) << "\n";
    } catch (const std::exception& e) {
        std::cerr << e.what() << "\n";
    }
    return 1;
}
