// What to say of the exception that is being handled, whatever its class.
#pragma once

#include <string>

class NativeSpan;

// Kind and text of the current exception: "base exception: ...", "standard exception: ...", "COM
// error: ...", "wrapped exception: ...", "unknown: Unexpected error". Called inside a handler only.
std::wstring describeCurrentException();

// Its message alone where it has one, for a text that goes to people; otherwise the above. Called
// inside a handler only.
std::wstring currentCause();

// Writes the step and the current exception to the product log, as an error.
void logFailure(const std::wstring& step);

// A step failed and the operation goes on, as a rollback does: logFailure, and the same text on the
// operation's span.
void reportFailure(const NativeSpan& span, const std::wstring& step);
