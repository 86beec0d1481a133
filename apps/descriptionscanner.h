// Splits the text of a description into tokens.
#pragma once

#include <string_view>

namespace tolvin
{

enum class TokenKind
{
    Word,
    Text, // in quotes
    Open,
    Close,
    End
};

struct Token
{
    TokenKind kind = TokenKind::End;
    std::string_view text; // without quotes
    int line = 1;          // from 1
    int column = 1;        // from 1, in bytes
};

class DescriptionScanner
{
public:
    // The text has to outlive the scanner and its tokens. A byte order mark of UTF-8 before it is passed over.
    explicit DescriptionScanner(std::string_view text);

    Token next();

    // Whether the last text lacked its second quote; it ends with the line then.
    bool unterminated() const
    {
        return unterminated_;
    }

    // What follows on the same line.
    std::string_view restOfLine() const
    {
        return rest_.substr(0, rest_.find('\n'));
    }

private:
    std::string_view take(std::size_t count);
    void skipBlanks();

    std::string_view rest_;
    int line_ = 1;
    int column_ = 1;
    bool unterminated_ = false;
};

} // namespace tolvin
