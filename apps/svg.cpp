#include "svg.h"

#include <cmath>

namespace tolvin
{

namespace
{

// Control characters that XML 1.0 does not have, not even escaped.
bool isUnknown(char c)
{
    return c >= '\0' && c < ' ' && c != '\t' && c != '\n' && c != '\r';
}

} // namespace

std::string escaped(const std::string &text)
{
    std::string result;
    for (const char c : text)
    {
        switch (c)
        {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        default:
            result += isUnknown(c) ? "\xEF\xBF\xBD" : std::string(1, c); // U+FFFD
        }
    }
    return result;
}

void beginSvg(std::FILE *out, double width, double height)
{
    std::fprintf(out,
                 "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 %.0f %.0f' width='%.0f' height='%.0f' "
                 "font-family='sans-serif'>\n<rect width='%.0f' height='%.0f' fill='white'/>\n",
                 width, height, width, height, width, height);
}

double tickStep(double extent, double most)
{
    const double rough = extent / most;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    for (const double factor : {1.0, 2.0, 5.0})
    {
        if (factor * power >= rough)
        {
            return factor * power;
        }
    }
    return 10.0 * power;
}

void endSvg(std::FILE *out)
{
    std::fputs("</svg>\n", out);
}

} // namespace tolvin
