// What a list costs as it grows: entries added one by one at their canonical place. Prints, for
// several lengths, microseconds for the whole list and nanoseconds an addition; the median of seven
// runs.
//
//     acl_bench
//
// "front": every entry goes in front of its equals, at once found. "behind": grants behind
// denials, so that each addition looks at all the denials first. "mixed": ranks in turn.
#include "runtime/exception.h"
#include "runtime/text.h"
#include "security/acl.h"
#include "tests/support/raw_security.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

namespace {

using RunTime::Acl;
using RunTime::Sid;

double microseconds() {
    return std::chrono::duration<double, std::micro>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The i-th of count entries.
using Add = void (*)(Acl& list, const Sid& trustee, DWORD i, DWORD count);

void front(Acl& list, const Sid& trustee, DWORD i, DWORD) {
    list.addAllowed(trustee, i);
}

void behind(Acl& list, const Sid& trustee, DWORD i, DWORD count) {
    i < count / 2 ? list.addDenied(trustee, i) : list.addAllowed(trustee, i);
}

void mixed(Acl& list, const Sid& trustee, DWORD i, DWORD) {
    const BYTE flags = (i & 2) != 0 ? INHERITED_ACE : 0;
    (i & 1) != 0 ? list.addDenied(trustee, i, flags) : list.addAllowed(trustee, i, flags);
}

double fill(Add add, const Sid& trustee, DWORD count) {
    std::array<double, 7> runs{};
    for (double& run : runs) {
        const double start = microseconds();
        Acl list;
        list.clear();
        for (DWORD i = 0; i < count; ++i) {
            add(list, trustee, i, count);
        }
        run = microseconds() - start;
    }
    std::ranges::sort(runs);
    return runs[runs.size() / 2];
}

} // namespace

int wmain() {
    const AddAceInPlace addAce; // of the same cost everywhere, and right under Wine, too
    try {
        const Sid trustee(L"S-1-5-18"); // 20 bytes an entry: a list takes 3,276
        std::printf("%8s %26s %26s %26s\n", "entries", "front", "behind", "mixed");
        for (const DWORD count : {10U, 100U, 400U, 1600U, 3200U}) {
            std::printf("%8lu", count);
            for (const Add add : {front, behind, mixed}) {
                const double time = fill(add, trustee, count);
                std::printf(" %12.0f us %8.0f ns", time, time * 1000 / count);
            }
            std::printf("\n");
        }
        const double start = microseconds();
        for (int i = 0; i < 100; ++i) {
            Acl list;
            for (DWORD entry = 0; entry < 100; ++entry) {
                mixed(list, trustee, entry, 100);
            }
        }
        std::printf("10,000 additions, 100 a list: %.1f ms\n", (microseconds() - start) / 1000);
    } catch (const vexception& e) {
        std::fprintf(stderr, "%s\n", toUtf8(e.what()).c_str());
        return 1;
    }
    return 0;
}
