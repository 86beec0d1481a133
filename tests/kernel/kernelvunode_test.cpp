#include <gtest/gtest.h>

#include <tolvin/kernel/kernelvunode.h>
