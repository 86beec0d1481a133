// Standard error held back for a while.
#pragma once

#include <string>

namespace tolvin
{

// While it lives, what this process writes to file descriptor 2 is kept from it: the library reports its steps there. Where
// that cannot be arranged, nothing changes.
class QuietStandardError
{
public:
    QuietStandardError();
    ~QuietStandardError();

    QuietStandardError(const QuietStandardError &) = delete;
    QuietStandardError &operator=(const QuietStandardError &) = delete;

    // What was written since this began to live.
    std::string text() const;

private:
    int saved_;     // -1 when it was closed
    int held_ = -1; // a file without a name; -1 when nothing changes
};

} // namespace tolvin
