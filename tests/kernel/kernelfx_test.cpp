#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <sys/stat.h>

#include <tolvin/kernel/tolvin.h>
#include <tolvin/performer/pf.h>

#include "support/capture.h"
#include "support/fullarena.h"
#include "support/temporaryfolder.h"

static const std::string kProbe = TOLVIN_TEST_PROBE, kOnlyUpdate = TOLVIN_TEST_ONLY_UPDATE;

using tolvin::blocksInUse;

static char *inArena(const std::string &text)
{
    return static_cast<char *>(memcpy(pfMalloc(text.size() + 1, pfGetSharedArena()), text.c_str(), text.size() + 1));
}

static bool isLoaded(const std::string &plugin)
{
    void *handle = dlopen(plugin.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    return handle != nullptr && dlclose(handle) == 0;
}

// Without the line numbers of messages.
static std::string messages(const std::function<void()> &action)
{
    std::string text = capturedStderr(action);
    for (size_t at = 0; (at = text.find("kernelfx:", at)) != std::string::npos; at += 10)
    {
        const size_t digits = at + 9;
        text.replace(digits, text.find(' ', digits) - digits, "#");
    }
    return text;
}

class Effects : public testing::Test
{
protected:
    tolvin::NothingStays nothingStays;
    vuRootNode root = {};

    ~Effects() override
    {
        effectUnloadAll(&root);
        effectFreeAll(&root);
        EXPECT_EQ(root.effects.first, nullptr);
        EXPECT_FALSE(isLoaded(kProbe) || isLoaded(kOnlyUpdate));
    }

    vuEffect *add(const char *name, const std::string &plugin = {}, int num = 2)
    {
        auto *fx = static_cast<vuEffect *>(pfMalloc(sizeof(vuEffect), pfGetSharedArena()));
        memset(fx, 0xa5, sizeof *fx);
        effectInit(fx, name);
        EXPECT_EQ(fx->num, 16);
        fx->pluginFile = plugin.empty() ? nullptr : inArena(plugin);
        fx->num = num;
        vunodeAppend(&root.effects, &fx->node);
        return fx;
    }

    std::string log(vuEffect *fx)
    {
        char *text = static_cast<char *>(dlsym(fx->handle, "fxLog"));
        const std::string copy = text;
        *text = '\0';
        return copy;
    }
};

TEST_F(Effects, InitialisesAllButOneWord)
{
    const vuEffect *fx = add("smoke");
    EXPECT_STREQ(fx->node.name, "smoke");
    EXPECT_TRUE(fx->node.type == 19 && fx->tagbase == 0 && fx->maskDraw == 0xffffffff && fx->reserved0 == 0xa5a5a5a5);
    EXPECT_TRUE(fx->fade == 0.0 && fx->numInst == 0 && fx->inst == nullptr && fx->handle == nullptr);
    EXPECT_TRUE(fx->reserved1 == 0 && fx->reserved2 == 0 && fx->fxInit == nullptr && fx->fxFreeInst == nullptr);
    EXPECT_TRUE(fx->entityNode == nullptr && fx->linkFx == nullptr);
}

TEST_F(Effects, SetsUpInOrderAndConnectsForwards)
{
    vuEffect *first = add("first", kProbe), *self = add("self", kProbe, 0), *lost = add("lost", kProbe, 1);
    add("bare"); // never set up
    vuEffect *last = add("last", kProbe, 1);
    first->linkFxName = inArena("last"), self->linkFxName = inArena("self"), lost->linkFxName = inArena("nobody");
    self->linkFx = last;
    const std::string said = messages([&] { EXPECT_EQ(effectSetupAll(&root), 4); });
    const std::string tag = "kernelfx:# Info: FX tagbase: 0x50524f42\n";
    EXPECT_EQ(said, tag + "[0] [1] " + tag +
                        "kernelfx:# Warning: \033[33mlink FX \"self\" must not connect to itself\033[0m\n" + tag +
                        "[0] kernelfx:# Warning: \033[33munable to find link FX \"nobody\"\033[0m\n" + tag + "[0] ");
    EXPECT_EQ(log(first), "init first 2 0 0\ninitInst first 0 0 0\ninitInst first 1 0 0\ninit self 0 0 0\n"
                          "init lost 1 0 0\ninitInst lost 0 0 0\ninit last 1 0 0\ninitInst last 0 0 0\n");
    EXPECT_TRUE(first->linkFx == last && self->linkFx == nullptr && lost->linkFx == nullptr);
    EXPECT_TRUE(first->numInst == 2 && self->numInst == 0 && first->tagbase == 0x50524f42);
    EXPECT_TRUE(effectSearchNamed(&root, "last") == last && effectSearchNamed(&root, "las") == nullptr);
    EXPECT_EQ(effectSearchNamed(&root, nullptr), nullptr);

    effectUpdate(&root);
    EXPECT_EQ(log(first), "update first 0 0 0\nupdate self 0 0 0\nupdate lost 0 0 0\nupdate last 0 0 0\n");
}

TEST_F(Effects, ForwardsWordsUnchanged)
{
    vuEffect *fx = add("fx", kProbe);
    messages([&] { effectSetupAll(&root); });
    log(fx);
    auto *answer = static_cast<uintptr_t *>(dlsym(fx->handle, "fxAnswer"));
    constexpr auto kMost = std::numeric_limits<uintptr_t>::max();
    *answer = kMost - 1; // garbage comes back as it is
    EXPECT_EQ(effectObtain(&root, fx, kMost), kMost - 1);
    EXPECT_EQ(messages([&] { EXPECT_EQ(effectTrigger(&root, fx, 7), kMost - 1); }),
              "kernelfx:# Info: FX trigger \"fx\"\n");
    effectTriggerInst(&root, fx, 1, 2);
    EXPECT_EQ(effectGetData(&root, fx, 3, 4) & effectSetData(&root, fx, 5, 6), kMost - 1);
    EXPECT_EQ(effectGetInstData(&root, fx, 1, 2, 3) & effectSetInstData(&root, fx, 4, 5, 6), kMost - 1);
    EXPECT_EQ(effectStopInst(&root, fx, &fx->inst[1]), kMost - 1);
    char most[32];
    snprintf(most, sizeof most, "%zx", static_cast<size_t>(kMost));
    EXPECT_EQ(log(fx), std::string("obtain fx ") + most +
                           " 0 0\ntrigger fx 7 0 0\ntriggerInst fx 1 2 0\ngetData fx 3 4 0\nsetData fx 5 6 0\n"
                           "getInstData fx 1 2 3\nsetInstData fx 4 5 6\nstopInst fx 1 0 0\n");

    const auto misuse = [&]
    {
        EXPECT_EQ(effectStopInst(&root, fx, nullptr), 0U);
        EXPECT_EQ(effectObtain(&root, nullptr, 1) + effectTrigger(&root, nullptr, 1), 0U);
        effectTriggerInst(&root, nullptr, 1, 2);
        EXPECT_EQ(effectStopInst(&root, nullptr, fx->inst), 0U);
        EXPECT_EQ(effectSetup(&root, nullptr), 0);
    };
    const std::string none = "kernelfx:# Debug: No fx\n";
    EXPECT_EQ(messages(misuse),
              "kernelfx:# Debug: NULL Instance\n" + none + none + none + none + "kernelfx:# Debug: No effect\n");
    EXPECT_EQ(log(fx), "");
}

TEST_F(Effects, GoOnWithoutEntryPoints)
{
    vuEffect *fx = add("fx", kOnlyUpdate);
    add("other");
    fx->linkFxName = inArena("other");
    std::string expected;
    for (const char *name : {"Init", "GetData", "SetData", "Obtain", "Trigger", "Free", "InitInst", "TriggerInst",
                             "GetInstData", "SetInstData", "StopInst", "FreeInst"})
    {
        expected += std::string("kernelfx:# Warning: \033[33munable to find function \"fx") + name + "\" in \"" +
                    kOnlyUpdate + "\"\033[0m\n";
    }
    EXPECT_EQ(messages([&] { EXPECT_EQ(effectSetup(&root, fx), 1); }), expected);
    EXPECT_TRUE(fx->numInst == 2 && fx->inst != nullptr && fx->linkFx == nullptr && fx->fxFreeInst == nullptr);
    effectUpdate(&root);
    EXPECT_EQ(log(fx), "update fx 0 0 0\n");
    const auto ask = [&]
    {
        EXPECT_EQ(effectObtain(&root, fx, 1) + effectTrigger(&root, fx, 1) + effectGetInstData(&root, fx, 1, 2, 3), 0U);
        effectTriggerInst(&root, fx, 1, 2);
    };
    EXPECT_EQ(messages(ask), "kernelfx:# Info: FX trigger \"fx\"\n");
    EXPECT_EQ(messages([&] { EXPECT_EQ(effectStopInst(&root, fx, fx->inst), 0U); }),
              "kernelfx:# Warning: \033[33mfxStopInst() undefined in plugin \"" + kOnlyUpdate + "\"\033[0m\n");
}

TEST_F(Effects, RefuseWhatIsNoPlugin)
{
    const TemporaryFolder folder;
    const auto write = [&](const char *name, const std::string &bytes)
    { std::ofstream(folder / name, std::ios::binary) << bytes; };
    write("text.so", "no shared object\n");
    mkfifo((folder / "pipe.so").c_str(), 0600);
    std::ifstream probe(kProbe, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(probe), {}};
    write("part.so", bytes.substr(0, 4096));
    bytes[4] = static_cast<char>(3 - bytes[4]); // class of the ELF header: 32 or 64 bits
    write("foreign.so", bytes);
    EXPECT_EQ(effectCanOpen(kProbe.c_str(), nullptr, 0), 1);
    for (const char *name : {"missing.so", "text.so", "foreign.so", "part.so", "pipe.so", ""})
    {
        const std::string file = folder / name;
        char reason[8] = "1234567";
        EXPECT_EQ(effectCanOpen(file.c_str(), reason, 4), 0);
        EXPECT_TRUE(strlen(reason) == 3 && strcmp(reason + 4, "567") == 0);
        vuEffect *fx = add("fx", file);
        fx->numInst = 3, fx->fxObtain = [](vuRootNode *, vuEffect *, uintptr_t word) { return word; }; // set up before
        const std::string said = messages([&] { EXPECT_EQ(effectSetup(&root, fx), 0); });
        EXPECT_EQ(said, "kernelfx:# Warning: \033[31munable open plugin \"" + file + "\"\033[0m\n");
        EXPECT_TRUE(fx->handle == nullptr && fx->fxUpdate == nullptr && fx->inst == nullptr && fx->numInst == 0);
        EXPECT_EQ(effectObtain(&root, fx, 1), 0U);
    }
    add("good", kProbe);
    messages([&] { EXPECT_EQ(effectSetupAll(&root), 1); });
    effectUpdate(&root);
}

TEST_F(Effects, ReleaseInOrderAndSetUpAgain)
{
    vuEffect *a = add("a", kProbe), *b = add("b", kProbe, 1);
    a->linkFxName = inArena("b"), a->parameter = inArena("x"), a->entityNode = inArena("jeep");
    void *const held = dlopen(kProbe.c_str(), RTLD_LAZY); // to see the last of it
    auto *text = static_cast<char *>(dlsym(held, "fxLog"));
    messages([&] { effectSetupAll(&root); });
    *text = '\0';
    const size_t before = blocksInUse();
    effectUnload(&root, a);
    EXPECT_STREQ(text, "freeInst a 0 0 0\nfreeInst a 1 0 0\nfree a 0 0 0\n");
    EXPECT_TRUE(a->handle == nullptr && a->fxUpdate == nullptr && a->inst == nullptr && a->linkFx == nullptr);
    EXPECT_TRUE(a->tagbase == 0x50524f42 && a->num == 2 && a->numInst == 0);
    effectUnload(&root, a);
    messages([&] { EXPECT_EQ(effectSetup(&root, a), 1); });
    EXPECT_TRUE(a->linkFx == b && blocksInUse() == before);
    *text = '\0';
    effectUnloadAll(&root);
    EXPECT_STREQ(text, "freeInst a 0 0 0\nfreeInst a 1 0 0\nfree a 0 0 0\nfreeInst b 0 0 0\nfree b 0 0 0\n");
    // Instances that fxInit never prepared are not the plug-in's to release.
    messages([&] { effectSetup(&root, a); });
    a->fxInit = nullptr, *text = '\0';
    effectUnload(&root, a);
    EXPECT_STREQ(text, "free a 0 0 0\n");
    // Without unloading, too, everything is released; the plug-in is not asked.
    messages([&] { effectSetupAll(&root); });
    *text = '\0';
    effectFreeAll(&root);
    EXPECT_STREQ(text, "");
    dlclose(held);
}

TEST_F(Effects, ReleaseAllBeforeAnyPluginGoes)
{
    add("first", kOnlyUpdate);
    vuEffect *second = add("second", kProbe);
    messages([&] { effectSetupAll(&root); });
    static bool isFirstThere = false;
    second->fxFree = [](vuRootNode *, vuEffect *) { isFirstThere = isLoaded(kOnlyUpdate); };
    effectUnloadAll(&root);
    EXPECT_TRUE(isFirstThere);
}

TEST_F(Effects, GoOnWithoutRoomForInstances)
{
    vuEffect *fx = add("fx", kProbe, 1 << 20), *most = add("most", kProbe, std::numeric_limits<int>::max());
    vuEffect *none = add("none", kProbe, -1), *wrapping = add("wrapping", kProbe, 82595525); // times 52 is 4 in 32 bits
    for (vuEffect *each : {fx, most, wrapping, none})
    {
        const std::vector<void *> taken = tolvin::fillersOf(size_t{1} << 28, 1 << 16);
        const std::string said = messages([&] { EXPECT_EQ(effectSetup(&root, each), 1); });
        std::ranges::for_each(taken, pfFree);
        EXPECT_NE(said.find("no room for " + std::to_string(each->num) + " instances"), std::string::npos);
        EXPECT_TRUE(each->inst == nullptr && each->numInst == 0);
        EXPECT_EQ(log(each), std::string("init ") + each->node.name + " 0 0 0\n");
    }
}
