#include "pluginscommand.h"

#include "counted.h"
#include "exitcode.h"
#include "plaintext.h"
#include "pluginpath.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <dlfcn.h>

namespace tolvin
{

namespace
{

namespace fs = std::filesystem;

constexpr const char *kEntryPoints[] = {"fxInit",        "fxInitInst", "fxUpdate",  "fxTrigger", "fxObtain",
                                        "fxTriggerInst", "fxStopInst", "fxGetData", "fxSetData", "fxGetInstData",
                                        "fxSetInstData", "fxFreeInst", "fxFree"};

void printLine(const char *head, const std::string &names)
{
    if (!names.empty())
    {
        std::printf("  %s%s\n", head, names.c_str());
    }
}

// Returns whether it can be opened.
bool show(const fs::path &file)
{
    std::printf("%s  %s\n", plainText(file.stem().string()).c_str(),
                plainText(file.string(), std::string::npos).c_str());
    const std::string reason = whyNotOpened(file);
    void *const handle = reason.empty() ? dlopen(file.c_str(), RTLD_LAZY) : nullptr;
    if (handle == nullptr)
    {
        std::printf("  does not open: %s\n", plainText(reason, std::string::npos).c_str());
        return false;
    }
    std::string there, missing;
    for (const char *const name : kEntryPoints)
    {
        (dlsym(handle, name) != nullptr ? there : missing) += std::string(" ") + name;
    }
    dlclose(handle);
    printLine("has", there);
    printLine("lacks", missing);
    return true;
}

// In the order in which they are found.
std::vector<fs::path> filesIn(const std::string &folder)
{
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    {
        if (entry->path().extension() == ".so")
        {
            files.push_back(entry->path());
        }
    }
    std::ranges::sort(files);
    return files;
}

void showInstalled()
{
    for (const std::string &folder : pluginFolders())
    {
        const std::vector<fs::path> files = filesIn(folder);
        std::ranges::for_each(files, show);
        if (files.empty())
        {
            std::printf("no plug-ins in %s\n", folder.c_str());
        }
    }
    flushOutput();
}

// A name without a folder is a file here, and not one of the loader's own folders.
void showFiles(const std::vector<std::string> &files)
{
    const auto shut = std::ranges::count_if(
        files, [](const std::string &file) { return !show(file.find('/') == std::string::npos ? "./" + file : file); });
    flushOutput();
    if (shut > 0)
    {
        throw std::runtime_error(counted(static_cast<std::size_t>(shut), "file") + " cannot be opened");
    }
}

} // namespace

void addPluginsCommand(CommandLine &line)
{
    const auto files = std::make_shared<std::vector<std::string>>();
    const Command command = line.addCommand("plugins", "list effect plug-ins, and which entry points they have",
                                            [files] { files->empty() ? showInstalled() : showFiles(*files); });
    command.add("files", *files, "plug-ins (default: those along TOLVIN_PLUGIN_PATH and the installed ones)");
}

} // namespace tolvin
