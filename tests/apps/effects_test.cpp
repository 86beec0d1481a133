#include "apps/effectplugin.h"
#include "support/capture.h"
#include "support/fullarena.h"
#include "support/temporaryfolder.h"

#include <tolvin/apps/effects.h>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>

#include <dlfcn.h>
#include <sys/stat.h>

using namespace tolvin;

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
    }

    void describe(const std::string &text)
    {
        EXPECT_TRUE(
            readDescription("SCENE \"s\" { TERRAIN \"flat.obj\" { } }\n" + text, test->root, description).empty());
        capturedStderr([&] { world = std::make_unique<World>(test->root, description, folder, WorldOptions(), tell); });
        test->node = node.get();
        test->top = world->top();
    }

    // Returns what the kernel tells.
    std::string start(const std::string &text)
    {
        describe(text);
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
    std::string frame(double time = 0.0)
    {
        told.clear();
        capturedStderr([&] { effects->frame(time, *remotes, updated); });
        return told;
    }

    bool sums(const std::string &line) const
    {
        return capturedStderr([this] { effects->printSummary(stderr); }).find(line) != std::string::npos;
    }

    // Its appearance.
    std::uint32_t &addRemote(std::uint16_t number, double x, std::uint8_t kind = 1)
    {
        RemoteEntity &remote = *remotes->create({9, 9, number});
        updated.push_back(&remote);
        remote.entity->position[0] = x;
        remote.entity->drState->entityType.kind = kind;
        return remote.entity->drState->appearance;
    }

    NothingStays nothingStays;
    const TemporaryFolder folder;
    std::unique_ptr<EffectTest> test = std::make_unique<EffectTest>();
    Description description;
    std::unique_ptr<World> world;
    vuScene others = {};
    std::unique_ptr<EntityTable> remotes;
    std::vector<RemoteEntity *> updated; // each frame
    Held<pfGroup> node = hold(pfNewGroup(pfGetSharedArena()));
    std::string notices;
    const Effects::NoticeSink tell = [this](const std::string &line) { notices += line + '\n'; };
    EffectOptions options;
    std::unique_ptr<Effects> effects;
};

} // namespace

TEST_F(EffectsTest, AreTriggeredByScriptAndShots)
{
    options.triggers = {{2.0, "late"}, {1.0, "detonation"}, {1.0, "fire"}, {9.0, "fire"}};
    start(effect("fire", kPlugin, "NUM 1") + effect("detonation", kPlugin) + effect("late", kPlugin, "POSITION 3 4 5"));
    EXPECT_EQ(pfSearchChild(effects->node(), asPfNode(node.get())), 0);
    EXPECT_EQ(pfGetNodeTravMask(asPfNode(effects->node()), PFTRAV_ISECT), 0u);
    EXPECT_EQ(frame(0.9), "");
    EXPECT_EQ(frame(1.1), "detonation trigger 0.0 0.0 0.0\nfire trigger 0.0 0.0 0.0\n");
    Detonation detonation = {};
    std::ranges::copy(std::array{6378137.0 + 30.0, 10.0, -20.0}, detonation.location);
    effects->take(detonation);
    detonation.result = 6; // a dud
    effects->take(detonation);
    Fire fire = {};
    fire.location[0] = 6378137.0;
    effects->take(fire);
    EXPECT_EQ(frame(2.0), "late trigger 0.0 0.0 0.0\ndetonation trigger 10.0 -20.0 30.0\nfire trigger 0.0 0.0 0.0\n");
    EXPECT_EQ(notices, "EFFECT \"fire\": no instance is free (further times are only counted)\n");
    EXPECT_TRUE(effects->places().size() == 4 && (effects->places()[2] == Vector3{3.0, 4.0, 5.0}));
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
    options.detonation = "bang";
    start(effect("bang", kPlugin) + effect("smoke", kPlugin, "NUM 2") +
          "ENTITY \"own\" { TYPE 1 1 225 6 0 0 0 START 1 2 }");
    constexpr std::uint32_t kDestroyed = 3 << 3, kPlume = 1 << 5, kEngine = 1 << 6, kFlames = 1 << 15;
    addRemote(3, 0.0, 3) = kDestroyed | kPlume; // a person, for whom the bits mean other things
    std::uint32_t &other = addRemote(2, 6378147.0), &looks = addRemote(1, 6378137.0);
    std::uint32_t &own = world->entities().front().entity->xform.es.appearance;
    RemoteEntity &one = *remotes->find({9, 9, 1});
    const auto frameAs = [this](std::uint32_t &appearance, std::uint32_t bits)
    {
        appearance = bits;
        return frame();
    };
    EXPECT_EQ(frameAs(looks, 2 << 3), ""); // damaged
    EXPECT_EQ(frameAs(looks, kPlume), "smoke obtain 0.0 0.0 0.0\n");
    one.entity->position[1] += 5.0;
    const auto all = std::exchange(updated, {});
    EXPECT_EQ(frameAs(looks, kDestroyed), "smoke move 5.0 0.0 0.0\n"); // it says so later
    updated = all;
    EXPECT_EQ(frame(), "bang trigger 5.0 0.0 0.0\nsmoke move 5.0 0.0 0.0\n");
    EXPECT_EQ(frame(), "smoke move 5.0 0.0 0.0\n"); // but once
    EXPECT_EQ(frameAs(looks, 0), "smoke stop 0.0 0.0 0.0\n");
    EXPECT_EQ(frameAs(own, kEngine), "smoke obtain 1.0 2.0 5.0\n"); // on the ground
    EXPECT_EQ(frameAs(looks, kFlames), "smoke move 1.0 2.0 5.0\nsmoke obtain 5.0 0.0 0.0\n");
    // Refused, as there are but two, and again, but counted once.
    EXPECT_NE(frameAs(other, kPlume).find("smoke obtain 0.0 0.0 10.0\n"), std::string::npos);
    frame();
    EXPECT_EQ(notices, "EFFECT \"smoke\": no instance is free (further times are only counted)\n");
    EXPECT_TRUE(sums("\"smoke\": 0 triggers, obtained 3, refused 1;"));
    // Who goes leaves no smoke, and who comes as a wreck did not explode here.
    one.leaving = true;
    updated.clear();
    remotes->removeGone(0.0, [](const RemoteEntity &) {});
    EXPECT_NE(frame().find("smoke stop"), std::string::npos);
    updated = {remotes->find({9, 9, 2})};
    own = 0;
    frameAs(other, 0);
    EXPECT_EQ(frameAs(addRemote(5, 6378137.0), kDestroyed), "smoke obtain 0.0 0.0 0.0\n");
}

