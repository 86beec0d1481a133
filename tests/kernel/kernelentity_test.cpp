#include <gtest/gtest.h>

#include <tolvin/kernel/kernelentity.h>
