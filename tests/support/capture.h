// Capture of what is written to standard error.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>

// Runs action and returns everything that this process wrote to file descriptor 2 meanwhile, C and C++ streams alike.
std::string capturedStderr(const std::function<void()> &action);

// How many lines of that there are.
inline std::ptrdiff_t linesOf(const std::function<void()> &action)
{
    return std::ranges::count(capturedStderr(action), '\n');
}
