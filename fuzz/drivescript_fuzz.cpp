// Reads any bytes as a script of the mouse. What is taken has to survive being written and read again, and each sample has to
// hold at its time.
#include <tolvin/apps/drivescript.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

using namespace tolvin;

static void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

static std::string write(const DriveScript &script)
{
    std::string text = "WINDOW " + std::to_string(script.width) + ' ' + std::to_string(script.height) + '\n';
    for (const auto &[time, x, y, buttons] : script.samples)
    {
        char line[120];
        std::snprintf(line, sizeof line, "%.17g %d %d -%s%s%s\n", time, x, y, (buttons & PFUMOUSE_LEFT) != 0 ? "L" : "",
                      (buttons & PFUMOUSE_MIDDLE) != 0 ? "M" : "", (buttons & PFUMOUSE_RIGHT) != 0 ? "R" : "");
        text += line;
        text.erase(buttons == 0 ? text.size() : text.rfind('-'), 1);
    }
    return text;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    DriveScript script;
    try
    {
        script = readDriveScript({reinterpret_cast<const char *>(data), size}, "script");
    }
    catch (const std::runtime_error &)
    {
        return 0;
    }
    require(!script.samples.empty());
    for (const auto &[time, x, y, buttons] : script.samples)
    {
        const pfuMouse mouse = mouseAt(script, time);
        require(mouse.flags == buttons && mouse.x == x && mouse.y == y);
        require(mouse.inWindow == (x >= 0 && x < script.width && y >= 0 && y < script.height));
    }
    const std::string text = write(script);
    require(write(readDriveScript(text, "again")) == text);
    return 0;
}
