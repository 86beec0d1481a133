// Scripts of mouse input, to drive without a window.
//
//   # seconds  x    y   buttons
//   WINDOW 1280 1024
//   0.0       640  512  L
//   4.2       900  512  LM
//   9.96      640  512  -
//
// Each line holds from its time on, until the next one; times increase. x and y are pixels from the left and from below,
// which may lie outside the window. Buttons are the letters of those held (L, M, R in any order), or -. WINDOW, at most once and
// first, gives the size of the window, 1280 by 1024 where it is missing. # begins a comment.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <tolvin/performer/pfutil/pfutil.h>

namespace tolvin
{

struct MouseSample
{
    double time; // seconds since the start
    int x;
    int y;
    unsigned buttons; // PFUMOUSE_*
};

struct DriveScript
{
    int width = 1280; // of the window
    int height = 1024;
    std::vector<MouseSample> samples;
};

// Throws std::runtime_error that has a line "NAME:LINE:COLUMN: ..." for the first few errors, a script without samples among
// them, or tells why the script cannot be read.
DriveScript readDriveScript(std::string_view text, const std::string &name);
DriveScript readDriveScriptFile(const std::string &file);

// The mouse at a time: before the first sample where that has it, without buttons.
pfuMouse mouseAt(const DriveScript &script, double time);

} // namespace tolvin
