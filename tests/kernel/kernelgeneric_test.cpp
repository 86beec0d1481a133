#include <gtest/gtest.h>

#include <tolvin/kernel/kernelgeneric.h>
