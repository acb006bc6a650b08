#include "runtime/heap_corruption_handler.h"
#include "tools/zopconfigsvc/program.h"

#include <string>
#include <vector>

int wmain(int count, wchar_t* words[]) {
    const HeapCorruptionHandler heapCorruptionHandler(true);
    zopctl::Console console;
    const std::vector<std::wstring> arguments(words + (count > 0 ? 1 : 0), words + count);
    return static_cast<int>(zopconfigsvc::runCommandLine(arguments, console));
}
