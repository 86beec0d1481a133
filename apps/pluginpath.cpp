#include "pluginpath.h"

#include "kernelrecord.h"
#include "plaintext.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include <dlfcn.h>
#include <tolvin/kernel/kernelfx.h>

namespace tolvin
{

namespace
{

namespace fs = std::filesystem;

constexpr std::size_t kAll = std::string_view::npos; // of a path; to cut it would help nobody

// Parts between colons; empty ones do not count.
std::vector<std::string> partsOf(std::string_view path)
{
    std::vector<std::string> parts;
    while (!path.empty())
    {
        const std::string_view part = path.substr(0, path.find(':'));
        path.remove_prefix(std::min(part.size() + 1, path.size()));
        if (!part.empty())
        {
            parts.emplace_back(part);
        }
    }
    return parts;
}

// With a slash, so that the loader takes it as it is and does not search its own folders.
std::string inFolder(const std::string &folder, const std::string &file)
{
    return (fs::path(folder.empty() ? "." : folder) / file).string();
}

std::vector<std::string> candidatesOf(const std::string &file, const std::string &folder)
{
    std::vector<std::string> candidates = {file};
    if (!fs::path(file).is_absolute())
    {
        candidates.push_back(inFolder(folder, file));
        for (const std::string &plugins : pluginFolders())
        {
            candidates.push_back(inFolder(plugins, file));
        }
    }
    return candidates;
}

// Leaves the file that was found in the effect. Returns whether it was open before; none when there is none to be found.
std::optional<bool> findPlugin(vuEffect &fx, const std::string &folder,
                               const std::function<void(const std::string &line)> &notice)
{
    std::string tried;
    for (const std::string &candidate : candidatesOf(fx.pluginFile, folder))
    {
        const bool wasOpen = isOpen(candidate); // what does not close may be open from now on
        const std::string reason = whyNotOpened(candidate);
        if (reason.empty())
        {
            char *const found = arenaCopyOf(candidate);
            pfFree(fx.pluginFile);
            fx.pluginFile = found;
            return wasOpen;
        }
        tried += "\n  " + plainText(candidate, kAll) + ": " + plainText(reason, kAll);
    }
    notice("EFFECT \"" + plainText(fx.node.name) + "\": no plug-in, tried" + tried);
    return std::nullopt;
}

} // namespace

std::vector<std::string> pluginFolders()
{
    const char *const path = std::getenv("TOLVIN_PLUGIN_PATH");
    std::vector<std::string> folders = partsOf(path == nullptr ? "" : path);
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (error)
    {
        return folders;
    }
    const fs::path installed = (program.parent_path() / TOLVIN_PLUGIN_FOLDER).lexically_normal();
    const fs::path built = (program.parent_path() / "../plugins").lexically_normal();
    const bool isBuilt = fs::is_directory(built, error) && !fs::is_directory(installed, error);
    folders.push_back((isBuilt ? built : installed).string());
    return folders;
}

std::string whyNotOpened(const std::string &file)
{
    std::array<char, 4096> text;
    if (effectCanOpen(file.c_str(), text.data(), text.size()) == 1)
    {
        return "";
    }
    const std::string reason = text.data(), before = file + ": ";
    return reason.empty()               ? "the loader does not tell why"
           : reason.starts_with(before) ? reason.substr(before.size())
                                        : reason;
}

// The loader looks at a file to know, and would wait for what comes out of a pipe.
bool isOpen(const std::string &file)
{
    std::error_code error;
    const bool isSearched = file.find('/') == std::string::npos;
    void *const handle =
        isSearched || fs::is_regular_file(file, error) ? dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD) : nullptr;
    if (handle != nullptr)
    {
        dlclose(handle);
    }
    return handle != nullptr;
}

std::set<std::string> findPlugins(vuRootNode &root, const std::string &folder,
                                  const std::function<void(const std::string &line)> &notice)
{
    std::set<std::string> opened;
    for (vunode *node = root.effects.first; node != nullptr; node = node->next)
    {
        auto &fx = *reinterpret_cast<vuEffect *>(node);
        if (fx.pluginFile != nullptr && findPlugin(fx, folder, notice) == false)
        {
            opened.insert(fx.pluginFile);
        }
    }
    return opened;
}

} // namespace tolvin