TEST_F(EffectsTest, WrongWordsAreToldAndHarmless)
{
    std::string text;
    const std::string kinds[] = {"0", "1", "2", "3", "4", "5", "6", "7", "8"};
    for (const std::string &kind : kinds)
    {
        text += effect(kind, kPlugin, "PARAMETER \"" + kind + '"');
        options.triggers.emplace_back(0.0, kind);
    }
    options.smoke = "0";
    start(text);
    addRemote(1, 0.0) = 1 << 5;
    frame();
    frame();
    for (const std::string &kind : kinds)
    {
        const std::string head = "EFFECT \"" + kind + "\": ";
        EXPECT_NE(notices.find(head + "what its plug-in gives as node cannot be shown\n"), std::string::npos) << kind;
        EXPECT_NE(notices.find(head + "its plug-in gives what is no instance"), std::string::npos) << kind;
    }
    EXPECT_EQ(pfGetNumChildren(effects->node()), 0);
    EXPECT_TRUE(sums("gave what is no instance 2 times\n"));
}

TEST_F(EffectsTest, WhatDoesNotOpenIsToldAndTheOthersGoOn)
{
    std::ofstream(folder / "text.so") << std::string(99, 'x');
    mkfifo((folder / "pipe.so").c_str(), 0600);
    setenv("TOLVIN_PLUGIN_PATH", "::/nonexistent:" TOLVIN_TEST_PLUGINS ":", 1);
    options.triggers = {{0.0, "a"}, {0.0, "f"}, {0.0, "g"}, {0.0, "h"}};
    const std::string kernel =
        start(effect("a", "no.so") + effect("d", "text.so") + effect("f", kPartial) + effect("g", "test_plugin.so") +
              "EFFECT \"h\" { }" + effect("p", (folder / "pipe.so").string()));
    unsetenv("TOLVIN_PLUGIN_PATH");
    for (const auto &[file, reason] : {std::pair("no.so", "cannot open shared object file: No such file or directory"),
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
    EXPECT_NE(notices.find("pipe.so: not a regular file"), std::string::npos);
    EXPECT_NE(kernel.find("unable to find function \"fxTrigger\" in \"" + kPartial), std::string::npos);
    EXPECT_EQ(frame(0.0), "g trigger 0.0 0.0 0.0\nf update 0.0 0.0 0.0\n");
    EXPECT_TRUE(sums("\"a\": 1 trigger, obtained 0, refused 1; without a plug-in\n"));
}

TEST_F(EffectsTest, NothingStaysWhateverFails)
{
    describe(effect("e", kPlugin, "NUM 100"));
    options.triggers = {{0.0, "other"}};
    const auto make = [&] { Effects(test->root, "", *world, options, tell); };
    EXPECT_THROW(make(), std::runtime_error);
    EXPECT_EQ(told, ""); // nothing is opened before
    options = {};
    capturedStderr(make); // the node has room for a parent from now on, and keeps it
    capturedStderr([&] { EXPECT_GT(refusalsUntilThereIsRoom(64, make), 0); });
}
