#include "pngfile.h"

#include "outputfile.h"

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include <png.h>

namespace tolvin
{

namespace
{

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
