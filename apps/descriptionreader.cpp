#include "descriptionreader.h"

#include "plaintext.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>

namespace tolvin
{

namespace
{

// What may begin an item, and so cannot be a value that is wrong.
constexpr std::string_view kAttributeKeywords[] = {
    "FPS",       "AMBIENT",  "DIFFUSE",  "SPECULAR",  "EMISSIVE",   "SHININESS",  "ALPHA",
    "WRAP_S",    "WRAP_T",   "INTERNAL", "ORIGIN",    "MIN_FILTER", "MAG_FILTER", "COLLIDE",
    "SPACING",   "HEIGHT",   "CENTER",   "STEP",      "RADIUS",     "UP",         "UNDULATION",
    "SCALE",     "ID",       "TYPE",     "FORCE",     "MARKING",    "MOTION",     "FOLLOW_TERRAIN",
    "PROBE",     "LIFT",     "START",    "HEADING",   "MASK",       "SHM",        "COLOUR",
    "NUM",       "DURATION", "FADE",     "MASK_DRAW", "PARAMETER",  "ENTITYNODE", "POSITION",
    "DIRECTION", "LINKFX"};

bool looksLikeNumber(const Token &token)
{
    return token.kind == TokenKind::Word &&
           std::string_view("+-.0123456789").find(token.text[0]) != std::string_view::npos;
}

// The digits of a word that may have a plus before them.
std::string_view withoutPlus(std::string_view word)
{
    word.remove_prefix(word.starts_with('+') && !word.starts_with("+-") ? 1 : 0);
    return word;
}

// Of a word that is a number; infinite where it is too large.
std::optional<double> numberOf(const Token &token)
{
    if (token.kind != TokenKind::Word)
    {
        return std::nullopt;
    }
    const std::string_view word = withoutPlus(token.text);
    double value = 0.0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (end != word.data() + word.size() || !std::isfinite(value))
    {
        return std::nullopt;
    }
    return error == std::errc::result_out_of_range ? std::strtod(std::string(word).c_str(), nullptr) : value;
}

std::string inRange(const char *what, double least, double most)
{
    char range[80];
    std::snprintf(range, sizeof range, " from %.10g to %.10g", least, most);
    return what + std::string(range);
}

} // namespace

std::string alternatives(Keywords words)
{
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i)
    {
        text += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + std::string(words[i]);
    }
    return text;
}

DescriptionReader::DescriptionReader(std::string_view text) : scanner_(text), token_(scanner_.next())
{
    checkText();
}

void DescriptionReader::setTakeAnything(std::function<bool()> takeAnything)
{
    takeAnything_ = std::move(takeAnything);
}

std::vector<DescriptionError> DescriptionReader::takeErrors()
{
    const auto place = [](const DescriptionError &error) { return std::pair(error.line, error.column); };
    const auto told = static_cast<std::ptrdiff_t>(std::min(errors_.size(), kMostErrors));
    std::ranges::stable_sort(errors_.begin(), errors_.begin() + told, {}, place);
    return std::move(errors_);
}

void DescriptionReader::advance()
{
    if (errors_.size() > kMostErrors)
    {
        token_ = {TokenKind::End, {}, token_.line, token_.column};
        return;
    }
    token_ = scanner_.next();
    checkText();
}

void DescriptionReader::checkText()
{
    if (token_.kind == TokenKind::Text && scanner_.unterminated())
    {
        complain("a second quote on the same line");
    }
    if (token_.kind == TokenKind::Text && token_.text.find('\0') != std::string_view::npos)
    {
        complain("a text without zero bytes");
    }
}

void DescriptionReader::complain(std::string_view expected)
{
    complainAt(token_, found(), expected);
}

void DescriptionReader::complainAt(const Token &place, std::string_view found, std::string_view expected)
{
    // The error before the last one may be here, too, where the last one had an earlier place.
    const std::span<const DescriptionError> last = std::span(errors_).last(std::min<std::size_t>(errors_.size(), 2));
    const bool again = std::ranges::any_of(last, [&place](const DescriptionError &error)
                                           { return error.line == place.line && error.column == place.column; });
    if (again || errors_.size() > kMostErrors)
    {
        return;
    }
    const bool isLast = errors_.size() == kMostErrors;
    errors_.push_back(
        {place.line, place.column,
         isLast ? "what else is wrong is not told" : std::string(found) + ": expected " + std::string(expected)});
}

std::string DescriptionReader::found() const
{
    const std::string text = plainText(token_.text);
    switch (token_.kind)
    {
    case TokenKind::End:
        return "end of file";
    case TokenKind::Text:
        return '"' + text + '"';
    default:
        return text;
    }
}

void DescriptionReader::refuse(std::string_view expected)
{
    complain(expected);
    if ((token_.kind == TokenKind::Word && !isAtKeyword()) || token_.kind == TokenKind::Text)
    {
        advance();
    }
}

void DescriptionReader::refuseItem(Keywords around, std::string_view expected)
{
    complain(expected);
    if (takeAnything_())
    {
        return;
    }
    if (token_.kind != TokenKind::Open)
    {
        advance();
    }
    while (token_.kind == TokenKind::Text || looksLikeNumber(token_))
    {
        advance();
    }
    if (token_.kind == TokenKind::Open)
    {
        advance();
        skipBlock(around);
    }
}

// The rest of a block that means nothing: what is known of it is checked for errors all the same.
void DescriptionReader::skipBlock(Keywords around)
{
    for (int depth = 1; depth > 0;)
    {
        if (token_.kind == TokenKind::End || isKeyword(around))
        {
            complain("}");
            return;
        }
        if (!takeAnything_())
        {
            depth += token_.kind == TokenKind::Open ? 1 : token_.kind == TokenKind::Close ? -1 : 0;
            advance();
        }
    }
}

