// Capture of what is written to standard error, and of what is thrown.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>

// Runs action and returns everything that this process wrote to file descriptor 2 meanwhile, C and C++ streams alike.
std::string capturedStderr(const std::function<void()> &action);

// How many lines of that there are.
inline std::ptrdiff_t linesOf(const std::function<void()> &action)
{
    return std::ranges::count(capturedStderr(action), '\n');
}

// What is written to a stream.
std::string printedTo(const std::function<void(std::FILE *stream)> &print);

// What an action tells when it throws; empty when it does not.
std::string refusalOf(const std::function<void()> &action);

// A text with something in it replaced, wherever it is.
std::string replaced(std::string text, const std::string &what, const std::string &by);
