#include <gtest/gtest.h>

#include <tolvin/kernel/kernelxform.h>
