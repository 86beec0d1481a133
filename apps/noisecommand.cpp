#include "noisecommand.h"

#include "exitcode.h"
#include "noisepicture.h"
#include "outputfile.h"
#include "picture.h"
#include "stopsignal.h"

#include <tolvin/kernel/kernelnoise.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace tolvin
{

namespace
{

constexpr double kLargestSide = 16384.0;

struct NoiseOptions
{
    std::string file;
    std::string size = "512x512";
    std::string scale = "64";
    std::string origin = "7.3,11.6"; // not on the lattice, where all octaves meet
    std::string ramp = "grey";
    bool vector = false;
    double bump = 1.0;
    bool stretch = false;
    std::uint32_t frames = 1;
    double depth = 4.0;
    bool quiet = false;
    NoiseView view;
};

// The numbers of a text such as 640x480, where the separator is an x; none when it is anything else.
std::vector<double> numbersOf(const std::string &text, char separator)
{
    std::vector<double> numbers;
    const char *at = text.data();
    const char *const end = at + text.size();
    do
    {
        const auto [next, error] = std::from_chars(at, end, numbers.emplace_back());
        if (error != std::errc() || (next != end && *next != separator))
        {
            return {};
        }
        at = next + 1;
    } while (at <= end);
    return numbers;
}

// One or two numbers in a range, as the separator has it.
std::array<double, 2> pairOf(const std::string &option, const std::string &text, char separator, double least,
                             double most, bool oneWillDo, const std::string &expected)
{
    std::vector<double> numbers = numbersOf(text, separator);
    if (oneWillDo && numbers.size() == 1)
    {
        numbers.push_back(numbers[0]);
    }
    const auto inRange = [&](double number) { return number >= least && number <= most; }; // false for NaN
    if (numbers.size() != 2 || !std::ranges::all_of(numbers, inRange))
    {
        throw std::runtime_error(option + " " + text + ": expected " + expected);
    }
    return {numbers[0], numbers[1]};
}

NoiseView viewOf(const NoiseOptions &options)
{
    const std::string sizeExpected = "WIDTHxHEIGHT, whole numbers from 1 to 16384";
    const auto size = pairOf("--size", options.size, 'x', 1.0, kLargestSide, false, sizeExpected);
    if (size[0] != std::floor(size[0]) || size[1] != std::floor(size[1]))
    {
        throw std::runtime_error("--size " + options.size + ": expected " + sizeExpected);
    }
    const auto origin = pairOf("--origin", options.origin, ',', -1e6, 1e6, false, "X,Y, each -1e6 to 1e6");
    NoiseView view = options.view;
    view.width = static_cast<std::uint32_t>(size[0]);
    view.height = static_cast<std::uint32_t>(size[1]);
    view.scale = pairOf("--scale", options.scale, ',', 0.01, 1e6, true, "PIXELS or ACROSS,DOWN, each 0.01 to 1e6");
    view.origin = {origin[0], origin[1], options.view.origin[2]};
    view.loopDepth = options.frames > 1 ? options.depth : 0.0;
    return view;
}

// The kernel's tables, as long as they are needed.
class NoiseTables
{
public:
    NoiseTables()
    {
        if (noiseInitialize() != 1)
        {
            throw std::system_error(ENOMEM, std::generic_category(), "tables of the noise");
        }
    }

    ~NoiseTables()
    {
        noiseFree();
    }

    NoiseTables(const NoiseTables &) = delete;
    NoiseTables &operator=(const NoiseTables &) = delete;
};

// Counts rows, and keeps a line current on a terminal.
class Progress
{
public:
    explicit Progress(std::uint64_t rows) : rows_(rows), shown_(isatty(STDERR_FILENO) == 1)
    {
    }

    ~Progress()
    {
        if (shown_)
        {
            std::fputs("\r\033[K", stderr);
        }
    }

    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void countRow()
    {
        StopOnSignal::check();
        const auto percent = static_cast<int>(100 * ++done_ / rows_);
        if (shown_ && percent != percent_)
        {
            percent_ = percent;
            std::fprintf(stderr, "\r%d %%", percent);
        }
    }

private:
    std::uint64_t rows_;
    std::uint64_t done_ = 0;
    bool shown_;
    int percent_ = -1;
};

class NoiseWriter
{
public:
    explicit NoiseWriter(const NoiseOptions &options)
        : options_(options),
          view_(viewOf(options)),
          form_(options.vector ? NoiseForm::Vector : NoiseForm::Scalar),
          ramp_(*colourRampNamed(options.ramp)),
          format_(!options.vector && ramp_.grey ? PixelFormat::Grey : PixelFormat::Rgb),
          pixels_(view_.width * static_cast<std::size_t>(format_)),
          progress_((options.stretch ? 2ull : 1ull) * options.frames * view_.height)
    {
    }

    void run()
    {
        if (!std::filesystem::path(options_.file).has_filename() || (options_.frames > 1 && !mayBeNumbered()))
        {
            throw std::runtime_error("file " + options_.file + ": expected the name of a file");
        }
        if (options_.stretch)
        {
            findRange();
        }
        for (std::uint32_t frame = 0; frame < options_.frames; ++frame)
        {
            writeFrame(frame);
        }
    }

    // FILE itself, or FILE-000.png and so on.
    std::string nameOf(std::uint32_t frame) const
    {
        if (options_.frames == 1)
        {
            return options_.file;
        }
        const std::filesystem::path file = options_.file;
        const std::size_t digits = std::max<std::size_t>(3, std::to_string(options_.frames - 1).size());
        const std::string number = std::to_string(frame);
        const std::string extension = file.has_extension() ? file.extension().string() : ".png";
        return (file.parent_path() / file.stem()).string() + "-" + std::string(digits - number.size(), '0') + number +
               extension;
    }

    std::string summary() const
    {
        const std::string names =
            options_.frames == 1 ? nameOf(0) : nameOf(0) + " to " + nameOf(options_.frames - 1) + ", each";
        return names + ": " + std::to_string(view_.width) + " x " + std::to_string(view_.height) + " pixels";
    }

private:
    // A device or a pipe cannot take several pictures.
    bool mayBeNumbered() const
    {
        std::error_code error;
        const auto status = std::filesystem::status(options_.file, error);
        return !std::filesystem::exists(status) || std::filesystem::is_regular_file(status);
    }

    NoiseSlice sliceOf(std::uint32_t frame) const
    {
        return NoiseSlice(view_, form_, static_cast<double>(frame) / options_.frames);
    }

    // One range for all frames, since an animation would flicker otherwise. Nothing is kept of what was computed: a
    // large picture would need gigabytes.
    void findRange()
    {
        range_ = {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
        for (std::uint32_t frame = 0; frame < options_.frames; ++frame)
        {
            NoiseSlice slice = sliceOf(frame);
            for (std::uint32_t y = 0; y < view_.height; ++y)
            {
                const auto [low, high] = std::ranges::minmax(slice.row(y));
                range_ = {std::min(range_.low, low), std::max(range_.high, high)};
                progress_.countRow();
            }
        }
    }

    void writeFrame(std::uint32_t frame)
    {
        NoiseSlice slice = sliceOf(frame);
        const auto drawRow = [&](std::uint32_t y)
        {
            const std::span<const double> values = slice.row(y);
            if (form_ == NoiseForm::Vector)
            {
                drawNormals(values, options_.bump, pixels_.data());
            }
            else
            {
                drawColours(values, range_, ramp_, pixels_.data());
            }
            progress_.countRow();
            return pixels_.data();
        };
        writePicture(nameOf(frame), {view_.width, view_.height, format_}, drawRow);
    }

    const NoiseOptions &options_;
    NoiseView view_;
    NoiseForm form_;
    const ColourRamp &ramp_;
    PixelFormat format_;
    ValueRange range_;
    std::vector<std::uint8_t> pixels_;
    Progress progress_;
};

void runNoise(const NoiseOptions &options)
{
    const StopOnSignal stop;
    const NoiseTables tables;
    std::string summary;
    {
        NoiseWriter writer(options); // it takes its line of progress away in the end
        writer.run();
        summary = writer.summary();
    }
    // Behind a picture on standard output the line would be part of it.
    if (!options.quiet && descriptorNamed(options.file) != STDOUT_FILENO)
    {
        std::printf("%s\n", summary.c_str());
        flushOutput();
    }
}

void addNoiseOptions(const Command &command, NoiseOptions &o)
{
    command.add("file", o.file, "file to write: PNG, or an SGI image where its name ends in .sgi, .rgb, .rgba or .bw")
        .required();
    command.add("--size", o.size, "WIDTHxHEIGHT in pixels, each up to 16384");
    command.add("--scale", o.scale,
                "PIXELS per unit of the noise's lattice, or ACROSS,DOWN; beyond about 1000 the steps of "
                "1/1024 show in which the lattice counts");
    command.add("--origin", o.origin, "X,Y of the first pixel, lattice units");
    command.add("--z", o.view.origin[2], "height of the slice, lattice units; of the first with --frames")
        .check(within(-1e6, 1e6));
    command.add("--octaves", o.view.octaves, "layers of noise to add up").check(within(1, 32));
    command.add("--amplitude-factor", o.view.amplitudeFactor, "from each layer to the next").check(within(0.0, 4.0));
    command.add("--frequency-factor", o.view.frequencyFactor, "from each layer to the next").check(within(0.0, 16.0));
    command.addFlag("--tile", o.view.tile, "let the picture continue at its opposite edges");
    const Option frames =
        command.add("--frames", o.frames, "pictures of an animation through z that runs in a loop: FILE-000.png ...")
            .check(within(1, 100000));
    command.add("--depth", o.depth, "lattice units of z from the start of the loop to its end; best some units")
        .check(within(0.001, 4096.0))
        .needs(frames);
    command.addFlag("--quiet", o.quiet, "print nothing when all went well");
}

void addColourOptions(const Command &command, NoiseOptions &o)
{
    std::vector<std::string> names;
    for (const ColourRamp &ramp : colourRamps())
    {
        names.emplace_back(ramp.name);
    }
    const Option ramp = command.add("--ramp", o.ramp, "colours of the values from 0 to 1").oneOf(names);
    const Option stretch =
        command.addFlag("--stretch", o.stretch, "spread the least to the greatest value over the colours");
    const Option vector = command.addFlag("--vector", o.vector, "draw the vector noise, as a normal map")
                              .excludes(ramp)
                              .excludes(stretch);
    command.add("--bump", o.bump, "how far the vectors bend the normals").check(within(0.0, 1000.0)).needs(vector);
}

} // namespace

void addNoiseCommand(CommandLine &line)
{
    const auto options = std::make_shared<NoiseOptions>();
    const Command command = line.addCommand("noise", "draw noise, turbulence or a normal map of them as PNG",
                                            [options] { runNoise(*options); });
    command.showDefaults();
    command.widerHelp();
    addNoiseOptions(command, *options);
    addColourOptions(command, *options);
}

} // namespace tolvin
