#include "heightgrid.h"

#include "pngsteps.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <limits>
#include <new>
#include <stdexcept>
#include <string_view>

namespace tolvin
{

namespace
{

constexpr std::size_t kMostAcross = 16384; // heights, in either direction
constexpr float kUnknown = std::numeric_limits<float>::quiet_NaN();

std::string sizeText(std::size_t columns, std::size_t rows)
{
    return std::to_string(columns) + " x " + std::to_string(rows);
}

unsigned bigEndian16(const std::uint8_t *bytes)
{
    return static_cast<unsigned>(bytes[0]) << 8 | bytes[1];
}

// A PNG file in memory, as rows of 8 or 16 bits a channel, palettes and transparent colours expanded.
class PngDecoder
{
public:
    explicit PngDecoder(std::span<const std::uint8_t> bytes)
        : rest_(bytes),
          png_(png_create_read_struct(PNG_LIBPNG_VER_STRING, &fault_, leaveWithPngError, ignorePngWarning)),
          info_(png_ == nullptr ? nullptr : png_create_info_struct(png_))
    {
        if (info_ == nullptr)
        {
            png_destroy_read_struct(&png_, nullptr, nullptr);
            throw std::bad_alloc();
        }
        png_set_read_fn(png_, this, takeBytes);
        png_set_user_limits(png_, PNG_UINT_31_MAX, PNG_UINT_31_MAX); // ours are told better
    }

    ~PngDecoder()
    {
        png_destroy_read_struct(&png_, &info_, nullptr);
    }

    PngDecoder(const PngDecoder &) = delete;
    PngDecoder &operator=(const PngDecoder &) = delete;

    void begin()
    {
        const std::size_t size = rest_.size();
        check(pngSucceeds(png_, [&] { png_read_info(png_, info_); }));
        checkSize(size);
        check(pngSucceeds(png_,
                          [&]
                          {
                              png_set_expand(png_);
                              png_read_update_info(png_, info_);
                          }));
        channels_ = png_get_channels(png_, info_);
        depth_ = png_get_bit_depth(png_, info_);
        row_.resize(png_get_rowbytes(png_, info_));
    }

    std::size_t width() const
    {
        return png_get_image_width(png_, info_);
    }

    std::size_t height() const
    {
        return png_get_image_height(png_, info_);
    }

    // Calls take(row, column, brightness from 0 to 1, or NaN) for each pixel, in the order of the file.
    template<typename Take>
    void forEachPixel(const Take &take)
    {
        if (png_get_interlace_type(png_, info_) == PNG_INTERLACE_NONE)
        {
            for (std::size_t y = 0; y < height(); ++y)
            {
                forEachPixelOfRow(width(), [&](std::size_t x, double value) { take(y, x, value); });
            }
        }
        else
        {
            forEachPixelOfPasses(take);
        }
        check(pngSucceeds(png_, [&] { png_read_end(png_, nullptr); }));
    }

private:
    static void takeBytes(png_structp png, png_bytep to, std::size_t count)
    {
        auto &rest = static_cast<PngDecoder *>(png_get_io_ptr(png))->rest_;
        if (count > rest.size())
        {
            png_error(png, "ends early");
        }
        std::copy_n(rest.begin(), count, to);
        rest = rest.subspan(count);
    }

    // Before there is room made for what the header promises. No byte of deflated data gives more than 1032.
    void checkSize(std::size_t fileSize) const
    {
        constexpr std::size_t kMostInflation = 1032;
        if (width() > kMostAcross || height() > kMostAcross)
        {
            throw std::runtime_error(sizeText(width(), height()) + " pixels: expected at most " +
                                     sizeText(kMostAcross, kMostAcross));
        }
        if (std::uint64_t{png_get_rowbytes(png_, info_)} * height() / kMostInflation > fileSize)
        {
            throw std::runtime_error("not a whole PNG file: ends early");
        }
    }

    // Those of interlaced files are small pictures of every so manieth pixel each.
    template<typename Take>
    void forEachPixelOfPasses(const Take &take)
    {
        const auto columns = static_cast<png_uint_32>(width());
        const auto rows = static_cast<png_uint_32>(height());
        for (int pass = 0; pass < PNG_INTERLACE_ADAM7_PASSES; ++pass)
        {
            const std::size_t across = PNG_PASS_COLS(columns, pass);
            const std::size_t down = across == 0 ? 0 : PNG_PASS_ROWS(rows, pass);
            for (std::size_t y = 0; y < down; ++y)
            {
                forEachPixelOfRow(across, [&](std::size_t x, double value)
                                  { take(PNG_ROW_FROM_PASS_ROW(y, pass), PNG_COL_FROM_PASS_COL(x, pass), value); });
            }
        }
    }

