// Standard error held back for a while.
#pragma once

namespace tolvin
{

// While it lives, what this process writes to file descriptor 2 is lost: the library reports every computation of the
// sun there. Where that cannot be arranged, nothing changes.
class QuietStandardError
{
public:
    QuietStandardError();
    ~QuietStandardError();

    QuietStandardError(const QuietStandardError &) = delete;
    QuietStandardError &operator=(const QuietStandardError &) = delete;

private:
    int saved_; // -1 when it was closed
    bool active_ = false;
};

} // namespace tolvin
