#include "apps/effectplugin.h"
#include "support/capture.h"
#include "support/fullarena.h"

#include <tolvin/apps/effects.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <dlfcn.h>
#include <unistd.h>

using namespace tolvin;
namespace fs = std::filesystem;

namespace
{

const std::string kPlugin = TOLVIN_TEST_PLUGINS "/test_plugin.so";
const std::string kPartial = TOLVIN_TEST_PLUGINS "/test_plugin_partial.so";
std::string told;

std::string effect(const std::string &name, const std::string &file, const std::string &more = "")
{
    return "EFFECT \"" + name + "\" { \"" + file + "\" " + more + " }\n";
}

// A level scene whose axes east, north and up are y, z and x of the Earth, its origin 6378137 m above the middle of that.
struct EffectsTest : testing::Test
{
    EffectsTest()
    {
        fs::create_directory(folder);
        std::ofstream(folder / "flat.obj") << "v -9 -9 5\nv 9 -9 5\nv 9 9 5\nv -9 9 5\nf 1 2 3 4\n";
        capturedStderr([this] { initRootNode(&test->root); });
        told.clear();
        test->tell = [](const char *line) { told += line; };
        vulistInit(&others.entities);
        vunodeAppend(&test->root.scenes, &others.node);
        remotes = std::make_unique<EntityTable>(test->root, others, 10);
    }

    ~EffectsTest() override
    {
        stop();
        effectFreeAll(&test->root);
        remotes.reset();
        world.reset();
        node.reset();
        EXPECT_EQ(blocksInUse(), before);
        fs::remove_all(folder);
    }

    void describe(const std::string &text)
    {
        EXPECT_TRUE(
            readDescription("SCENE \"s\" { TERRAIN \"flat.obj\" { } }\n" + text, test->root, description).empty());
        const auto tell = [](const std::string &) {};
        capturedStderr([&] { world = std::make_unique<World>(test->root, description, folder, WorldOptions(), tell); });
        test->node = node.get();
        test->top = world->top();
    }

    // Returns what the kernel tells.
    std::string start(const std::string &text, const EffectOptions &options = {})
    {
        describe(text);
        const auto tell = [this](const std::string &line) { notices += line + '\n'; };
        return capturedStderr([&] { effects = std::make_unique<Effects>(test->root, folder, *world, options, tell); });
    }

