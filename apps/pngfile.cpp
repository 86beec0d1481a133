#include "pngfile.h"

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tolvin
{

namespace
{

namespace fs = std::filesystem;

// A file that is written beside the one it replaces.
class OutputFile
{
public:
    explicit OutputFile(const std::string &file) : name_(file), target_(file)
    {
        std::error_code error;
        if (const fs::path pointee = fs::canonical(target_, error); !error)
        {
            target_ = pointee; // a symbolic link stays one
        }
        const fs::file_status status = fs::status(target_, error);
        const bool exists = fs::exists(status);
        direct_ = exists && !fs::is_regular_file(status);
        // A file that is protected against writing is not to be replaced either.
        if (!exists || access(target_.c_str(), W_OK) == 0)
        {
            stream_ = direct_ ? std::fopen(target_.c_str(), "wb")
                              : openBeside(exists ? static_cast<mode_t>(status.permissions()) : newFileMode());
        }
        if (stream_ == nullptr)
        {
            throw std::runtime_error(name_ + ": " + std::generic_category().message(errno));
        }
    }

    ~OutputFile()
    {
        if (stream_ != nullptr)
        {
            std::fclose(stream_);
        }
        if (!direct_ && !complete_)
        {
            std::remove(written_.c_str());
        }
    }

    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    std::FILE *stream() const
    {
        return stream_;
    }

    void complete()
    {
        if (std::fclose(std::exchange(stream_, nullptr)) != 0 ||
            (!direct_ && std::rename(written_.c_str(), target_.c_str()) != 0))
        {
            throw std::system_error(errno, std::generic_category(), name_);
        }
        complete_ = true;
    }

private:
    static mode_t newFileMode()
    {
        const mode_t mask = umask(0); // there is no other way to read it
        umask(mask);
        return 0666 & ~mask;
    }

    std::FILE *openBeside(mode_t mode)
    {
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

    std::string name_; // as the caller knows it
    fs::path target_;
    std::string written_; // as long as it is not complete
    bool direct_;
    bool complete_ = false;
    std::FILE *stream_ = nullptr;
};

// What went wrong inside libpng: an error number of the system, or a text.
struct Fault
{
    int system = 0;
    char text[120] = ""; // nothing here may throw through frames of C
};

[[noreturn]] void leaveWithError(png_structp png, png_const_charp message)
{
    auto &fault = *static_cast<Fault *>(png_get_error_ptr(png));
    std::snprintf(fault.text, sizeof fault.text, "%s", message);
    png_longjmp(png, 1);
}

void ignoreWarning(png_structp, png_const_charp)
{
}

void writeBytes(png_structp png, png_bytep bytes, std::size_t count)
{
    if (std::fwrite(bytes, 1, count, static_cast<std::FILE *>(png_get_io_ptr(png))) != count)
    {
        static_cast<Fault *>(png_get_error_ptr(png))->system = errno;
        png_error(png, "cannot write");
    }
}

void flushBytes(png_structp)
{
}

// Runs one step of libpng. Errors jump back to here, over frames of libpng and of the step only, so nothing in a step
// may have a destructor.
template<typename Step>
bool succeeds(png_structp png, const Step &step)
{
    if (setjmp(png_jmpbuf(png)) != 0)
    {
        return false;
    }
    step();
    return true;
}

class PngEncoder
{
public:
    PngEncoder(const std::string &file, std::FILE *stream)
        : file_(file),
          png_(png_create_write_struct(PNG_LIBPNG_VER_STRING, &fault_, leaveWithError, ignoreWarning)),
          info_(png_ == nullptr ? nullptr : png_create_info_struct(png_))
    {
        if (info_ == nullptr)
        {
            png_destroy_write_struct(&png_, nullptr);
            throw std::bad_alloc();
        }
        png_set_write_fn(png_, stream, writeBytes, flushBytes);
    }

    ~PngEncoder()
    {
        png_destroy_write_struct(&png_, &info_);
    }

    PngEncoder(const PngEncoder &) = delete;
    PngEncoder &operator=(const PngEncoder &) = delete;

    void begin(const PictureShape &shape)
    {
        static constexpr int kColourTypes[] = {PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB,
                                               PNG_COLOR_TYPE_RGB_ALPHA};
        check(succeeds(png_,
                       [&]
                       {
                           png_set_IHDR(png_, info_, shape.width, shape.height, 8,
                                        kColourTypes[static_cast<int>(shape.format) - 1], PNG_INTERLACE_NONE,
                                        PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
                           png_write_info(png_, info_);
                       }));
    }

    void addRow(const std::uint8_t *row)
    {
        check(succeeds(png_, [&] { png_write_row(png_, row); }));
    }

    void end()
    {
        check(succeeds(png_, [&] { png_write_end(png_, nullptr); }));
    }

private:
    void check(bool good) const
    {
        if (!good && fault_.system != 0)
        {
            throw std::system_error(fault_.system, std::generic_category(), file_);
        }
        if (!good)
        {
            throw std::runtime_error(file_ + ": " + fault_.text);
        }
    }

    const std::string &file_;
    Fault fault_;
    png_structp png_;
    png_infop info_;
};

} // namespace

void writePng(const std::string &file, const PictureShape &shape, const PictureRows &rows)
{
    OutputFile output(file);
    PngEncoder encoder(file, output.stream());
    encoder.begin(shape);
    for (std::uint32_t y = 0; y < shape.height; ++y)
    {
        encoder.addRow(rows(y));
    }
    encoder.end();
    output.complete();
}

} // namespace tolvin
