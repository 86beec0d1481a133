#include "descriptionscanner.h"

#include <algorithm>

namespace tolvin
{

DescriptionScanner::DescriptionScanner(std::string_view text) : rest_(text)
{
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    rest_.remove_prefix(text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0);
}

Token DescriptionScanner::next()
{
    skipBlanks();
    Token token = {TokenKind::End, {}, line_, column_};
    if (rest_.empty())
    {
        return token;
    }
    if (rest_[0] == '{' || rest_[0] == '}')
    {
        token.kind = rest_[0] == '{' ? TokenKind::Open : TokenKind::Close;
        token.text = take(1);
    }
    else if (rest_[0] == '"')
    {
        token.kind = TokenKind::Text;
        take(1);
        token.text = take(std::min(rest_.find_first_of("\"\n"), rest_.size()));
        unterminated_ = rest_.empty() || rest_[0] != '"';
        take(unterminated_ ? 0 : 1);
    }
    else
    {
        token.kind = TokenKind::Word;
        token.text = take(std::min(rest_.find_first_of(" \t\r\n\f\v{}\"#"), rest_.size()));
    }
    return token;
}

std::string_view DescriptionScanner::take(std::size_t count)
{
    const std::string_view taken = rest_.substr(0, count);
    for (const char c : taken)
    {
        column_ = c == '\n' ? 1 : column_ + 1;
        line_ += c == '\n';
    }
    rest_.remove_prefix(taken.size());
    return taken;
}

void DescriptionScanner::skipBlanks()
{
    for (;;)
    {
        take(std::min(rest_.find_first_not_of(" \t\r\n\f\v"), rest_.size()));
        if (rest_.empty() || rest_[0] != '#')
        {
            return;
        }
        take(std::min(rest_.find('\n'), rest_.size()));
    }
}

} // namespace tolvin
