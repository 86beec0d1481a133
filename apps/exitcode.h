// How commands end.
#pragma once

#include <functional>

namespace tolvin
{

// Runs the work of a command and returns its exit code: 0; after an exception, whose message goes to standard error,
// 2 for a std::runtime_error, something that the caller can mend, and 1 for anything else, a std::system_error among
// it.
int exitCodeOf(const std::function<void()> &work);

// Flushes standard output. Throws std::system_error when something that was written there has not arrived.
void flushOutput();

} // namespace tolvin
