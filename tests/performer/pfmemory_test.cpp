#include <gtest/gtest.h>

#include <tolvin/performer/pf.h>
