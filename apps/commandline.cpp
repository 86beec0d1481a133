#include "commandline.h"

#include "exitcode.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

namespace tolvin
{

ArgumentCheck within(double least, double most)
{
    std::ostringstream range;
    range.precision(10); // of an int all digits
    range << least << " to " << most;
    return {range.str(), [least, most](const std::string &argument)
            {
                double value = 0.0;
                return CLI::detail::lexical_cast(argument, value) && value >= least && value <= most;
            }};
}

Option Option::required() const
{
    return Option(option_->required());
}

Option Option::check(const ArgumentCheck &check) const
{
    const auto complain = [check](const std::string &argument)
    { return check.isGood(argument) ? "" : argument + ": expected " + check.expected; };
    return Option(option_->check(CLI::Validator(complain, check.expected)));
}

Option Option::oneOf(const std::vector<std::string> &words) const
{
    return Option(option_->check(CLI::IsMember(words)));
}

Option Option::oneOfInAnyCase(const std::vector<std::string> &words) const
{
    return Option(option_->transform(CLI::IsMember(words, CLI::ignore_case)));
}

Option Option::needs(Option other) const
{
    return Option(option_->needs(other.option_));
}

Option Option::excludes(Option other) const
{
    return Option(option_->excludes(other.option_));
}

Option Option::splitAt(char separator) const
{
    return Option(option_->delimiter(separator));
}

Option Option::onePerUse() const
{
    return Option(option_->allow_extra_args(false));
}

Option Option::takeAll(const std::string &values) const
{
    return Option(option_->type_name(values)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll));
}

Option Option::showDefault() const
{
    return Option(option_->capture_default_str());
}

Option Option::hideDefault() const
{
    return Option(option_->default_str(""));
}

bool Option::isGiven() const
{
    return option_->count() > 0;
}

std::string Option::name() const
{
    return option_->get_name();
}

void refuseBeside(const std::string &name, const std::vector<Option> &options)
{
    const auto given = std::ranges::find_if(options, &Option::isGiven);
    if (given != options.end())
    {
        throw std::runtime_error(given->name() + " means nothing beside " + name);
    }
}

// With a leading 0 the library takes a number for an octal one, which nobody means.
std::string withoutLeadingZeros(std::string &argument)
{
    const std::size_t digits = argument.find_first_not_of(" \t+-");
    if (digits != std::string::npos && argument.find_first_not_of("0123456789", digits) == std::string::npos)
    {
        const std::size_t zeros = std::min(argument.find_first_not_of('0', digits), argument.size() - 1);
        argument.erase(digits, zeros - digits);
    }
    return "";
}

template<typename Value>
constexpr bool kIsWhole = std::is_integral_v<Value> || std::is_same_v<Value, std::vector<int>>;

template<typename Value>
Option Command::add(const std::string &name, Value &value, const std::string &description) const
{
    CLI::Option *const option = command_->add_option(name, value, description);
    if constexpr (kIsWhole<Value>)
    {
        option->transform(CLI::Validator(withoutLeadingZeros, ""));
    }
    return Option(option);
}

template Option Command::add(const std::string &, double &, const std::string &) const;
template Option Command::add(const std::string &, float &, const std::string &) const;
template Option Command::add(const std::string &, int &, const std::string &) const;
template Option Command::add(const std::string &, std::uint8_t &, const std::string &) const;
template Option Command::add(const std::string &, std::uint16_t &, const std::string &) const;
template Option Command::add(const std::string &, std::uint32_t &, const std::string &) const;
template Option Command::add(const std::string &, std::uint64_t &, const std::string &) const;
template Option Command::add(const std::string &, std::string &, const std::string &) const;
template Option Command::add(const std::string &, std::optional<double> &, const std::string &) const;
template Option Command::add(const std::string &, std::optional<std::string> &, const std::string &) const;
template Option Command::add(const std::string &, std::pair<double, double> &, const std::string &) const;
template Option Command::add(const std::string &, std::vector<int> &, const std::string &) const;
template Option Command::add(const std::string &, std::vector<std::string> &, const std::string &) const;
template Option Command::add(const std::string &, std::vector<std::pair<double, std::string>> &,
                             const std::string &) const;

Option Command::addFlag(const std::string &name, bool &value, const std::string &description) const
{
    return Option(command_->add_flag(name, value, description));
}

Command Command::lastCounts() const
{
    command_->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    return *this;
}

Command Command::showDefaults() const
{
    command_->option_defaults()->always_capture_default();
    return *this;
}

Command Command::widerHelp() const
{
    command_->get_formatter()->column_width(40);
    return *this;
}

Command Command::footer(const std::string &text) const
{
    command_->footer(text);
    return *this;
}

CommandLine::CommandLine(const std::string &description, const std::string &version)
    : app_(std::make_unique<CLI::App>(description, "tolvin"))
{
    app_->require_subcommand(1);
    if (!version.empty())
    {
        app_->set_version_flag("--version", version);
    }
}

CommandLine::~CommandLine() = default;

Command CommandLine::addCommand(const std::string &name, const std::string &description,
                                const std::function<void()> &work)
{
    CLI::App *const command = app_->add_subcommand(name, description);
    command->callback([this, work] { exitCode_ = exitCodeOf(work); });
    return Command(command);
}

int CommandLine::run(std::vector<std::string> arguments)
{
    std::ranges::reverse(arguments); // as the parser wants them
    try
    {
        app_->parse(std::move(arguments));
    }
    catch (const CLI::ParseError &error)
    {
        return app_->exit(error) == 0 ? 0 : 2;
    }
    return exitCode_;
}

} // namespace tolvin
