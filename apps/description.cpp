#include "description.h"

#include "inputfile.h"
#include "plaintext.h"
#include "quietstderr.h"

#include <tolvin/kernel/kernelmaterial.h>
#include <tolvin/kernel/kerneltexture.h>
#include <tolvin/performer/pf.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>

namespace tolvin
{

namespace
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
    TokenKind kind;
    std::string_view text; // without quotes
    int line;
    int column;
};

// Splits a description into tokens.
class Scanner
{
public:
    explicit Scanner(std::string_view text) : rest_(text)
    {
        constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
        rest_.remove_prefix(text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0);
    }

    Token next()
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
            // A text without its second quote ends with the line; the token before it tells where it began.
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

    // Whether the last text lacked its second quote.
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
    std::string_view take(std::size_t count)
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

    void skipBlanks()
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

    std::string_view rest_;
    int line_ = 1;
    int column_ = 1;
    bool unterminated_ = false;
};

// Allocates records that the kernel initialises.
template<typename Record>
Record *allocate()
{
    void *const arena = pfGetSharedArena();
    void *const block = arena == nullptr ? nullptr : pfMalloc(sizeof(Record), arena);
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    return static_cast<Record *>(block);
}

// After the record has its place in a list, which releases it.
void requireName(const vunode &node)
{
    if (node.name == nullptr)
    {
        throw std::bad_alloc();
    }
}

