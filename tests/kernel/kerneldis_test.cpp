#include <gtest/gtest.h>

#include <tolvin/kernel/kerneldis.h>
