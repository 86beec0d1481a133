#include <gtest/gtest.h>

#include <tolvin/kernel/kernelvulist.h>
