// What modules of the scene database report.
#pragma once

#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>

#include "support/capture.h"

// The reports of an action, one a line, without line numbers; braces stand for red and its end.
inline std::string reportsOf(const std::function<void()> &action)
{
    std::istringstream lines(capturedStderr(action));
    std::string reports;
    for (std::string line; std::getline(lines, line);)
    {
        const size_t colon = line.find(':'), blank = line.find(' ');
        const bool isNumbered = colon < blank && atoi(&line[colon + 1]) > 0;
        reports += (isNumbered ? line.erase(colon, blank - colon) : "not numbered: " + line) + "\n";
    }
    return replaced(replaced(reports, "\033[31m", "{"), "\033[0m", "}");
}

// A line for each word, which takes the place of "%" in the form.
inline std::string linesOf(const std::string &words, const std::string &form)
{
    std::istringstream stream(words);
    std::string lines;
    for (std::string word; stream >> word;)
    {
        lines += replaced(form, "%", word) + "\n";
    }
    return lines;
}
