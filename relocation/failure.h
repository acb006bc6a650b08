// What to say of the exception that is being handled, whatever its class.
#pragma once

#include <string>

// Kind and text of the current exception: "base exception: ...", "standard exception: ...", "COM
// error: ...", "wrapped exception: ...", "unknown: Unexpected error". Called inside a handler only.
std::wstring describeCurrentException();

// Writes the step and the current exception to the product log, as an error.
void logFailure(const std::wstring& step);
