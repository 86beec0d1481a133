#include "effectreader.h"

#include "kernelrecord.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>
#include <utility>

namespace tolvin
{

namespace
{

// More than anybody tells apart, and few enough that a mistyped number does not fill the memory.
constexpr int kMostInstances = 65536;

} // namespace

// They are released as those of a root node are.
EffectRecords::~EffectRecords()
{
    vuRootNode owner = {};
    moveNodes(list, owner.effects);
    effectFreeAll(&owner);
}

struct EffectReader::Attribute
{
    std::string_view keyword;
    void (*read)(DescriptionReader &, vuEffect &);
};

namespace
{

void text(DescriptionReader &in, char *&to)
{
    const std::string read = in.quoted("a text in quotes");
    pfFree(std::exchange(to, nullptr));
    to = arenaCopyOf(read);
}

//   isGood  whether the number may be that
void seconds(DescriptionReader &in, double &value, bool (*isGood)(double), const char *expected)
{
    const Token place = in.token();
    if (in.number(value) && !isGood(value))
    {
        in.complainAt(place, place.text, expected);
    }
}

} // namespace

EffectReader::EffectReader(DescriptionReader &in, const vulist &before, vulist &out, std::string &where)
    : in_(in),
      out_(out),
      where_(where)
{
    for (const vunode *node = before.first; node != nullptr; node = node->next)
    {
        names_.insert(node->name != nullptr ? node->name : "");
    }
}

bool EffectReader::takeBlock()
{
    const bool isEffect = in_.takeKeyword("EFFECT");
    if (isEffect)
    {
        if (where_.empty())
        {
            where_ = std::to_string(in_.keyword().line) + ':' + std::to_string(in_.keyword().column);
        }
        effect();
    }
    return isEffect;
}

void EffectReader::effect()
{
    static constexpr Attribute kAttributes[] = {
        {"COLOUR", [](DescriptionReader &in, vuEffect &fx) { in.numbers(fx.colour); }},
        {"NUM", [](DescriptionReader &in, vuEffect &fx) { in.wholeNumber(fx.num, 0, kMostInstances); }},
        {"DURATION",
         [](DescriptionReader &in, vuEffect &fx)
         {
             seconds(
                 in, fx.duration, [](double value) { return value > 0.0; }, "more than 0 seconds");
         }},
        {"FADE",
         [](DescriptionReader &in, vuEffect &fx)
         {
             seconds(
                 in, fx.fade, [](double value) { return value >= 0.0; }, "0 seconds or more");
         }},
        {"MASK_DRAW", [](DescriptionReader &in, vuEffect &fx) { in.mask(fx.maskDraw); }},
        {"PARAMETER", [](DescriptionReader &in, vuEffect &fx) { text(in, fx.parameter); }},
        {"ENTITYNODE", [](DescriptionReader &in, vuEffect &fx) { text(in, fx.entityNode); }},
        {"POSITION", [](DescriptionReader &in, vuEffect &fx) { in.numbers(fx.position); }},
        {"DIRECTION", [](DescriptionReader &in, vuEffect &fx) { in.numbers(fx.direction); }},
        {"LINKFX", [](DescriptionReader &in, vuEffect &fx) { text(in, fx.linkFxName); }},
    };
    std::array<std::string_view, std::size(kAttributes) + 1> words;
    std::ranges::transform(kAttributes, words.begin(), &Attribute::keyword);
    words.back() = "}";
    const std::string expected = alternatives(words);
    const std::string name = uniqueName();
    auto *const fx = allocateRecord<vuEffect>();
    effectInit(fx, name.c_str());
    vunodeAppend(&out_, &fx->node);
    requireName(fx->node);
    pluginFile(*fx, expected);
    std::set<std::string_view> read;
    in_.block(kOuterKeywords, expected,
              [&]
              {
                  const auto *const attribute = std::ranges::find_if(kAttributes, [this](const Attribute &known)
                                                                     { return in_.isAt(known.keyword); });
                  if (attribute == std::end(kAttributes))
                  {
                      return false;
                  }
                  if (!read.insert(attribute->keyword).second)
                  {
                      in_.complain("1 of them at most");
                  }
                  in_.takeKeyword(attribute->keyword);
                  attribute->read(in_, *fx);
                  return true;
              });
}

std::string EffectReader::uniqueName()
{
    const Token &name = in_.token();
    if (name.kind == TokenKind::Text && !names_.emplace(name.text).second)
    {
        in_.complain("a name that no other EFFECT has");
    }
    return in_.blockName();
}

// The loader takes an empty name for the program itself.
void EffectReader::pluginFile(vuEffect &fx, const std::string &expected)
{
    const Token &file = in_.token();
    if (file.kind == TokenKind::Text && !file.text.empty())
    {
        fx.pluginFile = arenaCopyOf(file.text);
        in_.advance();
    }
    else if (file.kind == TokenKind::Text || (file.kind == TokenKind::Word && !in_.isAtKeyword()))
    {
        in_.refuse("a plug-in file in quotes, " + expected);
    }
}

} // namespace tolvin
