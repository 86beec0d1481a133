#include "imagecommand.h"

#include "counted.h"
#include "exitcode.h"
#include "inputfile.h"
#include "outputfile.h"
#include "pngfile.h"
#include "quietstderr.h"
#include "sgifile.h"
#include "stopsignal.h"

#include <tolvin/kernel/kernelimage.h>
#include <tolvin/performer/pf.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
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

SgiHeader headerOf(const std::string &content)
{
    const std::optional<SgiHeader> header = sgiHeaderOf(content);
    if (!header)
    {
        throw std::runtime_error("not an SGI image: expected 512 bytes that begin with 01 da");
    }
    return *header;
}

// An image read by the kernel. Throws std::runtime_error when anything of it is missing.
class Image
{
public:
    explicit Image(std::string content)
    {
        const SgiHeader header = headerOf(content);
        const bool isReadable =
            header.width > 0 && header.height > 0 && header.channels > 0 && header.channels <= kMostChannels;
        // Before the kernel makes room for what the header promises: it takes a file that ends early.
        const std::string fault = isReadable ? sgiFault(content, header) : "";
        if (!fault.empty())
        {
            throw std::runtime_error(fault);
        }
        const std::string messages = load(content);
        if (texture_.image == nullptr)
        {
            throw std::runtime_error(isReadable ? "no room for its pixels" : reasonIn(messages));
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
                 [&](std::uint32_t y)
                 {
                     StopOnSignal::check();
                     return texture_.image + (height - 1 - y) * rowSize;
                 });
    }

private:
    static constexpr std::size_t kMostChannels = 4;

    // Returns what the kernel has to say.
    std::string load(std::string &content)
    {
        const std::unique_ptr<std::FILE, int (*)(std::FILE *)> stream(fmemopen(content.data(), content.size(), "rb"),
                                                                      std::fclose);
        if (stream == nullptr)
        {
            throw std::bad_alloc();
        }
        const QuietStandardError quiet;
        textureInit(&texture_, nullptr);
        imageLoadSGI(&texture_, stream.get());
        return quiet.text();
    }

    // The kernel's lines but for those of level "Debug", without their prefix.
    static std::string reasonIn(const std::string &messages)
    {
        std::istringstream lines(messages);
        std::string reason;
        for (std::string line; std::getline(lines, line);)
        {
            const std::size_t prefix = line.find(": ");
            if (line.find(" Debug: ") == std::string::npos && prefix != std::string::npos)
            {
                reason += (reason.empty() ? "" : "; ") + line.substr(prefix + 2);
            }
        }
        return reason.empty() ? "cannot be read" : reason;
    }

    vuTexture texture_;
};

// What the first bytes of a file say, be it usable or not.
std::string headerText(const fs::path &file)
{
    const SgiHeader header = headerOf(contentOf(file, [](const std::string &) { return false; }));
    std::ostringstream text;
    text << file.string() << ": " << header.width << " x " << header.height << ", "
         << counted(header.channels, "channel") << " of " << counted(header.bytesPerChannel, "byte") << ", "
         << (header.runLength ? "run-length encoded" : "verbatim");
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    if (!error)
    {
        text << ", " << counted(size, "byte");
    }
    if (!header.name.empty())
    {
        text << ", \"" << header.name << '"';
    }
    return text.str();
}

struct Job
{
    fs::path in;
    fs::path out; // empty: describe
};

bool isFolder(const fs::path &path)
{
    std::error_code error;
    return fs::is_directory(path, error);
}

// The images in a folder, and what is named so but cannot be followed.
std::vector<fs::path> imagesIn(const fs::path &folder)
{
    std::vector<fs::path> images;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error))
    {
        std::error_code unknown;
        const bool isFile = entry->is_regular_file(unknown);
        if ((isFile || unknown) && hasSgiName(entry->path()))
        {
            images.push_back(entry->path());
        }
    }
    if (error)
    {
        throw std::runtime_error(folder.string() + ": " + error.message());
    }
    if (images.empty())
    {
        throw std::runtime_error("input " + folder.string() +
                                 ": expected images in it, named .sgi, .rgb, .rgba, .bw or so");
    }
    std::sort(images.begin(), images.end());
    return images;
}

std::vector<Job> jobsOf(const ImageOptions &options)
{
    const auto output = [&](const fs::path &file)
    { return options.info ? fs::path() : fs::path(options.out) / file.filename().replace_extension(".png"); };
    if (!isFolder(options.in))
    {
        const bool intoFolder = !options.info && isFolder(options.out);
        return {{options.in, intoFolder ? output(options.in) : fs::path(options.out)}};
    }
    if (!options.info && !isFolder(options.out))
    {
        throw std::runtime_error("output " + options.out + ": expected a folder, as the input is one");
    }
    std::vector<Job> jobs;
    for (const fs::path &image : imagesIn(options.in))
    {
        jobs.push_back({image, output(image)});
    }
    return jobs;
}

