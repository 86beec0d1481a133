// A driver who follows a course with the mouse: makes the scripts that driving is repeated from.
#pragma once

#include "course.h"

#include <string>
#include <vector>

namespace tolvin
{

struct Leg
{
    std::vector<Place> points; // a few metres apart; from leg to leg too
    double rest;               // seconds that the vehicle stands at the end, more than 0
};

struct Drive
{
    std::string title; // without line breaks
    Place start;
    double heading; // degrees clockwise from north
    std::vector<Leg> legs;
};

// Drives the legs with the kernel's DRIVE model, 25 frames a second, and writes what the mouse does to the file. Throws as
// OutputFile does, std::runtime_error when the vehicle strays from the course, std::bad_alloc when the arena is full.
void writeDrive(const std::string &file, const Drive &drive);

} // namespace tolvin
