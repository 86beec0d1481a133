#include "pngfile.h"

#include "outputfile.h"
#include "pngsteps.h"

#include <cerrno>
#include <cstdio>
#include <functional>
#include <new>
#include <stdexcept>
#include <system_error>

#include <png.h>

namespace tolvin
{

namespace
{

// Takes bytes; returns 0, or an error number of the system.
using Sink = std::function<int(const std::uint8_t *bytes, std::size_t count)>;

void flushBytes(png_structp)
{
}

class PngEncoder
{
public:
    // name is what errors call it.
    PngEncoder(const std::string &name, const Sink &sink)
        : name_(name),
          sink_(sink),
          png_(png_create_write_struct(PNG_LIBPNG_VER_STRING, &fault_, leaveWithPngError, ignorePngWarning)),
          info_(png_ == nullptr ? nullptr : png_create_info_struct(png_))
    {
        if (info_ == nullptr)
        {
            png_destroy_write_struct(&png_, nullptr);
            throw std::bad_alloc();
        }
        png_set_write_fn(png_, this, writeBytes, flushBytes);
    }

    ~PngEncoder()
    {
        png_destroy_write_struct(&png_, &info_);
    }

    PngEncoder(const PngEncoder &) = delete;
    PngEncoder &operator=(const PngEncoder &) = delete;

    void encode(const PictureShape &shape, const PictureRows &rows)
    {
        begin(shape);
        for (std::uint32_t y = 0; y < shape.height; ++y)
        {
            const std::uint8_t *const row = rows(y);
            check(pngSucceeds(png_, [&] { png_write_row(png_, row); }));
        }
        check(pngSucceeds(png_, [&] { png_write_end(png_, nullptr); }));
    }

private:
    static void writeBytes(png_structp png, png_bytep bytes, std::size_t count)
    {
        auto &encoder = *static_cast<PngEncoder *>(png_get_io_ptr(png));
        encoder.fault_.system = encoder.sink_(bytes, count);
        if (encoder.fault_.system != 0)
        {
            png_error(png, "cannot write");
        }
    }

    void begin(const PictureShape &shape)
    {
        static constexpr int kColourTypes[] = {PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB,
                                               PNG_COLOR_TYPE_RGB_ALPHA};
        check(pngSucceeds(png_,
                          [&]
                          {
                              png_set_IHDR(png_, info_, shape.width, shape.height, 8,
                                           kColourTypes[static_cast<int>(shape.format) - 1], PNG_INTERLACE_NONE,
                                           PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
                              png_write_info(png_, info_);
                          }));
    }

    void check(bool good) const
    {
        if (!good && fault_.system != 0)
        {
            throw std::system_error(fault_.system, std::generic_category(), name_);
        }
        if (!good)
        {
            throw std::runtime_error(name_ + ": " + fault_.text);
        }
    }

    const std::string &name_;
    const Sink &sink_;
    PngFault fault_;
    png_structp png_;
    png_infop info_;
};

} // namespace

void writePng(const std::string &file, const PictureShape &shape, const PictureRows &rows)
{
    OutputFile output(file);
    const Sink sink = [stream = output.stream()](const std::uint8_t *bytes, std::size_t count) {
        return std::fwrite(bytes, 1, count, stream) == count ? 0 : errno != 0 ? errno : EIO;
    };
    PngEncoder(file, sink).encode(shape, rows);
    output.complete();
}

std::vector<std::uint8_t> encodedPng(const PictureShape &shape, const PictureRows &rows)
{
    std::vector<std::uint8_t> result;
    const Sink sink = [&](const std::uint8_t *bytes, std::size_t count)
    {
        try // libpng's frames are C
        {
            result.insert(result.end(), bytes, bytes + count);
            return 0;
        }
        catch (const std::bad_alloc &)
        {
            return ENOMEM;
        }
    };
    const std::string name = "PNG";
    PngEncoder(name, sink).encode(shape, rows);
    return result;
}

} // namespace tolvin