// A bar on a terminal, for folders.
class ProgressBar
{
public:
    ProgressBar(std::size_t total, bool wanted) : total_(total), shown_(wanted && isatty(STDERR_FILENO) == 1)
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

// Converts, or describes, one image after another.
class Converter
{
public:
    explicit Converter(const std::vector<Job> &jobs)
    {
        for (const Job &job : jobs)
        {
            images_.insert(placeOf(job.in));
        }
    }

    // Throws std::runtime_error when the image is broken or one would be lost, std::system_error when the picture cannot be
    // written.
    void run(const Job &job)
    {
        try
        {
            if (job.out.empty())
            {
                std::printf("%s\n", headerText(job.in).c_str());
                return;
            }
            const Image image(contentOf(job.in, isImage));
            refuseLoss(job);
            image.writePicture(job.out);
        }
        catch (const std::system_error &)
        {
            throw;
        }
        catch (const std::runtime_error &error)
        {
            const std::string name = job.in.string();
            const bool isNamed = std::string_view(error.what()).starts_with(name + ": ");
            throw std::runtime_error((isNamed ? "" : name + ": ") + error.what());
        }
    }

private:
    // Before all of it is read.
    static bool isImage(const std::string &content)
    {
        StopOnSignal::check();
        headerOf(content);
        return true;
    }

    static fs::path placeOf(const fs::path &file)
    {
        std::error_code error;
        const fs::path place = fs::weakly_canonical(file, error);
        return error ? file : place;
    }

    void refuseLoss(const Job &job)
    {
        std::error_code error;
        const fs::path place = placeOf(job.out);
        if (images_.contains(place) || fs::equivalent(job.in, job.out, error))
        {
            throw std::runtime_error(job.out.string() + " is an image to convert itself");
        }
        const auto [picture, isNew] = pictures_.emplace(place, job.in);
        if (!isNew && fs::is_regular_file(place, error))
        {
            throw std::runtime_error(job.out.string() + " is the picture of " + picture->second.string());
        }
    }

    std::set<fs::path> images_;
    std::map<fs::path, fs::path> pictures_; // and of which image they are
};

// Returns how many images were broken.
std::size_t runJobs(const std::vector<Job> &jobs, const ProgressBar &bar)
{
    Converter converter(jobs);
    std::size_t broken = 0;
    for (std::size_t i = 0; i < jobs.size(); ++i)
    {
        StopOnSignal::check();
        bar.show(i);
        try
        {
            converter.run(jobs[i]);
        }
        catch (const std::runtime_error &error)
        {
            bar.clear();
            if (jobs.size() == 1 || dynamic_cast<const std::system_error *>(&error) != nullptr)
            {
                throw;
            }
            std::fprintf(stderr, "Error: %s\n", error.what());
            ++broken; // and the others go on
        }
    }
    bar.clear();
    return broken;
}

void runImage(const ImageOptions &options)
{
    if (options.info != options.out.empty())
    {
        throw std::runtime_error(options.info ? "output " + options.out + ": expected none with --info"
                                              : "expected the name of an output, or --info");
    }
    if (hasSgiName(options.out) && !isFolder(options.out))
    {
        throw std::runtime_error("output " + options.out + ": expected the name of a PNG file");
    }
    const StopOnSignal stop;
    const std::vector<Job> jobs = jobsOf(options);
    const std::size_t broken =
        runJobs(jobs, ProgressBar(jobs.size(), jobs.size() > 1 && !options.info && !options.quiet));
    // Behind a picture on standard output the line would be part of it.
    if (!options.quiet && !options.info && descriptorNamed(options.out) != STDOUT_FILENO)
    {
        std::printf("%zu of %zu images converted\n", jobs.size() - broken, jobs.size());
    }
    flushOutput();
    if (broken > 0)
    {
        throw std::runtime_error(counted(broken, "image") + " of " + std::to_string(jobs.size()) + " cannot be " +
                                 (options.info ? "described" : "converted"));
    }
}

} // namespace

void addImageCommand(CommandLine &line)
{
    const auto options = std::make_shared<ImageOptions>();
    const Command command = line.addCommand("image", "convert SGI images to PNG", [options] { runImage(*options); });
    command.widerHelp();
    command.add("input", options->in, "SGI image, or folder of them").required();
    command.add("output", options->out, "PNG file, or folder for them");
    command.addFlag("--info", options->info, "print what the headers say instead");
    command.addFlag("--quiet", options->quiet, "print nothing when all went well");
}

} // namespace tolvin
