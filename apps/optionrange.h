// Ranges of numbers on the command line.
#pragma once

#include <CLI/CLI.hpp>

namespace tolvin
{

// Accepts numbers from least to most, both included. Unlike CLI::Range it refuses NaN, and negative numbers for
// unsigned options as well.
CLI::Validator within(double least, double most);

} // namespace tolvin
