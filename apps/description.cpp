#include "description.h"

#include <tolvin/kernel/kernelmaterial.h>
#include <tolvin/kernel/kerneltexture.h>
#include <tolvin/performer/pf.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <optional>
#include <span>
#include <sstream>
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
            if (takeKeyword("MATERIALLIST"))
            {
                materialList(surfaces.materialLists);
            }
            else if (takeKeyword("TEXTURELIST"))
            {
                textureList(surfaces.textureLists);
            }
            else
            {
                refuseItem("MATERIALLIST or TEXTURELIST");
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
    }

    // Found and expected, at the current token. What comes of an error at the same token is not told.
    void complain(const std::string &expected)
    {
        const bool again =
            !errors_.empty() && errors_.back().line == token_.line && errors_.back().column == token_.column;
        if (!again && errors_.size() < kMostErrors)
        {
            errors_.push_back({token_.line, token_.column, found() + ": expected " + expected});
        }
    }

    std::string found() const
    {
        constexpr std::size_t kMost = 60;
        const std::string text(token_.text.substr(0, kMost));
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

    bool takeKeyword(std::string_view keyword)
    {
        const bool found = token_.kind == TokenKind::Word && token_.text == keyword;
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

    // Reports a wrong value and goes on behind it.
    void refuse(const std::string &expected)
    {
        complain(expected);
        if (token_.kind == TokenKind::Word || token_.kind == TokenKind::Text)
        {
            advance();
        }
    }

    // Reports a wrong keyword and goes on behind what seems to belong to it: texts, numbers, a block.
    void refuseItem(const std::string &expected)
    {
        complain(expected);
        advance();
        while (token_.kind == TokenKind::Text ||
               (token_.kind == TokenKind::Word && std::strchr("+-.0123456789", token_.text[0]) != nullptr))
        {
            advance();
        }
        for (int depth = 0; token_.kind != TokenKind::End && (depth > 0 || token_.kind == TokenKind::Open); advance())
        {
            depth += token_.kind == TokenKind::Open ? 1 : token_.kind == TokenKind::Close ? -1 : 0;
            if (depth == 0)
            {
                advance();
                return;
            }
        }
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

    // Reads items up to the closing brace. item reads one, if it knows its keyword, and returns whether it does.
    template<typename Item>
    void block(const char *expected, const Item &item)
    {
        while (token_.kind != TokenKind::Close)
        {
            // A list cannot begin within another one: here a brace is missing.
            const bool beginsList =
                token_.kind == TokenKind::Word && (token_.text == "MATERIALLIST" || token_.text == "TEXTURELIST");
            if (token_.kind == TokenKind::End || beginsList)
            {
                complain("}");
                return;
            }
            if (!item())
            {
                refuseItem(expected);
            }
        }
        closing_ = scanner_.restOfLine();
        advance();
    }

    bool number(double &value, double most)
    {
        const char *const end = token_.text.data() + token_.text.size();
        const bool isWord = token_.kind == TokenKind::Word;
        const auto read = isWord ? std::from_chars(token_.text.data(), end, value) : std::from_chars_result{};
        if (!isWord || read.ec != std::errc() || read.ptr != end || !(std::abs(value) <= most))
        {
            refuse("a number");
            return false;
        }
        advance();
        return true;
    }

    bool floats(std::span<float> values)
    {
        for (float &value : values)
        {
            double wide;
            if (!number(wide, std::numeric_limits<float>::max()))
            {
                return false;
            }
            value = static_cast<float>(wide);
        }
        return true;
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

    void materialList(vulist &lists)
    {
        auto *const list = allocate<vuMaterialList>();
        materialListInit(list, blockName().c_str());
        vunodeAppend(&lists, &list->node);
        block("MATERIAL or }",
              [&]
              {
                  const bool known = takeKeyword("MATERIAL");
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
        block("AMBIENT, DIFFUSE, SPECULAR, EMISSIVE, SHININESS, ALPHA or }",
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
        auto *const list = allocate<vuTextureList>();
        textureListInit(list, blockName().c_str());
        vunodeAppend(&lists, &list->node);
        block("FPS, TEXTURE or }",
              [&]
              {
                  if (takeKeyword("FPS"))
                  {
                      number(list->fps, std::numeric_limits<double>::max());
                      list->mask |= VU_TEXTURELIST_FPS;
                      return true;
                  }
                  const bool known = takeKeyword("TEXTURE");
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
        if (token_.kind == TokenKind::Text)
        {
            texture->file = copyOf(token_.text);
            advance();
        }
        closing_ = {};
        block("WRAP_S, WRAP_T, INTERNAL, MIN_FILTER, MAG_FILTER or }", [&] { return textureAttribute(*texture); });
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
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    if (!in || !(text << in.rdbuf()))
    {
        throw std::runtime_error(file + ": cannot be read, or is empty");
    }
    std::string message;
    for (const auto &[line, column, what] : readDescription(text.str(), root))
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
