#include "optionrange.h"

#include <sstream>
#include <string>

namespace tolvin
{

CLI::Validator within(double least, double most)
{
    std::ostringstream range;
    range << least << " to " << most;
    const auto check = [least, most, text = range.str()](const std::string &item)
    {
        double value = 0.0;
        const bool good = CLI::detail::lexical_cast(item, value) && value >= least && value <= most;
        return good ? std::string() : item + ": expected " + text;
    };
    return CLI::Validator(check, range.str());
}

} // namespace tolvin
