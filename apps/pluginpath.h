// Where effect plug-ins are.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include <tolvin/kernel/kernelgeneric.h>

namespace tolvin
{

// Folders that plug-ins are looked for in, in this order: those of TOLVIN_PLUGIN_PATH, separated by colons; the one that belongs to
// this program where it is installed, wherever that is; the one of the build that it runs from, if it does.
std::vector<std::string> pluginFolders();

// The loader's reason why it does not open a file, without the file's name; empty when it does, for which the file is opened and
// closed again.
std::string whyNotOpened(const std::string &file);

// Whether this process has that file open as a shared object. It is not opened for that.
bool isOpen(const std::string &file);

// Finds the plug-in of each effect: as it is given, which is as the loader finds it; else beside the description file, which is in that
// folder; else in the plug-in folders. The first one that the loader opens takes the place of what is given, so that it opens that
// again. For an effect without any, tells what was tried and why it does not do, and leaves what is given. Returns the files that
// were found and not open before, each once. Throws std::bad_alloc when the shared arena is full.
std::set<std::string> findPlugins(vuRootNode &root, const std::string &folder,
                                  const std::function<void(const std::string &line)> &notice);

} // namespace tolvin