char *copyOf(std::string_view text)
{
    auto *const copy = static_cast<char *>(pfMalloc(text.size() + 1, pfGetSharedArena()));
    if (copy == nullptr)
    {
        throw std::bad_alloc();
    }
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

template<typename Record>
Record *firstOf(const vulist &list)
{
    return reinterpret_cast<Record *>(list.first);
}

void freeList(vulist &lists, vuMaterialList *list)
{
    materialFreeAll(list);
    pfFree(list->materials);
    vunodeDelete(&lists, &list->node);
    pfFree(list);
}

void freeList(vulist &lists, vuTextureList *list)
{
    for (vunode *node = list->list.first; node != nullptr; node = node->next)
    {
        auto *const texture = reinterpret_cast<vuTexture *>(node);
        pfFree(texture->file);
        texture->file = nullptr;
    }
    textureFreeAll(list);
    pfFree(list->textures);
    vunodeDelete(&lists, &list->node);
    pfFree(list);
}

// Lists that belong to nobody else yet.
struct Surfaces
{
    vulist materialLists = {};
    vulist textureLists = {};

    Surfaces() = default;
    Surfaces(const Surfaces &) = delete;
    Surfaces &operator=(const Surfaces &) = delete;

    ~Surfaces()
    {
        release(materialLists, textureLists);
    }

    static void release(vulist &materialLists, vulist &textureLists)
    {
        while (auto *const list = firstOf<vuMaterialList>(materialLists))
        {
            freeList(materialLists, list);
        }
        while (auto *const list = firstOf<vuTextureList>(textureLists))
        {
            freeList(textureLists, list);
        }
    }

    void moveTo(vuRootNode &root)
    {
        move(materialLists, root.materialLists);
        move(textureLists, root.textureLists);
    }

private:
    static void move(vulist &from, vulist &to)
    {
        while (vunode *const node = from.first)
        {
            vunodeRemove(&from, node);
            vunodeAppend(&to, node);
        }
    }
};

struct NamedCode
{
    std::string_view name;
    int code;
};

// Of several codes with the same name in dumps the first.
constexpr NamedCode kInternalFormats[] = {{"LUMINANCE", 1},
                                          {"LUMINANCE_ALPHA", 3},
                                          {"LUMINANCE4_ALPHA4", 4},
                                          {"LUMINANCE12_ALPHA4", 5},
                                          {"LUMINANCE16_ALPHA16", 6},
                                          {"INTENSITY", 7},
                                          {"RGB", 9},
                                          {"RGB4", 10},
                                          {"RGBA", 12},
                                          {"RGBA4", 13},
                                          {"RGB5_A1", 14}};
constexpr NamedCode kFilters[] = {{"NEAREST", 0}, {"LINEAR", 1}};

// Material attributes: keyword, bit of the mask, where the values go.
struct MaterialAttribute
{
    std::string_view keyword;
    std::uint32_t bit;
    std::span<float> (*values)(vuMaterial &);
};

constexpr MaterialAttribute kMaterialAttributes[] = {
    {"AMBIENT", VU_MATERIAL_AMBIENT, [](vuMaterial &m) { return std::span<float>(m.ambient); }},
    {"DIFFUSE", VU_MATERIAL_DIFFUSE, [](vuMaterial &m) { return std::span<float>(m.diffuse); }},
    {"SPECULAR", VU_MATERIAL_SPECULAR, [](vuMaterial &m) { return std::span<float>(m.specular); }},
    {"EMISSIVE", VU_MATERIAL_EMISSIVE, [](vuMaterial &m) { return std::span<float>(m.emissive); }},
    {"SHININESS", VU_MATERIAL_SHININESS, [](vuMaterial &m) { return std::span<float>(&m.shininess, 1); }},
    {"ALPHA", VU_MATERIAL_ALPHA, [](vuMaterial &m) { return std::span<float>(&m.alpha, 1); }},
};

constexpr std::size_t kLongest = 64 << 20; // bytes of a file

// What may begin an item, and so cannot be a value that is wrong.
constexpr std::string_view kKeywords[] = {"MATERIALLIST", "TEXTURELIST", "MATERIAL",   "TEXTURE",   "FPS",   "AMBIENT",
                                          "DIFFUSE",      "SPECULAR",    "EMISSIVE",   "SHININESS", "ALPHA", "WRAP_S",
                                          "WRAP_T",       "INTERNAL",    "MIN_FILTER", "MAG_FILTER"};

// A filter that dumps have no name for; it is drawn as LINEAR is.
constexpr std::int16_t kFilterNotGiven = 2;

bool looksLikeNumber(const Token &token)
{
    return token.kind == TokenKind::Word &&
           std::string_view("+-.0123456789").find(token.text[0]) != std::string_view::npos;
}

class Parser
{
public:
    explicit Parser(std::string_view text) : scanner_(text), token_(scanner_.next())
    {
        checkText();
    }

    std::vector<DescriptionError> parse(Surfaces &surfaces)
    {
        while (token_.kind != TokenKind::End)
        {
            if (!takeList(surfaces))
            {
                refuseItem({}, "MATERIALLIST or TEXTURELIST");
            }
        }
        return std::move(errors_);
    }

private:
    void advance()
    {
        token_ = scanner_.next();
        checkText();
    }

    void checkText()
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

    // Found and expected, at the current token. What comes of an error at the same token is not told.
    void complain(const std::string &expected)
    {
        const bool again =
            !errors_.empty() && errors_.back().line == token_.line && errors_.back().column == token_.column;
        if (again || errors_.size() > kMostErrors)
        {
            return;
        }
        const std::string what = found() + ": expected " + expected;
        const bool isLast = errors_.size() == kMostErrors;
        errors_.push_back({token_.line, token_.column, isLast ? "what else is wrong is not told" : what});
    }

    std::string found() const
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

    bool isKeyword(std::span<const std::string_view> keywords) const
    {
        return token_.kind == TokenKind::Word && std::ranges::find(keywords, token_.text) != keywords.end();
    }

    bool takeKeyword(std::string_view keyword)
    {
        const bool found = isKeyword({&keyword, 1});
        if (found)
        {
            advance();
        }
        return found;
    }

    bool take(TokenKind kind, const char *expected)
    {
        if (token_.kind != kind)
        {
            complain(expected);
            return false;
        }
        advance();
        return true;
    }

    // Reports a wrong value and goes on behind it, or before the item that stands in its place.
    void refuse(const std::string &expected)
    {
        complain(expected);
        if ((token_.kind == TokenKind::Word && !isKeyword(kKeywords)) || token_.kind == TokenKind::Text)
        {
            advance();
        }
    }

    // Reports what is no item here, and goes on behind what seems to belong to it: texts, numbers, a block.
    void refuseItem(std::span<const std::string_view> around, const std::string &expected)
    {
        complain(expected);
        Surfaces unused;
        if (takeAnything(unused))
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
            skipBlock(around, unused);
        }
    }

    // The rest of a block that means nothing: what is known of it is checked for errors all the same.
    void skipBlock(std::span<const std::string_view> around, Surfaces &unused)
    {
        for (int depth = 1; depth > 0;)
        {
            if (token_.kind == TokenKind::End || isKeyword(around))
            {
                complain("}");
                return;
            }
            if (!takeAnything(unused))
            {
                depth += token_.kind == TokenKind::Open ? 1 : token_.kind == TokenKind::Close ? -1 : 0;
                advance();
            }
        }
    }

    // A list or item of any kind, wherever it stands.
    bool takeAnything(Surfaces &unused)
    {
        if (takeKeyword("MATERIAL"))
        {
            material(newList<vuMaterialList>(unused.materialLists, materialListInit, "")->list);
            return true;
        }
        if (takeKeyword("TEXTURE"))
        {
            texture(newList<vuTextureList>(unused.textureLists, textureListInit, "")->list);
            return true;
        }
        return takeList(unused);
    }

    // Something before a name that is not known, and so may be meant for the keyword of what has names here.
    bool takeMisspelt(const std::string &expected)
    {
        Scanner ahead = scanner_;
        const bool isMisspelt =
            token_.kind == TokenKind::Word && !isKeyword(kKeywords) && ahead.next().kind == TokenKind::Text;
        if (isMisspelt)
        {
            complain(expected);
            advance();
        }
        return isMisspelt;
    }

    // The name and the opening brace of a block; what is missing is reported, and the block read all the same.
    std::string blockName()
    {
        std::string name;
        if (token_.kind == TokenKind::Text)
        {
            name = token_.text;
            advance();
        }
        else
        {
            refuse("a name in quotes");
        }
        take(TokenKind::Open, "{");
        return name;
    }

    // Reads items up to the closing brace. item reads one, if it knows its keyword, and returns whether it does. Where one
    // of the keywords stands that begin what is around this block, a brace is missing.
    template<typename Item>
    void block(std::span<const std::string_view> around, const char *expected, const Item &item)
    {
        while (token_.kind != TokenKind::Close)
        {
            if (token_.kind == TokenKind::End || isKeyword(around))
            {
                complain("}");
                return;
            }
            if (!item())
            {
                refuseItem(around, expected);
            }
        }
        closing_ = scanner_.restOfLine();
        advance();
    }

    // range  what numbers up to `most` are called
    bool number(double &value, double most, const char *range)
    {
        const char *const end = token_.text.data() + token_.text.size();
        const bool hasPlus = token_.text.starts_with('+') && !token_.text.starts_with("+-");
        const bool isWord = token_.kind == TokenKind::Word;
        value = 0.0;
        const auto read = isWord ? std::from_chars(token_.text.data() + hasPlus, end, value) : std::from_chars_result{};
        const bool isNumber = isWord && read.ptr == end && std::isfinite(value);
        if (read.ec == std::errc::result_out_of_range)
        {
            value = std::strtod(std::string(token_.text).c_str(), nullptr); // 0, or infinite
        }
        if (!isNumber || std::abs(value) > most)
        {
            refuse(isNumber ? std::string("a number in the range of ") + range : "a number");
            return false;
        }
        advance();
        return true;
    }

    void floats(std::span<float> values)
    {
        constexpr double kRoundsToMost = std::numeric_limits<float>::max() * (1.0 + 0x1p-26);
        for (float &value : values)
        {
            double wide;
            if (!number(wide, kRoundsToMost, "single precision"))
            {
                while (looksLikeNumber(token_)) // the others
                {
                    advance();
                }
                return;
            }
            value = static_cast<float>(wide);
        }
    }

    std::optional<int> code(std::span<const NamedCode> codes)
    {
        std::string expected;
        for (const auto &[name, code] : codes)
        {
            if (token_.kind == TokenKind::Word && token_.text == name)
            {
                advance();
                return code;
            }
            expected += (expected.empty() ? "" : ", ") + std::string(name);
        }
        refuse(expected);
        return std::nullopt;
    }

    template<typename List>
    static List *newList(vulist &lists, void (*initialise)(List *, const char *), const std::string &name)
    {
        auto *const list = allocate<List>();
        initialise(list, name.c_str());
        vunodeAppend(&lists, &list->node);
        requireName(list->node);
        return list;
    }

    bool takeList(Surfaces &surfaces)
    {
        if (takeKeyword("MATERIALLIST"))
        {
            materialList(surfaces.materialLists);
            return true;
        }
        const bool isTextures = takeKeyword("TEXTURELIST");
        if (isTextures)
        {
            textureList(surfaces.textureLists);
        }
        return isTextures;
    }

    void materialList(vulist &lists)
    {
        auto *const list = newList<vuMaterialList>(lists, materialListInit, blockName());
        block(kListKeywords, "MATERIAL or }",
              [&]
              {
                  const bool known = takeKeyword("MATERIAL") || takeMisspelt("MATERIAL or }");
                  if (known)
                  {
                      material(list->list);
                  }
                  return known;
              });
    }

    void material(vulist &list)
    {
        auto *const material = allocate<vuMaterial>();
        materialInit(material, blockName().c_str());
        vunodeAppend(&list, &material->node);
        requireName(material->node);
        block(kItemKeywords, "AMBIENT, DIFFUSE, SPECULAR, EMISSIVE, SHININESS, ALPHA or }",
              [&]
              {
                  for (const auto &[keyword, bit, values] : kMaterialAttributes)
                  {
                      if (takeKeyword(keyword))
                      {
                          floats(values(*material));
                          material->mask |= bit;
                          return true;
                      }
                  }
                  return false;
              });
    }

    void textureList(vulist &lists)
    {
        auto *const list = newList<vuTextureList>(lists, textureListInit, blockName());
        block(kListKeywords, "FPS, TEXTURE or }",
              [&]
              {
                  if (takeKeyword("FPS"))
                  {
                      number(list->fps, std::numeric_limits<double>::max(), "double precision");
                      list->mask |= VU_TEXTURELIST_FPS;
                      return true;
                  }
                  const bool known = takeKeyword("TEXTURE") || takeMisspelt("FPS, TEXTURE or }");
                  if (known)
                  {
                      texture(list->list);
                  }
                  return known;
              });
    }

    void texture(vulist &list)
    {
        auto *const texture = allocate<vuTexture>();
        textureInit(texture, blockName().c_str());
        vunodeAppend(&list, &texture->node);
        requireName(texture->node);
        texture->minFilter = texture->magFilter = kFilterNotGiven;
        if (token_.kind == TokenKind::Text)
        {
            texture->file = copyOf(token_.text);
            advance();
        }
        else if (token_.kind == TokenKind::Word && !isKeyword(kKeywords))
        {
            refuse("a file in quotes, WRAP_S, WRAP_T, INTERNAL, MIN_FILTER, MAG_FILTER or }");
        }
        closing_ = {};
        block(kItemKeywords, "WRAP_S, WRAP_T, INTERNAL, MIN_FILTER, MAG_FILTER or }",
              [&] { return textureAttribute(*texture); });
        readRemark(*texture);
    }

    bool textureAttribute(vuTexture &texture)
    {
        if (takeKeyword("WRAP_S"))
        {
            texture.mask |= VU_TEXTURE_WRAP_S;
        }
        else if (takeKeyword("WRAP_T"))
        {
            texture.mask |= VU_TEXTURE_WRAP_T;
        }
        else if (takeKeyword("INTERNAL"))
        {
            texture.internal = static_cast<std::int16_t>(code(kInternalFormats).value_or(0));
        }
        else if (takeKeyword("MIN_FILTER"))
        {
            texture.minFilter = static_cast<std::int16_t>(code(kFilters).value_or(1));
        }
        else if (takeKeyword("MAG_FILTER"))
        {
            texture.magFilter = static_cast<std::int16_t>(code(kFilters).value_or(1));
        }
        else
        {
            return false;
        }
        return true;
    }

    // The comment of a dump behind the closing brace.
    void readRemark(vuTexture &texture) const
    {
        std::string_view rest = closing_;
        const auto take = [&rest](std::string_view before, auto &value)
        {
            const bool starts = rest.starts_with(before);
            rest.remove_prefix(starts ? before.size() : 0);
            const auto read = std::from_chars(rest.data(), rest.data() + rest.size(), value);
            rest.remove_prefix(static_cast<std::size_t>(read.ptr - rest.data()));
            return starts && read.ec == std::errc();
        };
        vuTexture seen = texture;
        if (take(" # ", seen.userValue) && take(" ", seen.width) && take("x", seen.height) &&
            take("x", seen.components) && rest.find_first_not_of(" \t\r") == std::string_view::npos)
        {
            texture = seen;
        }
    }

    static constexpr std::string_view kItemKeywords[] = {"MATERIALLIST", "TEXTURELIST", "MATERIAL", "TEXTURE"};
    static constexpr std::span<const std::string_view> kListKeywords{kItemKeywords, 2};

    Scanner scanner_;
    Token token_;
    std::string_view closing_; // what stood behind the last closing brace on its line
    std::vector<DescriptionError> errors_;
};

} // namespace

std::vector<DescriptionError> readDescription(std::string_view text, vuRootNode &root)
{
    Surfaces surfaces;
    std::vector<DescriptionError> errors = Parser(text).parse(surfaces);
    if (errors.empty())
    {
        surfaces.moveTo(root);
    }
    return errors;
}

void readDescriptionFile(const std::string &file, vuRootNode &root)
{
    const std::string text = contentOf(file,
                                       [](const std::string &content)
                                       {
                                           if (content.size() > kLongest)
                                           {
                                               throw std::runtime_error("too long: expected 64 MiB at most");
                                           }
                                           return true;
                                       });
    const QuietStandardError quiet; // the kernel tells what it releases after an error
    const std::vector<DescriptionError> errors = readDescription(text, root);
    std::string message;
    for (const auto &[line, column, what] : errors)
    {
        message += (message.empty() ? "" : "\n") + file + ':' + std::to_string(line) + ':' + std::to_string(column) +
                   ": " + what;
    }
    if (!message.empty())
    {
        throw std::runtime_error(message);
    }
}

void releaseSurfaces(vuRootNode &root)
{
    Surfaces::release(root.materialLists, root.textureLists);
}

} // namespace tolvin
