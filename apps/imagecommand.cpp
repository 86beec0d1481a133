#include "imagecommand.h"

#include "exitcode.h"
#include "pngfile.h"
#include "quietstderr.h"

#include <tolvin/kernel/kernelimage.h>
#include <tolvin/performer/pf.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace tolvin
{

namespace
{

namespace fs = std::filesystem;

struct ImageOptions
{
    std::string in;
    std::string out;
    bool info = false;
    bool quiet = false;
};

using Stream = std::unique_ptr<std::FILE, decltype([](std::FILE *file) { std::fclose(file); })>;

// An image file read by the kernel.
class Image
{
public:
    explicit Image(const fs::path &file)
    {
        const Stream stream(std::fopen(file.c_str(), "rb"));
        if (stream == nullptr)
        {
            throw std::runtime_error(file.string() + ": " + std::generic_category().message(errno));
        }
        std::string messages;
        {
            const QuietStandardError quiet;
            textureInit(&texture_, nullptr);
            imageLoadSGI(&texture_, stream.get());
            messages = quiet.text();
        }
        if (texture_.image == nullptr)
        {
            throw std::runtime_error(file.string() + ": " + reasonIn(messages));
        }
    }

    ~Image()
    {
        pfFree(texture_.image);
    }

    Image(const Image &) = delete;
    Image &operator=(const Image &) = delete;

    // Rows go up in the image and down in the picture.
    void writePicture(const fs::path &file) const
    {
        const auto height = static_cast<std::uint32_t>(texture_.height);
        const auto rowSize = static_cast<std::size_t>(texture_.width) * static_cast<std::size_t>(texture_.components);
        writePng(file,
                 {static_cast<std::uint32_t>(texture_.width), height, static_cast<PixelFormat>(texture_.components)},
                 [&](std::uint32_t y) { return texture_.image + (height - 1 - y) * rowSize; });
    }

private:
    // The kernel's lines but for those of level "Debug", without their prefix.
    static std::string reasonIn(const std::string &messages)
    {
        std::istringstream lines(messages);
        std::string reason;
        for (std::string line; std::getline(lines, line);)
        {
            const bool isDebug = line.find(" Debug: ") != std::string::npos;
            const std::size_t prefix = line.find(": ");
            if (!isDebug && !line.empty())
            {
                reason += (reason.empty() ? "" : "; ") + (prefix == std::string::npos ? line : line.substr(prefix + 2));
            }
        }
        return reason.empty() ? "not an SGI image: expected 01 da as its first two bytes" : reason;
    }

    vuTexture texture_;
};

// What the first bytes of a file say, be it usable or not.
std::string headerText(const fs::path &file)
{
    const Stream stream(std::fopen(file.c_str(), "rb"));
    if (stream == nullptr)
    {
        throw std::runtime_error(file.string() + ": " + std::generic_category().message(errno));
    }
    std::array<unsigned char, 512> header = {};
    const std::size_t size = std::fread(header.data(), 1, header.size(), stream.get());
    const auto word = [&header](std::size_t at) { return header[at] << 8 | header[at + 1]; };
    if (size < header.size() || word(0) != 474)
    {
        throw std::runtime_error(file.string() + ": not an SGI image: expected 512 bytes that begin with 01 da");
    }
    const std::string name(reinterpret_cast<const char *>(header.data() + 24),
                           strnlen(reinterpret_cast<const char *>(header.data() + 24), 80));
    std::ostringstream text;
    text << file.string() << ": " << word(6) << " x " << word(8) << ", " << word(10) << " channels of "
         << int{header[3]} << " bytes, " << (header[2] == 1 ? "run-length encoded" : "verbatim") << ", "
         << fs::file_size(file) << " bytes";
    const auto isPrintable = [](unsigned char c) { return c >= ' ' && c < 0x7F; };
    if (!name.empty() && std::all_of(name.begin(), name.end(), isPrintable))
    {
        text << ", \"" << name << '"';
    }
    return text.str();
}

struct Job
{
    fs::path in;
    fs::path out; // empty: describe
};

std::vector<Job> jobsOf(const ImageOptions &options)
{
    const auto output = [&](const fs::path &file)
    { return options.info ? fs::path() : fs::path(options.out) / file.filename().replace_extension(".png"); };
    if (!fs::is_directory(options.in))
    {
        const bool intoFolder = fs::is_directory(options.out);
        return {{options.in, options.info ? fs::path() : intoFolder ? output(options.in) : fs::path(options.out)}};
    }
    if (!options.info && !fs::is_directory(options.out))
    {
        throw std::runtime_error("output " + options.out + ": expected a folder, as the input is one");
    }
    std::vector<Job> jobs;
    for (const fs::directory_entry &entry : fs::directory_iterator(options.in))
    {
        if (entry.is_regular_file() && hasSgiName(entry.path()))
        {
            jobs.push_back({entry.path(), output(entry.path())});
        }
    }
    if (jobs.empty())
    {
        throw std::runtime_error("input " + options.in + ": expected images in it, named .sgi, .rgb, .rgba, .bw or so");
    }
    std::sort(jobs.begin(), jobs.end(), [](const Job &a, const Job &b) { return a.in < b.in; });
    return jobs;
}

// A bar on a terminal, for folders.
class ProgressBar
{
public:
    explicit ProgressBar(std::size_t total) : total_(total), shown_(total > 1 && isatty(STDERR_FILENO) == 1)
    {
    }

    void show(std::size_t done) const
    {
        constexpr std::size_t kWidth = 40;
        if (shown_)
        {
            const std::string full(done * kWidth / total_, '=');
            std::fprintf(stderr, "\r[%-*s] %zu of %zu", static_cast<int>(kWidth), full.c_str(), done, total_);
        }
    }

    void clear() const
    {
        if (shown_)
        {
            std::fputs("\r\033[K", stderr);
        }
    }

private:
    std::size_t total_;
    bool shown_;
};

void runJob(const Job &job)
{
    if (job.out.empty())
    {
        std::printf("%s\n", headerText(job.in).c_str());
        return;
    }
    Image(job.in).writePicture(job.out);
}

void runImage(const ImageOptions &options)
{
    if (options.info != options.out.empty())
    {
        throw std::runtime_error("output " + options.out + ": expected " + (options.info ? "none" : "a name") +
                                 (options.info ? " with --info" : ", or --info"));
    }
    const std::vector<Job> jobs = jobsOf(options);
    const ProgressBar bar(jobs.size());
    std::size_t broken = 0;
    for (std::size_t i = 0; i < jobs.size(); ++i)
    {
        bar.show(i);
        try
        {
            runJob(jobs[i]);
        }
        catch (const std::runtime_error &error)
        {
            const bool isFailure = dynamic_cast<const std::system_error *>(&error) != nullptr;
            if (isFailure || jobs.size() == 1)
            {
                bar.clear();
                throw;
            }
            // The others go on.
            bar.clear();
            std::fprintf(stderr, "Error: %s\n", error.what());
            ++broken;
        }
    }
    bar.clear();
    if (!options.quiet && !options.info)
    {
        std::printf("%zu of %zu images converted\n", jobs.size() - broken, jobs.size());
    }
    flushOutput();
    if (broken > 0)
    {
        throw std::runtime_error(std::to_string(broken) + " of " + std::to_string(jobs.size()) + " images are broken");
    }
}

} // namespace

void addImageCommand(CLI::App &app, int &exitCode)
{
    CLI::App *const command = app.add_subcommand("image", "convert SGI images to PNG");
    command->get_formatter()->column_width(40);
    const auto options = std::make_shared<ImageOptions>();
    command->add_option("input", options->in, "SGI image, or folder of them")->required();
    command->add_option("output", options->out, "PNG file, or folder for them");
    command->add_flag("--info", options->info, "print what the headers say instead");
    command->add_flag("--quiet", options->quiet, "print nothing when all went well");
    command->callback([options, &exitCode] { exitCode = exitCodeOf([&] { runImage(*options); }); });
}

} // namespace tolvin
