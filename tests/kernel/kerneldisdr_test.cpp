#include <gtest/gtest.h>

#include <tolvin/kernel/kerneldisdr.h>
