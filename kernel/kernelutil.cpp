#include "kernelutil.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <libgen.h>
#include <sys/stat.h>

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

// Room for a candidate of findFilePathName, its terminating NUL included.
constexpr size_t kPathSize = 512;

int32_t indiCount = -1;

// A copy of the first <directory>/<component> that is a usable file; null when there is none.
char *findInDirectories(const char *directories, const char *component)
{
    const size_t componentLength = strlen(component);
    for (const char *directory = directories; directory != nullptr;)
    {
        const char *end = strchrnul(directory, ':');
        const size_t length = end - directory;
        if (length + 1 + componentLength < kPathSize)
        {
            char candidate[kPathSize];
            memcpy(candidate, directory, length);
            candidate[length] = '/';
            memcpy(candidate + length + 1, component, componentLength + 1);
            if (fileExist(candidate) != 0)
            {
                return strdup(candidate);
            }
        }
        directory = *end == ':' ? end + 1 : nullptr;
    }
    return nullptr;
}

char *findComponent(const char *env, const char *component)
{
    if (*component == '/')
    {
        ++component;
    }
    if (*component == '\0')
    {
        return nullptr;
    }
    if (fileExist(component) != 0)
    {
        return strdup(component);
    }
    return findInDirectories(env != nullptr ? getenv(env) : nullptr, component);
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

int fileExist(const char *path)
{
    struct stat status = {};
    return path != nullptr && stat(path, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 ? 1 : 0;
}

char *findFilePathName(const char *env, const char *path)
{
    if (path == nullptr)
    {
        return nullptr;
    }
    char *copy = strdup(path);
    if (copy == nullptr || fileExist(path) != 0)
    {
        return copy;
    }
    // basename may write to its argument and returns a part of it, or a constant.
    char *found = findComponent(env, basename(copy));
    free(copy);
    return found;
}

char *stripsuffix(char *dst, const char *src, const char *suffix)
{
    const size_t length = strlen(src);
    const size_t suffixLength = strlen(suffix);
    if (length < suffixLength || strcmp(src + length - suffixLength, suffix) != 0)
    {
        return nullptr;
    }
    // dst may be src.
    memmove(dst, src, length - suffixLength);
    dst[length - suffixLength] = '\0';
    return dst;
}

void eatwhite(FILE *stream)
{
    int next = getc(stream);
    while (next == '\r' || next == '\n' || next == '\t' || next == ' ')
    {
        next = getc(stream);
    }
    ungetc(next, stream); // does nothing at the end
}

void busyIndicator(void)
{
    constexpr char kPhases[] = {'|', '/', '-', '\\'};
    const int32_t phase = (indiCount + 1) & 3; // never beyond them, even with two threads here
    indiCount = phase == 3 ? -1 : phase;
    fprintf(stderr, "%c\b", kPhases[phase]);
}
