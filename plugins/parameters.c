#define _GNU_SOURCE /* strtof_l */

#include "parameters.h"

#include <locale.h>
#include <stdlib.h>
#include <string.h>

#define BLANKS " \t\r\n\f\v"

/* A piece of the text between white space. */
typedef struct Token
{
    const char *start;
    int length; /* 0 at the end of the text */
} Token;

typedef struct Reader
{
    const char *plugin, *effect;
    const ParameterWord *words;
    int count;
    locale_t plain;
    Token token; /* the next one */
} Reader;

static void advance(Reader *reader)
{
    const char *start = reader->token.start + reader->token.length;
    start += strspn(start, BLANKS);
    const size_t length = strcspn(start, BLANKS);
    const size_t most = 1 << 20; /* nobody's word or number */
    reader->token = (Token){start, (int)(length < most ? length : most)};
}

static int isToken(const Token *token, const char *text)
{
    return strlen(text) == (size_t)token->length && memcmp(token->start, text, (size_t)token->length) == 0;
}

static const ParameterWord *wordOf(const Reader *reader)
{
    for (int i = 0; i < reader->count; ++i)
    {
        if (isToken(&reader->token, reader->words[i].word))
        {
            return &reader->words[i];
        }
    }
    return NULL;
}

static int isNumber(const Reader *reader, float *number)
{
    char *end;
    *number = strtof_l(reader->token.start, &end, reader->plain);
    return reader->token.length > 0 && end == reader->token.start + reader->token.length;
}

/* What of a text is worth to be shown. */
static int shown(const Token *token)
{
    const int most = 40;
    return token->length < most ? token->length : most;
}

/* Another word in the place of a number is left for its turn. */
static int readNumber(Reader *reader, const ParameterWord *word, float *number)
{
    const Token found = reader->token;
    if (found.length == 0 || wordOf(reader) != NULL)
    {
        vu_warn("Warning", reader->plugin, __LINE__, "FX \"%s\": PARAMETER %s needs %d number(s)", reader->effect,
                word->word, word->count);
        return 0;
    }
    const int whole = isNumber(reader, number);
    advance(reader);
    if (!whole || !(*number >= word->min && *number <= word->max))
    {
        vu_warn("Warning", reader->plugin, __LINE__,
                "FX \"%s\": PARAMETER %s wants numbers from %g to %g, and not \"%.*s\"", reader->effect, word->word,
                word->min, word->max, shown(&found), found.start);
        return 0;
    }
    return 1;
}

static void readWord(Reader *reader, const ParameterWord *word)
{
    float numbers[PARAMETER_MOST_NUMBERS], ignored;
    int good = 1;
    for (int i = 0; i < word->count && good; ++i)
    {
        good = readNumber(reader, word, &numbers[i]);
    }
    if (good)
    {
        memcpy(word->numbers, numbers, (size_t)word->count * sizeof *numbers);
    }
    while (!good && isNumber(reader, &ignored)) /* the rest of what is refused */
    {
        advance(reader);
    }
}

static void skipUnknown(Reader *reader)
{
    float ignored;
    vu_warn("Warning", reader->plugin, __LINE__, "FX \"%s\": PARAMETER has no word \"%.*s\"", reader->effect,
            shown(&reader->token), reader->token.start);
    do
    {
        advance(reader);
    } while (isNumber(reader, &ignored));
}

void parametersRead(const char *plugin, const vuEffect *fx, const ParameterWord *words, int count)
{
    if (fx->parameter == NULL)
    {
        return;
    }
    const locale_t plain = newlocale(LC_ALL_MASK, "C", (locale_t)0); /* is always there, and costs nothing */
    Reader reader = {plugin, fx->node.name != NULL ? fx->node.name : "", words, count, plain, {fx->parameter, 0}};
    for (advance(&reader); reader.token.length > 0;)
    {
        const ParameterWord *const word = wordOf(&reader);
        if (word == NULL)
        {
            skipUnknown(&reader);
            continue;
        }
        advance(&reader);
        readWord(&reader, word);
    }
    freelocale(plain);
}
