#include "svg.h"

namespace tolvin
{

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
            result += c;
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

void endSvg(std::FILE *out)
{
    std::fputs("</svg>\n", out);
}

} // namespace tolvin
