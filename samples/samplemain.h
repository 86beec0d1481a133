// What the programs that make samples have in common.
#pragma once

#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

namespace tolvin
{

// Does the work with the folder that the only argument names; what it throws is told. Returns what main is to return.
inline int sampleMain(int argc, char **argv, const std::function<void(const std::string &folder)> &work)
{
    try
    {
        if (argc != 2)
        {
            throw std::runtime_error("expected a folder to write to, and nothing else");
        }
        work(argv[1]);
        return 0;
    }
    catch (const std::exception &error)
    {
        std::fprintf(stderr, "Error: %s\n", error.what());
        return 1;
    }
}

} // namespace tolvin
