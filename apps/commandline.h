// The command line: subcommands and their options, as CLI11 reads them. That library stays behind this header, since a file that
// includes it takes the compiler longer than all else in it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace tolvin
{

// What an argument has to be, and how that is said.
struct ArgumentCheck
{
    std::string expected;
    std::function<bool(const std::string &argument)> isGood;
};

// Numbers from least to most, both included. NaN is none of them, and negative numbers are none for unsigned options as well.
ArgumentCheck within(double least, double most);

// One option of a subcommand. Lives as long as the command line.
class Option
{
public:
    explicit Option(CLI::Option *option) : option_(option)
    {
    }

    Option required() const;
    Option check(const ArgumentCheck &check) const; // each of its arguments
    Option oneOf(const std::vector<std::string> &words) const;
    Option oneOfInAnyCase(const std::vector<std::string> &words) const; // it is stored as it stands there
    Option needs(Option other) const;
    Option excludes(Option other) const;
    Option splitAt(char separator) const;            // arguments with it are several
    Option onePerUse() const;                        // what follows its argument is no further one
    Option takeAll(const std::string &values) const; // of all its uses; so the values are called in the help
    Option showDefault() const;                      // in the help; what the variable has by now
    Option hideDefault() const;

    bool isGiven() const;
    std::string name() const;

private:
    CLI::Option *option_;
};

// Throws std::runtime_error when one of them is given: beside the option of that name it would mean nothing.
void refuseBeside(const std::string &name, const std::vector<Option> &options);

// A subcommand. Lives as long as the command line, as has what options store to.
class Command
{
public:
    explicit Command(CLI::App *command) : command_(command)
    {
    }

    // An option --NAME, or an argument NAME, that is stored to value: of the types for which commandline.cpp has it.
    template<typename Value>
    Option add(const std::string &name, Value &value, const std::string &description) const;
    Option addFlag(const std::string &name, bool &value, const std::string &description) const;

    // For options that are added afterwards: of several uses the last one counts; the help shows defaults.
    Command lastCounts() const;
    Command showDefaults() const;

    Command widerHelp() const; // for long names
    Command footer(const std::string &text) const;

private:
    CLI::App *command_;
};

class CommandLine
{
public:
    explicit CommandLine(const std::string &description, const std::string &version = "");
    ~CommandLine();

    CommandLine(const CommandLine &) = delete;
    CommandLine &operator=(const CommandLine &) = delete;

    // Adds a subcommand that does this once its options are read.
    Command addCommand(const std::string &name, const std::string &description, const std::function<void()> &work);

    // Does what the arguments say, those behind the program's name. Returns the exit code: that of the subcommand (exitcode.h); 0 after
    // printing help or version; 2 after printing to standard error what is wrong with the arguments.
    int run(std::vector<std::string> arguments);

private:
    std::unique_ptr<CLI::App> app_;
    int exitCode_ = 0;
};

} // namespace tolvin
