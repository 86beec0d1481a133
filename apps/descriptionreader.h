// What readers of all kinds of blocks of a description have in common: the current token, errors, blocks, values. After an
// error they go on, so that all of a text's errors are told at once; what was read up to then is thrown away in the end.
#pragma once

#include "description.h"
#include "descriptionscanner.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tolvin
{

using Keywords = std::span<const std::string_view>;

// What begins a block, and so cannot be part of an inner one: where it stands, a brace is missing before it. The first
// begin blocks that are in no other.
inline constexpr std::string_view kBlockKeywords[] = {"MATERIALLIST", "TEXTURELIST", "SCENE",   "ENTITY", "EFFECT",
                                                      "MATERIAL",     "TEXTURE",     "TERRAIN", "MODEL"};
inline constexpr Keywords kOuterKeywords{kBlockKeywords, 5};

struct NamedCode
{
    std::string_view name;
    int code;
};

class DescriptionReader
{
public:
    explicit DescriptionReader(std::string_view text);

    // takeAnything  reads a block of any kind, wherever it stands, and returns whether there is one. Blocks that are out
    //               of place are checked with it.
    void setTakeAnything(std::function<bool()> takeAnything);

    // Sorted by their place.
    std::vector<DescriptionError> takeErrors();

    const Token &token() const
    {
        return token_;
    }

    void advance();

    // Found and expected, at the current token. What comes of an error at the same token is not told.
    void complain(std::string_view expected);
    void complainAt(const Token &place, std::string_view found, std::string_view expected);

    // Reports a wrong value and goes on behind it, or before the item that stands in its place.
    void refuse(std::string_view expected);

    // Reports what is no item here, and goes on behind what seems to belong to it: texts, numbers, a block.
    void refuseItem(Keywords around, std::string_view expected);

    bool isAt(std::string_view keyword) const;
    bool isAtKeyword() const; // of any kind
    bool takeKeyword(std::string_view keyword);

    // Something before a name that is not known, and so may be meant for the keyword of what has names here.
    //   beforeBlock  whether a brace has to follow, too
    bool takeMisspelt(std::string_view expected, bool beforeBlock = false);

    // The name and the opening brace of a block; what is missing is reported, and the block read all the same.
    std::string blockName();

    std::string quoted(const char *expected);
    bool takeOpening();

    // Reads items up to the closing brace, and returns whether it is there. item reads one, if it knows its keyword, and
    // returns whether it does. Where one of the keywords stands that begin what is around this block, a brace is missing.
    bool block(Keywords around, std::string_view expected, const std::function<bool()> &item);

    // The last keyword that was taken, or what was meant for it.
    const Token &keyword() const
    {
        return keyword_;
    }

    // The last closing brace, and what stands behind it on its line.
    const Token &closing() const
    {
        return closing_;
    }
    std::string_view behindClosing() const
    {
        return behindClosing_;
    }

    // Values, read where they are as expected; errors are reported otherwise. Where one is missing the others of its
    // keyword are not asked for. Numbers return whether they were read.
    //   what  names the number, with its article
    bool number(double &value, const char *what, double least, double most);
    bool number(double &value); // any
    bool numbers(std::span<float> values);
    template<typename Integer>
    bool wholeNumber(Integer &value, std::int64_t least = 0, std::int64_t most = std::numeric_limits<Integer>::max())
    {
        const std::optional<std::int64_t> read = wholeNumberWithin(least, most);
        value = static_cast<Integer>(read.value_or(value));
        return read.has_value();
    }
    void mask(std::uint32_t &value);
    std::optional<int> code(std::span<const NamedCode> codes);
    std::optional<std::string> asciiText(std::size_t most);

private:
    void checkText();
    std::string found() const;
    bool isKeyword(Keywords keywords) const;
    void skipBlock(Keywords around);
    void skipNumbers();
    void refuseNumber(bool isNumber, std::string_view expected);
    bool numberWithin(double &value, double least, double most, const char *any, const char *within);

    std::optional<std::int64_t> wholeNumberWithin(std::int64_t least, std::int64_t most);

    DescriptionScanner scanner_;
    Token token_;
    Token keyword_;
    Token closing_;
    std::string_view behindClosing_;
    std::vector<DescriptionError> errors_;
    std::function<bool()> takeAnything_;
    bool isMissing_ = false; // a value of the last keyword
};

// "A, B or C".
std::string alternatives(Keywords words);

} // namespace tolvin
