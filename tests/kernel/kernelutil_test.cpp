#include <gtest/gtest.h>

#include <tolvin/kernel/kernelutil.h>
