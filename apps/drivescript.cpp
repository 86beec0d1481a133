#include "drivescript.h"

#include "inputfile.h"
#include "plaintext.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

namespace tolvin
{

namespace
{

constexpr std::size_t kLongest = std::size_t{256} << 20; // bytes of a script
constexpr const char *kTooLong = "too long: expected 256 MiB at most";
constexpr int kMostLines = 10'000'000;
constexpr int kMostTold = 10;        // errors
constexpr int kFarthest = 1'000'000; // pixels, either way
constexpr int kLargest = 65536;      // pixels of a window
constexpr std::string_view kBlanks = " \t\r\f\v";

template<typename Number>
std::optional<Number> numberOf(std::string_view word)
{
    Number value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    const bool isNumber = error == std::errc() && end == word.data() + word.size();
    return isNumber ? std::optional(value) : std::nullopt;
}

std::optional<unsigned> buttonsOf(std::string_view word)
{
    unsigned buttons = 0;
    for (const char c : word == "-" ? "" : word)
    {
        const unsigned button = c == 'L' ? PFUMOUSE_LEFT : c == 'M' ? PFUMOUSE_MIDDLE : c == 'R' ? PFUMOUSE_RIGHT : 0;
        if (button == 0 || (buttons & button) != 0)
        {
            return std::nullopt;
        }
        buttons |= button;
    }
    return word.empty() ? std::nullopt : std::optional(buttons);
}

// Reads line after line; of each the first error is told.
class Reader
{
public:
    Reader(std::string_view text, const std::string &name) : text_(text), name_(name)
    {
        constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
        text_.remove_prefix(text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0);
    }

    DriveScript read()
    {
        while (!text_.empty() && wrong_ <= kMostTold)
        {
            nextLine();
            readLine();
        }
        if (wrong_ == 0 && script_.samples.empty())
        {
            nextLine();
            complain("end of file", "a sample: seconds, x, y, buttons");
        }
        if (wrong_ > 0)
        {
            throw std::runtime_error(errors_);
        }
        return std::move(script_);
    }

private:
    void nextLine()
    {
        const std::string_view line = text_.substr(0, text_.find('\n'));
        text_.remove_prefix(std::min(line.size() + 1, text_.size()));
        ++number_;
        start_ = line.data();
        rest_ = line.substr(0, line.find('#'));
        nextWord();
    }

    // Empty at the end of the line.
    void nextWord()
    {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(kBlanks), rest_.size()));
        word_ = rest_.substr(0, rest_.find_first_of(kBlanks));
        rest_.remove_prefix(word_.size());
    }

    void readLine()
    {
        if (number_ > kMostLines)
        {
            complain("one more line", std::to_string(kMostLines) + " at most");
            text_ = {};
        }
        else if (word_ == "WINDOW")
        {
            readWindow();
            isFirst_ = false;
        }
        else if (!word_.empty())
        {
            readSample();
            isFirst_ = false;
        }
    }

    void readWindow()
    {
        if (!isFirst_)
        {
            complain("it before all samples, and once");
            return;
        }
        nextWord();
        if (take(script_.width, "pixels", 1, kLargest) && take(script_.height, "pixels", 1, kLargest))
        {
            requireEnd();
        }
    }

    void readSample()
    {
        MouseSample sample = {};
        if (takeTime(sample.time) && take(sample.x, "x", -kFarthest, kFarthest) &&
            take(sample.y, "y", -kFarthest, kFarthest) && takeButtons(sample.buttons) && requireEnd())
        {
            script_.samples.push_back(sample);
        }
    }

    bool takeTime(double &time)
    {
        const std::optional<double> read = numberOf<double>(word_);
        if (!read || !std::isfinite(*read) || *read < 0.0)
        {
            return complain(isFirst_ ? "WINDOW, or seconds from 0 on" : "seconds from 0 on");
        }
        if (!before_.empty() && *read <= last_)
        {
            return complain("more seconds than " + plainText(before_));
        }
        time = last_ = *read;
        before_ = word_;
        nextWord();
        return true;
    }

    bool take(int &value, const char *what, int least, int most)
    {
        const std::optional<int> read = numberOf<int>(word_);
        if (!read || *read < least || *read > most)
        {
            return complain(std::string(what) + " from " + std::to_string(least) + " to " + std::to_string(most));
        }
        value = *read;
        nextWord();
        return true;
    }

    bool takeButtons(unsigned &buttons)
    {
        const std::optional<unsigned> read = buttonsOf(word_);
        if (!read)
        {
            return complain("- or buttons of L, M and R");
        }
        buttons = *read;
        nextWord();
        return true;
    }

    bool requireEnd()
    {
        return word_.empty() || complain("the end of the line");
    }

    bool complain(const std::string &expected)
    {
        return complain(word_.empty() ? "end of line" : plainText(word_), expected);
    }

    bool complain(const std::string &found, const std::string &expected)
    {
        ++wrong_;
        if (wrong_ > kMostTold)
        {
            errors_ += "\nwhat else is wrong is not told";
            return false;
        }
        const auto column = word_.data() - start_ + 1;
        errors_ += (wrong_ == 1 ? "" : "\n") + name_ + ':' + std::to_string(number_) + ':' + std::to_string(column) +
                   ": " + found + ": expected " + expected;
        return false;
    }

    std::string_view text_; // the lines that are left
    const std::string &name_;
    std::string_view rest_; // of the line, without its comment
    std::string_view word_;
    const char *start_ = nullptr; // of the line
    int number_ = 0;              // of the line, from 1
    bool isFirst_ = true;         // nothing but comments up to now
    double last_ = 0.0;
    std::string_view before_; // the word of that time
    int wrong_ = 0;
    std::string errors_;
    DriveScript script_;
};

} // namespace

DriveScript readDriveScript(std::string_view text, const std::string &name)
{
    if (text.size() > kLongest)
    {
        throw std::runtime_error(name + ": " + kTooLong);
    }
    try
    {
        return Reader(text, name).read();
    }
    catch (const std::bad_alloc &)
    {
        throw std::runtime_error(name + ": no room for its samples");
    }
}

DriveScript readDriveScriptFile(const std::string &file)
{
    const std::string text = contentOf(file,
                                       [](const std::string &content)
                                       {
                                           if (content.size() > kLongest)
                                           {
                                               throw std::runtime_error(kTooLong);
                                           }
                                           return true;
                                       });
    return readDriveScript(text, file);
}

pfuMouse mouseAt(const DriveScript &script, double time)
{
    pfuMouse mouse = {};
    if (script.samples.empty())
    {
        return mouse;
    }
    const auto isBefore = [](double wanted, const MouseSample &sample) { return wanted < sample.time; };
    const auto next = std::upper_bound(script.samples.begin(), script.samples.end(), time, isBefore);
    const bool hasBegun = next != script.samples.begin();
    const MouseSample &sample = hasBegun ? next[-1] : *next;
    mouse.flags = hasBegun ? sample.buttons : 0;
    mouse.x = sample.x;
    mouse.y = sample.y;
    mouse.inWindow = sample.x >= 0 && sample.x < script.width && sample.y >= 0 && sample.y < script.height;
    return mouse;
}

} // namespace tolvin