    void stop()
    {
        effects.reset();
        EXPECT_EQ(pfGetNumParents(asPfNode(node.get())), 0);
        EXPECT_EQ(dlopen(kPlugin.c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
        EXPECT_EQ(dlopen(kPartial.c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
    }

    // What plug-ins were asked for.
    std::string frame(double time)
    {
        told.clear();
        capturedStderr([&] { effects->frame(time, *remotes, updated); });
        return told;
    }

    bool sums(const std::string &line) const
    {
        return capturedStderr([this] { effects->printSummary(stderr); }).find(line) != std::string::npos;
    }

    vuEntityState &addRemote(std::uint16_t number, double x, std::uint8_t kind = 1)
    {
        RemoteEntity &remote = *remotes->create({9, 9, number});
        updated.push_back(&remote);
        remote.entity->position[0] = x;
        remote.entity->drState->entityType.kind = kind;
        return *remote.entity->drState;
    }

    const std::size_t before = blocksInUse();
    const fs::path folder = fs::temp_directory_path() / ("tolvin_effects_" + std::to_string(getpid()));
    std::unique_ptr<EffectTest> test = std::make_unique<EffectTest>();
    Description description;
    std::unique_ptr<World> world;
    vuScene others = {};
    std::unique_ptr<EntityTable> remotes;
    std::vector<RemoteEntity *> updated; // each frame
    Held<pfGroup> node = hold(pfNewGroup(pfGetSharedArena()));
    std::string notices;
    std::unique_ptr<Effects> effects;
};

} // namespace

TEST_F(EffectsTest, AreTriggeredByScriptAndShots)
{
    EffectOptions options;
    options.triggers = {{2.0, "late"}, {1.0, "detonation"}, {1.0, "fire"}, {9.0, "fire"}};
    start(effect("fire", kPlugin, "NUM 1") + effect("detonation", kPlugin) + effect("late", kPlugin, "POSITION 3 4 5"),
          options);
    EXPECT_EQ(pfSearchChild(effects->node(), asPfNode(node.get())), 0);
    EXPECT_EQ(pfGetNodeTravMask(asPfNode(effects->node()), PFTRAV_ISECT), 0u);
    EXPECT_EQ(frame(0.9), "");
    EXPECT_EQ(frame(1.1), "detonation trigger 0.0 0.0 0.0\nfire trigger 0.0 0.0 0.0\n");
    Detonation detonation = {};
    detonation.location[0] = 6378137.0 + 30.0;
    detonation.location[1] = 10.0;
    detonation.location[2] = -20.0;
    effects->take(detonation);
    detonation.result = 6; // a dud
    effects->take(detonation);
    Fire fire = {};
    fire.location[0] = 6378137.0;
    effects->take(fire);
    EXPECT_EQ(frame(2.0), "late trigger 0.0 0.0 0.0\ndetonation trigger 10.0 -20.0 30.0\nfire trigger 0.0 0.0 0.0\n");
    EXPECT_EQ(notices, "EFFECT \"fire\": no instance is free (further times are only counted)\n");
    EXPECT_TRUE(effects->places().size() == 5 && (effects->places()[2] == Vector3{3.0, 4.0, 5.0}));
    EXPECT_TRUE(
        sums("\n3 effects\n  \"fire\": 2 triggers, obtained 0, refused 1; at most 0 instances and 7 particles at "
             "once\n  \"detonation\": 2 triggers, obtained 0, refused 0;"));
    EXPECT_TRUE(sums("  1 trigger to come later\n"));
    for (int i = 0; i < 1000; ++i) // a flood
    {
        effects->take(fire);
    }
    frame(3.0);
    EXPECT_TRUE(sums("\"fire\": 1002 triggers, obtained 0, refused 1001;"));
    told.clear();
    stop();
    EXPECT_EQ(told, "fire free 0.0 0.0 0.0\ndetonation free 0.0 0.0 0.0\nlate free 0.0 0.0 0.0\n");
}

TEST_F(EffectsTest, FollowWhatEntitiesLookLike)
{
    EffectOptions options;
    options.detonation = "bang";
    start(effect("bang", kPlugin) + effect("smoke", kPlugin, "NUM 2") +
              "ENTITY \"own\" { TYPE 1 1 225 6 0 0 0 START 1 2 }",
          options);
    constexpr std::uint32_t kDestroyed = 3 << 3, kPlume = 1 << 5, kEngine = 1 << 6, kFlames = 1 << 15;
    addRemote(3, 0.0, 3).appearance = kDestroyed | kPlume; // a person, for whom the bits mean other things
    std::uint32_t &other = addRemote(2, 6378147.0).appearance;
    std::uint32_t &looks = addRemote(1, 6378137.0).appearance;
    std::uint32_t &own = world->entities().front().entity->xform.es.appearance;
    RemoteEntity &one = *remotes->find({9, 9, 1});
    looks = 2 << 3; // damaged
    EXPECT_EQ(frame(0.0), "");
    looks = kPlume;
    EXPECT_EQ(frame(0.1), "smoke obtain 0.0 0.0 0.0\n");
    one.entity->position[1] += 5.0;
    const auto all = std::exchange(updated, {});
    looks = kDestroyed; // it says so later
    EXPECT_EQ(frame(0.2), "smoke move 5.0 0.0 0.0\n");
    updated = all;
    EXPECT_EQ(frame(0.3), "bang trigger 5.0 0.0 0.0\nsmoke move 5.0 0.0 0.0\n");
    EXPECT_EQ(frame(0.4), "smoke move 5.0 0.0 0.0\n"); // but once
    looks = 0;
    EXPECT_EQ(frame(0.5), "smoke stop 0.0 0.0 0.0\n");
    own = kEngine;
    EXPECT_EQ(frame(0.6), "smoke obtain 1.0 2.0 5.0\n"); // on the ground
    looks = kFlames;
    EXPECT_EQ(frame(0.7), "smoke move 1.0 2.0 5.0\nsmoke obtain 5.0 0.0 0.0\n");
    other = kPlume;
    EXPECT_NE(frame(0.8).find("smoke obtain 0.0 0.0 10.0\n"), std::string::npos); // refused, as there are but two,
    frame(0.9);                                                                   // and again, but counted once
    EXPECT_EQ(notices, "EFFECT \"smoke\": no instance is free (further times are only counted)\n");
    EXPECT_TRUE(sums("\"smoke\": 0 triggers, obtained 3, refused 1;"));
    // Who goes leaves no smoke, and who comes as a wreck did not explode here.
    one.leaving = true;
    updated.clear();
    remotes->removeGone(0.0, [](const RemoteEntity &) {});
    EXPECT_NE(frame(1.0).find("smoke stop"), std::string::npos);
    updated = {remotes->find({9, 9, 2})};
    own = other = 0;
    frame(1.1);
    addRemote(5, 6378137.0).appearance = kDestroyed;
    EXPECT_EQ(frame(1.2), "smoke obtain 0.0 0.0 0.0\n");
}

TEST_F(EffectsTest, WrongWordsAreToldAndHarmless)
{
    std::string text;
    EffectOptions options;
    for (const char kind : std::string("01234567"))
    {
        text += effect({kind}, kPlugin, std::string("PARAMETER \"") + kind + '"');
        options.triggers.emplace_back(0.0, std::string{kind});
    }
    options.smoke = "0";
    start(text, options);
    addRemote(1, 0.0).appearance = 1 << 5;
    frame(0.0);
    frame(0.1);
    for (const char kind : std::string("01234567"))
    {
        const std::string head = std::string("EFFECT \"") + kind + "\": ";
        EXPECT_NE(notices.find(head + "what its plug-in gives as node cannot be shown\n"), std::string::npos) << kind;
        EXPECT_NE(notices.find(head + "its plug-in gives what is no instance"), std::string::npos) << kind;
    }
    EXPECT_EQ(pfGetNumChildren(effects->node()), 0);
    EXPECT_TRUE(sums("gave what is no instance 3 times\n"));
}

TEST_F(EffectsTest, WhatDoesNotOpenIsToldAndTheOthersGoOn)
{
    std::ifstream in(kPlugin, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    std::ofstream(folder / "short.so") << bytes.substr(0, 20);
    bytes[4] ^= 3; // 32 bits or 64
    std::ofstream(folder / "other.so", std::ios::binary) << bytes;
    std::ofstream(folder / "text.so") << std::string(99, 'x');
    setenv("TOLVIN_PLUGIN_PATH", "::/nonexistent:" TOLVIN_TEST_PLUGINS ":", 1);
    EffectOptions options;
    options.triggers = {{0.0, "a"}, {0.0, "f"}, {0.0, "g"}, {0.0, "h"}};
    const std::string kernel =
        start(effect("a", "no.so") + effect("b", "short.so") + effect("c", "other.so") + effect("d", "text.so") +
                  effect("f", kPartial) + effect("g", "test_plugin.so") + "EFFECT \"h\" { }",
              options);
    unsetenv("TOLVIN_PLUGIN_PATH");
    for (const auto &[file, reason] : {std::pair("no.so", "cannot open shared object file: No such file or directory"),
                                       {"short.so", "file too short"},
                                       {"other.so", "wrong ELF class: ELFCLASS"},
                                       {"text.so", "invalid ELF header"}})
    {
        std::size_t at = 0; // one behind the other
        for (const std::string &tried : {file + std::string(": cannot"), (folder / file).string() + ": " + reason,
                                         std::string("/nonexistent/") + file + ": cannot",
                                         TOLVIN_TEST_PLUGINS "/" + std::string(file) + ": cannot"})
        {
            at = notices.find("\n  " + tried, at);
            EXPECT_NE(at, std::string::npos) << tried << notices;
        }
        EXPECT_NE(kernel.find(std::string("unable open plugin \"") + file + '"'), std::string::npos);
    }
    EXPECT_NE(kernel.find("unable to find function \"fxTrigger\" in \"" + kPartial), std::string::npos);
    EXPECT_EQ(frame(0.0), "g trigger 0.0 0.0 0.0\nf update 0.0 0.0 0.0\n");
    EXPECT_TRUE(sums("\"a\": 1 trigger, obtained 0, refused 1; without a plug-in\n"));
}

TEST_F(EffectsTest, NothingStaysWhateverFails)
{
    describe(effect("e", kPlugin, "NUM 100"));
    EffectOptions options;
    options.triggers = {{0.0, "other"}};
    const auto make = [&] { Effects(test->root, "", *world, options, [](const std::string &) {}); };
    EXPECT_THROW(make(), std::runtime_error);
    EXPECT_EQ(told, ""); // nothing is opened before
    options = {};
    capturedStderr([&] { EXPECT_GT(refusalsUntilThereIsRoom(64, make), 0); });
}