    template<typename Take>
    void forEachPixelOfRow(std::size_t count, const Take &take)
    {
        check(pngSucceeds(png_, [&] { png_read_row(png_, row_.data(), nullptr); }));
        const std::size_t size = channels_ * depth_ / 8;
        for (std::size_t x = 0; x < count; ++x)
        {
            take(x, brightnessOf(row_.data() + x * size));
        }
    }

    // Of stored values, whatever light they stand for; weights of ITU-R BT.709.
    double brightnessOf(const std::uint8_t *pixel) const
    {
        const auto channel = [&](std::size_t i)
        { return depth_ == 16 ? bigEndian16(pixel + 2 * i) / 65535.0 : pixel[i] / 255.0; };
        if (channels_ % 2 == 0 && channel(channels_ - 1) == 0.0)
        {
            return kUnknown;
        }
        return channels_ < 3 ? channel(0) : 0.2126 * channel(0) + 0.7152 * channel(1) + 0.0722 * channel(2);
    }

    void check(bool good) const
    {
        if (!good)
        {
            throw std::runtime_error(std::string("not a whole PNG file: ") + fault_.text);
        }
    }

    std::span<const std::uint8_t> rest_;
    PngFault fault_;
    png_structp png_;
    png_infop info_;
    std::size_t channels_ = 0;
    std::size_t depth_ = 0;
    std::vector<std::uint8_t> row_;
};

} // namespace

HeightGrid readHgt(std::span<const std::uint8_t> bytes)
{
    const std::size_t count = bytes.size() / 2;
    const auto across = static_cast<std::size_t>(std::sqrt(static_cast<double>(count)) + 0.5);
    if (across < 2 || across > kMostAcross || across * across * 2 != bytes.size())
    {
        throw std::runtime_error(std::to_string(bytes.size()) +
                                 " bytes: expected a square of heights of 2 bytes each, " +
                                 "such as 2884802 bytes for 1201 x 1201 or 25934402 for 3601 x 3601");
    }
    HeightGrid grid{across, across, std::vector<float>(count)};
    for (std::size_t i = 0; i < count; ++i)
    {
        const auto height = static_cast<std::int16_t>(bigEndian16(&bytes[2 * i]));
        grid.heights[i] = height == INT16_MIN ? kUnknown : static_cast<float>(height);
    }
    return grid;
}

std::optional<CellCorner> cellCornerOf(const std::string &file)
{
    std::string name = std::filesystem::path(file).filename().string().substr(0, 8);
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const auto numberIn = [](std::string_view digits)
    {
        int number = -1;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
        return error == std::errc() && end == digits.data() + digits.size() ? number : -1;
    };
    if (name.size() < 7 || (name[0] != 'N' && name[0] != 'S') || (name[3] != 'E' && name[3] != 'W') ||
        (name.size() > 7 && std::isdigit(static_cast<unsigned char>(name[7])) != 0))
    {
        return std::nullopt;
    }
    const int latitude = numberIn(std::string_view(name).substr(1, 2));
    const int longitude = numberIn(std::string_view(name).substr(4, 3));
    const CellCorner corner = {name[0] == 'N' ? latitude : -latitude, name[3] == 'E' ? longitude : -longitude};
    const bool onEarth = latitude >= 0 && longitude >= 0 && corner.latitude >= -90 && corner.latitude < 90 &&
                         corner.longitude >= -180 && corner.longitude < 180;
    return onEarth ? std::optional(corner) : std::nullopt;
}

HeightGrid readHeightPicture(std::span<const std::uint8_t> bytes, double lowest, double highest)
{
    if (png_sig_cmp(bytes.data(), 0, std::min<std::size_t>(bytes.size(), 8)) != 0)
    {
        throw std::runtime_error("no PNG file: expected one that begins with 89 50 4e 47");
    }
    PngDecoder decoder(bytes);
    decoder.begin();
    HeightGrid grid{decoder.width(), decoder.height(), {}};
    grid.heights.resize(grid.columns * grid.rows);
    decoder.forEachPixel(
        [&](std::size_t row, std::size_t column, double value)
        { grid.heights[row * grid.columns + column] = static_cast<float>(lowest + (highest - lowest) * value); });
    return grid;
}

} // namespace tolvin
