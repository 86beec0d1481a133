#include "outputfile.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace tolvin
{

namespace
{

namespace fs = std::filesystem;

// What a name leads to, be it there or not.
fs::path followed(fs::path path)
{
    constexpr int kMostLinks = 40; // as the system has it
    std::error_code error;
    for (int i = 0; i < kMostLinks && fs::is_symlink(path, error); ++i)
    {
        path = path.parent_path() / fs::read_symlink(path, error);
    }
    return path;
}

mode_t newFileMode()
{
    const mode_t mask = umask(0); // there is no other way to read it
    umask(mask);
    return 0666 & ~mask;
}

// A second descriptor goes on where the first one is in its file; opening /dev/stdout would start that file anew.
std::FILE *openDescriptor(int descriptor)
{
    const int copy = dup(descriptor);
    std::FILE *const stream = copy < 0 ? nullptr : fdopen(copy, "wb");
    if (stream == nullptr && copy >= 0)
    {
        close(copy);
    }
    return stream;
}

} // namespace

int descriptorNamed(const std::string &file)
{
    if (file == "/dev/stdout")
    {
        return STDOUT_FILENO;
    }
    if (file == "/dev/stderr")
    {
        return STDERR_FILENO;
    }
    for (const std::string folder : {"/dev/fd/", "/proc/self/fd/"})
    {
        int descriptor = -1;
        const char *const end = file.data() + file.size();
        if (file.starts_with(folder) && std::from_chars(file.data() + folder.size(), end, descriptor).ptr == end)
        {
            return descriptor;
        }
    }
    return -1;
}

OutputFile::OutputFile(const std::string &file) : name_(file), target_(followed(file))
{
    std::error_code error;
    const fs::file_status status = fs::status(target_, error);
    const bool exists = fs::exists(status);
    if (const int descriptor = descriptorNamed(file); descriptor >= 0)
    {
        stream_ = openDescriptor(descriptor);
    }
    else if (exists && !fs::is_regular_file(status))
    {
        stream_ = std::fopen(target_.c_str(), "wb");
    }
    // A file that is protected against writing is not to be replaced either.
    else if (!exists || access(target_.c_str(), W_OK) == 0)
    {
        stream_ = openBeside(exists ? static_cast<mode_t>(status.permissions()) : newFileMode());
    }
    if (stream_ == nullptr)
    {
        throw std::runtime_error(name_ + ": " + std::generic_category().message(errno));
    }
}

OutputFile::~OutputFile()
{
    if (stream_ != nullptr)
    {
        std::fclose(stream_);
    }
    if (!written_.empty() && !complete_)
    {
        std::remove(written_.c_str());
    }
}

void OutputFile::complete()
{
    if (std::ferror(stream_) != 0)
    {
        // Why is forgotten, but most likely the next byte meets the same.
        std::clearerr(stream_);
        errno = EIO;
        std::fputc('\n', stream_);
        std::fflush(stream_);
        throw std::system_error(errno, std::generic_category(), name_);
    }
    if (std::fclose(std::exchange(stream_, nullptr)) != 0 ||
        (!written_.empty() && std::rename(written_.c_str(), target_.c_str()) != 0))
    {
        throw std::system_error(errno, std::generic_category(), name_);
    }
    complete_ = true;
}

std::FILE *OutputFile::openBeside(mode_t mode)
{
    if (!target_.has_filename())
    {
        errno = target_.empty() ? ENOENT : EISDIR;
        return nullptr;
    }
    written_ = (target_.parent_path() / ".tolvin-XXXXXX").string();
    const int descriptor = mkstemp(written_.data());
    if (descriptor < 0)
    {
        return nullptr;
    }
    fchmod(descriptor, mode);
    std::FILE *const stream = fdopen(descriptor, "wb");
    if (stream == nullptr)
    {
        close(descriptor);
        std::remove(written_.c_str());
        errno = ENOMEM; // all that can fail there
    }
    return stream;
}

} // namespace tolvin
