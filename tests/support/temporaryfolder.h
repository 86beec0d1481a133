// A folder for what a test writes.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

// A new one, which goes with all that is in it.
struct TemporaryFolder : std::filesystem::path
{
    TemporaryFolder()
    {
        std::string name = std::filesystem::temp_directory_path() / "tolvin_XXXXXX";
        assign(mkdtemp(name.data()) != nullptr ? name : throw std::filesystem::filesystem_error(name, {}));
    }
    TemporaryFolder(const TemporaryFolder &) = delete;
    ~TemporaryFolder()
    {
        std::filesystem::remove_all(*this);
    }
};
