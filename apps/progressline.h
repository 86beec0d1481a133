// How far something without an end has come.
#pragma once

#include "pacer.h"

#include <string>

namespace tolvin
{

// A line on a terminal that is kept current and goes in the end; nothing elsewhere, nor when it is to be quiet.
class ProgressLine
{
public:
    // what: of which there is more and more, in the plural.
    ProgressLine(const std::string &what, bool quiet);
    ~ProgressLine();

    ProgressLine(const ProgressLine &) = delete;
    ProgressLine &operator=(const ProgressLine &) = delete;

    // When it has something new to show, at the earliest.
    Nanoseconds next() const
    {
        return next_;
    }

    void show(Nanoseconds now, std::uint64_t number);

private:
    std::string what_;
    Nanoseconds next_;
};

} // namespace tolvin
