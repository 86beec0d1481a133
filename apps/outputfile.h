// Files that appear when they are complete.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>

#include <sys/types.h>

namespace tolvin
{

// A file under construction. A regular file is written beside the one of its name, which it replaces when it is complete:
// until then, and whenever something fails, what had that name stays as it was. Links stay links. Devices, pipes and what
// /dev/stdout or /dev/fd/N stand for are written as they are.
class OutputFile
{
public:
    // Throws std::runtime_error, which names the file, when it cannot be made.
    explicit OutputFile(const std::string &file);
    ~OutputFile();

    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    std::FILE *stream() const
    {
        return stream_;
    }

    // Closes the file and gives it its name. Throws std::system_error, which names the file, when that fails or something
    // that was written to the stream before has not arrived.
    void complete();

private:
    std::FILE *openBeside(mode_t mode);

    std::string name_; // as the caller knows it
    std::filesystem::path target_;
    std::string written_; // as long as it is not complete; empty when the target is written as it is
    bool complete_ = false;
    std::FILE *stream_ = nullptr;
};

// The file descriptor that a name such as /dev/stdout stands for; -1 for others.
int descriptorNamed(const std::string &file);

} // namespace tolvin
