// Steps of libpng that come back with an error instead of a jump.
#pragma once

#include <csetjmp>
#include <cstdio>

#include <png.h>

namespace tolvin
{

// What went wrong inside libpng: an error number of the system, or a text.
struct PngFault
{
    int system = 0;
    char text[120] = ""; // nothing here may throw through frames of C
};

// For png_create_..._struct, with a PngFault as pointer.
[[noreturn]] inline void leaveWithPngError(png_structp png, png_const_charp message)
{
    auto &fault = *static_cast<PngFault *>(png_get_error_ptr(png));
    std::snprintf(fault.text, sizeof fault.text, "%s", message);
    png_longjmp(png, 1);
}

inline void ignorePngWarning(png_structp, png_const_charp)
{
}

// Runs one step of libpng. Errors jump back to here, over frames of libpng and of the step only, so nothing in a step
// may have a destructor.
template<typename Step>
bool pngSucceeds(png_structp png, const Step &step)
{
    if (setjmp(png_jmpbuf(png)) != 0)
    {
        return false;
    }
    step();
    return true;
}

} // namespace tolvin
