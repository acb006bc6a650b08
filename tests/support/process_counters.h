// What this process holds of the system, so that a test can show that nothing leaks.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>
#include <windows.h>

struct ProcessCounters {
    long handles = 0;     // kernel handles that are open
    long long blocks = 0; // C++ allocations that are alive

    static ProcessCounters now();
};

// Runs fn a few times to warm up, then again and again: what then is more after each round leaks.
// Returns the growth over rounds rounds.
ProcessCounters growthOver(int rounds, const std::function<void()>& fn);
