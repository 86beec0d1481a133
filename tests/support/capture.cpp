#include "support/capture.h"

#include <gtest/gtest.h>

std::string capturedStderr(const std::function<void()> &action)
{
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}