bool DescriptionReader::isKeyword(Keywords keywords) const
{
    return token_.kind == TokenKind::Word && std::ranges::find(keywords, token_.text) != keywords.end();
}

bool DescriptionReader::isAt(std::string_view keyword) const
{
    return isKeyword({&keyword, 1});
}

bool DescriptionReader::isAtKeyword() const
{
    return isKeyword(kBlockKeywords) || isKeyword(kAttributeKeywords);
}

bool DescriptionReader::takeKeyword(std::string_view keyword)
{
    const bool found = isAt(keyword);
    if (found)
    {
        isMissing_ = false;
        keyword_ = token_;
        advance();
    }
    return found;
}

bool DescriptionReader::takeMisspelt(std::string_view expected, bool beforeBlock)
{
    DescriptionScanner ahead = scanner_;
    const bool isMisspelt = token_.kind == TokenKind::Word && !isAtKeyword() && ahead.next().kind == TokenKind::Text &&
                            (!beforeBlock || ahead.next().kind == TokenKind::Open);
    if (isMisspelt)
    {
        complain(expected);
        isMissing_ = false;
        keyword_ = token_;
        advance();
    }
    return isMisspelt;
}

std::string DescriptionReader::quoted(const char *expected)
{
    if (token_.kind != TokenKind::Text)
    {
        refuse(expected);
        return {};
    }
    const std::string_view text = token_.text;
    advance();
    return std::string(text);
}

bool DescriptionReader::takeOpening()
{
    if (token_.kind != TokenKind::Open)
    {
        complain("{");
        return false;
    }
    advance();
    return true;
}

std::string DescriptionReader::blockName()
{
    const std::string name = quoted("a name in quotes");
    takeOpening();
    return name;
}

bool DescriptionReader::block(Keywords around, std::string_view expected, const std::function<bool()> &item)
{
    while (token_.kind != TokenKind::Close)
    {
        if (token_.kind == TokenKind::End || isKeyword(around))
        {
            complain("}");
            return false;
        }
        if (!item())
        {
            refuseItem(around, expected);
        }
    }
    closing_ = token_;
    behindClosing_ = scanner_.restOfLine();
    advance();
    return true;
}

void DescriptionReader::skipNumbers()
{
    while (looksLikeNumber(token_))
    {
        advance();
    }
}

// Behind a number that is out of its range others may follow; in the place of what is none they do not.
void DescriptionReader::refuseNumber(bool isNumber, std::string_view expected)
{
    refuse(expected);
    if (!isNumber)
    {
        isMissing_ = true;
        skipNumbers();
    }
}

//   any     what is expected, told where there is no number
//   within  likewise, where there is one out of the range; null: for both, the range is told
bool DescriptionReader::numberWithin(double &value, double least, double most, const char *any, const char *within)
{
    if (isMissing_)
    {
        return false;
    }
    const std::optional<double> read = numberOf(token_);
    if (!read || *read < least || *read > most)
    {
        refuseNumber(read.has_value(), within == nullptr ? inRange(any, least, most) : read ? within : any);
        return false;
    }
    value = *read;
    advance();
    return true;
}

bool DescriptionReader::number(double &value, const char *what, double least, double most)
{
    return numberWithin(value, least, most, what, nullptr);
}

bool DescriptionReader::number(double &value)
{
    constexpr double kMost = std::numeric_limits<double>::max();
    return numberWithin(value, -kMost, kMost, "a number", "a number in the range of double precision");
}

bool DescriptionReader::numbers(std::span<float> values)
{
    constexpr double kRoundsToMost = std::numeric_limits<float>::max() * (1.0 + 0x1p-26);
    bool read = true;
    for (float &value : values)
    {
        double wide = value;
        read &=
            numberWithin(wide, -kRoundsToMost, kRoundsToMost, "a number", "a number in the range of single precision");
        value = static_cast<float>(wide);
    }
    return read;
}

std::optional<std::int64_t> DescriptionReader::wholeNumberWithin(std::int64_t least, std::int64_t most)
{
    if (isMissing_)
    {
        return std::nullopt;
    }
    const std::string_view word = token_.kind == TokenKind::Word ? withoutPlus(token_.text) : "";
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    const bool isWhole = error == std::errc() && end == word.data() + word.size();
    if (!isWhole || value < least || value > most)
    {
        refuseNumber(looksLikeNumber(token_),
                     inRange("a whole number", static_cast<double>(least), static_cast<double>(most)));
        return std::nullopt;
    }
    advance();
    return value;
}

void DescriptionReader::mask(std::uint32_t &value)
{
    std::string_view word = token_.kind == TokenKind::Word ? token_.text : "";
    const bool isHexadecimal = word.starts_with("0x") || word.starts_with("0X");
    word.remove_prefix(isHexadecimal ? 2 : 0);
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, isHexadecimal ? 16 : 10);
    if (error != std::errc() || end != word.data() + word.size())
    {
        refuse("a mask of 32 bits, like 255 or 0xff");
        return;
    }
    advance();
}

std::optional<int> DescriptionReader::code(std::span<const NamedCode> codes)
{
    std::string expected;
    for (const auto &[name, code] : codes)
    {
        if (isAt(name))
        {
            advance();
            return code;
        }
        expected += (expected.empty() ? "" : ", ") + std::string(name);
    }
    refuse(expected);
    return std::nullopt;
}

std::optional<std::string> DescriptionReader::asciiText(std::size_t most)
{
    const std::string_view text = token_.text;
    if (token_.kind != TokenKind::Text || text.size() > most ||
        !std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; }))
    {
        refuse("at most " + std::to_string(most) + " characters of ASCII in quotes");
        return std::nullopt;
    }
    advance();
    return std::string(text);
}

} // namespace tolvin
