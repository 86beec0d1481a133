#include "kernelutil.h"

#include <cstdarg>
#include <cstdio>

namespace
{
// Lines shorter than this reach the stream in one write, so that several processes can share a terminal or a log.
constexpr size_t kPiece = 2048;

constexpr char kPrefix[] = "%s:%d %s: ";

const char *shown(const char *text)
{
    return text != nullptr ? text : "(null)";
}

void printInParts(bool prefixed, const char *level, const char *file, int line, const char *format, va_list args)
{
    flockfile(stderr);
    if (prefixed)
    {
        fprintf(stderr, kPrefix, file, line, level);
    }
    if (format != nullptr)
    {
        vfprintf(stderr, format, args);
    }
    fputc('\n', stderr);
    funlockfile(stderr);
}

void print(bool prefixed, const char *level, const char *file, int line, const char *format, va_list args)
{
    level = shown(level);
    file = shown(file);

    // A negative result, an error, counts as more than any buffer holds.
    char text[kPiece];
    const size_t prefix = prefixed ? snprintf(text, kPiece, kPrefix, file, line, level) : 0;
    size_t message = 0;
    if (format != nullptr && prefix < kPiece)
    {
        va_list copy;
        va_copy(copy, args);
        message = vsnprintf(text + prefix, kPiece - prefix, format, copy);
        va_end(copy);
    }
    if (prefix >= kPiece || message >= kPiece - prefix)
    {
        printInParts(prefixed, level, file, line, format, args);
        return;
    }
    text[prefix + message] = '\n';
    fwrite(text, 1, prefix + message + 1, stderr);
}
} // namespace

void vu_warn(const char *level, const char *file, int line, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    print(true, level, file, line, format, args);
    va_end(args);
}

void vuMessage(const char *level, const char *file, int line, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    print(level != nullptr, level, file, line, format, args);
    va_end(args);
}
