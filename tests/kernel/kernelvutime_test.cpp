#include <gtest/gtest.h>

#include <tolvin/kernel/kernelvutime.h>
