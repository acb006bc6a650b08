// What each benchmark does with an exception.
#pragma once

#include "runtime/exception.h"
#include "runtime/text.h"

#include <cstdio>
#include <stdexcept>

// The program's exit status: what the action returns, or 1 for what it has thrown, which is told.
template <class Action>
int tellingFailures(Action&& action) {
    try {
        return action();
    } catch (const vexception& error) {
        std::fprintf(stderr, "%s\n", toUtf8(error.what()).c_str());
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    return 1;
}
