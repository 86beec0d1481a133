#include "support/capture.h"

#include <gtest/gtest.h>

#include <cstdlib>

std::string capturedStderr(const std::function<void()> &action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

std::string printedTo(const std::function<void(std::FILE *stream)> &print)
{
    char *text = nullptr;
    std::size_t size = 0;
    std::FILE *const stream = open_memstream(&text, &size);
    print(stream);
    std::fclose(stream);
    const std::string copy(text, size);
    std::free(text);
    return copy;
}

std::string refusalOf(const std::function<void()> &action)
{
    try
    {
        action();
        return {};
    }
    catch (const std::exception &error)
    {
        return error.what();
    }
}

std::string replaced(std::string text, const std::string &what, const std::string &by)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
    {
        text.replace(at, what.size(), by);
    }
    return text;
}
