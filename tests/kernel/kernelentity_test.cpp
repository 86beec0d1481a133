#include "support/capture.h"
#include "support/fullarena.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <sys/shm.h>
#include <sys/wait.h>
#include <tolvin/kernel/kernelentity.h>
#include <tolvin/kernel/kernelgeneric.h>
#include <unistd.h>

namespace
{

// Keys from 2000 on stand for keys of this run's own, so that runs side by side do not meet.
const key_t kOwnKeys = 0x40000000 + getpid() * 2 - VU_SHM_FIRST_KEY;
const auto systemShmget = reinterpret_cast<decltype(&shmget)>(dlsym(RTLD_NEXT, "shmget"));
const auto systemShmat = reinterpret_cast<decltype(&shmat)>(dlsym(RTLD_NEXT, "shmat"));
std::string calls;
bool shmatFails = false;

int segmentOf(key_t key)
{
    return systemShmget(kOwnKeys + key, 0, 0);
}

struct TestEntity : vuEntity
{
    vuVariablesLayout layout = {};
    vuDefinition own = {};

    explicit TestEntity(int32_t key, uint32_t size = 64, const char *name = nullptr)
    {
        entityInit(this, name);
        layout.size = size;
        own.layout = &layout;
        definition = &own;
        shmKey = key;
    }
    ~TestEntity()
    {
        entityReleaseSharedMem(this);
        pfFree(smooth);
        pfFree(node.name);
    }
    char *text() const
    {
        return static_cast<char *>(vars);
    }
};

std::string failedAttach(TestEntity &entity)
{
    return capturedStderr([&] { EXPECT_EQ(entityAttachToSharedMemory(&entity), 0); });
}

bool inChild(bool (*body)())
{
    const pid_t child = fork();
    child == 0 ? _exit(body() ? 0 : 1) : void();
    int status = 1;
    waitpid(child, &status, 0);
    return status == 0;
}

} // namespace

extern "C" int shmget(key_t key, size_t size, int flags) noexcept
{
    calls += "get " + std::to_string(key) + " " + std::to_string(size) + " " + std::to_string(flags) + ", ";
    return systemShmget(key < VU_SHM_FIRST_KEY ? key : kOwnKeys + key, size, flags);
}

extern "C" void *shmat(int id, const void *address, int flags) noexcept
{
    calls += "at " + std::to_string(flags) + ", ";
    return shmatFails ? reinterpret_cast<void *>(-1) : systemShmat(id, address, flags);
}

TEST(Entity, InitSetsItsFieldsAndNoOthers)
{
    vuEntity e, expected;
    memset(&e, 0x5A, sizeof e);
    memset(&expected, 0x5A, sizeof expected);
    srand(7);
    expected.randomValue = rand();
    srand(7);
    entityInit(&e, "tank");
    ASSERT_TRUE(e.node.name != nullptr && e.smooth != nullptr);
    EXPECT_TRUE(strcmp(e.node.name, "tank") == 0 && e.xform.es.length == 144 && e.smooth->length == 16);

    // Runs of fields without padding on either target.
    const auto zero = [](auto &first, auto &next)
    { memset(static_cast<void *>(&first), 0, reinterpret_cast<char *>(&next) - reinterpret_cast<char *>(&first)); };
    zero(expected.node, expected.status);
    zero(expected.definition, expected.receive);
    expected.receive = 0;
    zero(expected.vars, expected.groundHeight);
    zero(expected.nodes, expected.reserved080);
    zero(expected.vecB0, expected.reserved0EC);
    zero(expected.word16C, expected.reserved178);
    zero(expected.shmCreated, expected.moveBlock);
    expected.moveBlock = 0;
    zero(expected.drState, expected.disId);
    zero(expected.recvTime, expected.drMatrix);
    zero(expected.word394, expected.reserved398);
    zero(expected.collideCount, expected.groundPoints);
    expected.node.name = e.node.name;
    expected.node.type = 5;
    expected.id = e.id;
    expected.entityFlags = 128;
    expected.word18 = 0xFFFFFFFF;
    expected.vecE0[0] = expected.vecE0[1] = expected.vecE0[2] = 1;
    expected.shmId = expected.word19C = -1;
    memcpy(&expected.xform, &e.xform, sizeof e.xform);
    expected.smooth = e.smooth;
    std::ranges::fill(expected.probes, vuProbe{{0, 0, 0}, {0, 0, -1}, 5});
    EXPECT_EQ(memcmp(&e, &expected, sizeof e), 0);

    memset(static_cast<void *>(e.smooth), 0x5A, sizeof *e.smooth);
    smoothInit(e.smooth);
    EXPECT_TRUE(e.smooth->length == 16 && e.smooth->counter[0] == 0);
    EXPECT_EQ(memcmp(e.smooth->counter, e.smooth->counter + 1, 1516), 0) << "all the same from the counters on";
    pfFree(e.smooth);
    pfFree(e.node.name);
}

// In a process of its own, whose arena is small and whose first entities these are.
TEST(EntityDeathTest, CountsFromZeroUntilTheArenaIsFull)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto exhaust = []
    {
        pfSharedArenaSize(64 << 10);
        vuScene scene = {};
        uint32_t count = 0;
        while (const vuEntity *entity = entityCreate(&scene))
        {
            EXPECT_TRUE(entity->id == count++ && entity->node.name == nullptr);
        }
        EXPECT_GT(count, 10U);
        tolvin::fillersOf(1);
        TestEntity entity(1999);
        vuRootNode root = {};
        entityAllocVars(&root, &entity);
        EXPECT_TRUE(entity.smooth == nullptr && entity.vars == nullptr);
        _exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(exhaust(), testing::ExitedWithCode(0),
                "^kernelentity:631 Error: \033\\[31mentityCreate\\(\\): et = pfMalloc\\(\\) failed!\033\\[0m\n$");
}

TEST(Entity, ListsAndSearches)
{
    vuScene scene = {};
    TestEntity nameless(0), first(0, 0, "twin"), second(0, 0, "twin");
    char file[] = "tank.flt";
    nameless.definition = nullptr;
    second.own.fileName = file;
    entityAppend(&scene, &nameless);
    entityAppend(&scene, &first);
    entityAppend(&scene, &second);
    EXPECT_EQ(entityFindNamed(&scene, "twin"), &first);
    EXPECT_EQ(entityFindFilename(&scene, file), &second);
    entityRemove(&scene, &first);
    EXPECT_EQ(entityFindNamed(&scene, "twin"), &second);
    const auto failures = [&]
    {
        EXPECT_TRUE(!entityFindFilename(&scene, "Tank.flt") && !entityFindNamed(&scene, "Twin"));
        entityAppend(nullptr, &first);
        entityAppend(&scene, nullptr);
        entityRemove(nullptr, &second);
        entityRemove(&scene, nullptr);
        EXPECT_EQ(entityCreate(nullptr), nullptr);
    };
    const std::string missing = " Error: \033[31mNo scene or entity\033[0m\nkernelentity:";
    EXPECT_EQ(capturedStderr(failures),
              "kernelentity:571 Warning: Entity with name \"Twin\" not found!\nkernelentity:" + ("467" + missing) +
                  ("467" + missing) + ("517" + missing) + "517" + missing +
                  "616 Error: \033[31mCreate Entity: no Scene!\033[0m\n");
}

TEST(EntityVars, KeyChoosesArenaOrSegment)
{
    vuRootNode root = {};
    pfArenaInfo before, after;
    TestEntity arena(1999), creator(2000), empty(1999, 0);
    arena.receive = VU_RECEIVE_UDP;
    creator.receive = VU_RECEIVE_UDP | VU_RECEIVE_DIS;
    calls.clear();
    pfGetArenaInfo(&before);
    const auto allocate = [&]
    {
        for (const uint32_t receive : {0, 2})
        {
            empty.receive = receive;
            entityAllocVars(&root, &empty);
            EXPECT_EQ(root.receiveFlags, receive / 2);
        }
        root.receiveFlags = 8;
        entityAllocVars(&root, &arena);
        EXPECT_EQ(root.receiveFlags, 9U);
        entityAllocVars(&root, &creator);
    };
    const std::string dis = "kernelentity:728 Notice: receive DIS\n", udp = "kernelentity:732 Notice: receive UDP\n";
    EXPECT_EQ(capturedStderr(allocate), dis + udp + dis + udp);
    EXPECT_EQ(calls, "get 2000 64 1462, get 2000 64 950, at 438, ");
    ASSERT_TRUE(arena.vars != nullptr && empty.vars == nullptr && creator.vars != nullptr && creator.shmCreated == 1);
    pfGetArenaInfo(&after);
    EXPECT_EQ(after.bytesInUse - before.bytesInUse, 64U);
    entityReleaseSharedMem(&arena);
    pfGetArenaInfo(&after);
    EXPECT_TRUE(after.bytesInUse == before.bytesInUse && arena.vars == nullptr && arena.shmId == -1);

    strcpy(creator.text(), "hello");
    EXPECT_EQ(failedAttach(creator), "");
    const auto find = []
    {
        TestEntity other(2000);
        return entityAttachToSharedMemory(&other) == 1 && other.shmCreated == 0 && strcmp(other.text(), "hello") == 0;
    };
    EXPECT_TRUE(inChild(find));
    EXPECT_TRUE(segmentOf(2000) == creator.shmId && strcmp(creator.text(), "hello") == 0);
    entityReleaseSharedMem(&creator);
    EXPECT_EQ(segmentOf(2000), -1);
    EXPECT_TRUE(creator.vars == nullptr && creator.shmId == -1 && creator.shmCreated == 1);

    const auto create = []
    {
        auto *receiver = new TestEntity(2000);
        return entityAttachToSharedMemory(receiver) == 1 && strcpy(receiver->text(), "hello") && receiver->shmCreated;
    };
    EXPECT_TRUE(inChild(create) && find());
    EXPECT_EQ(shmctl(segmentOf(2000), IPC_RMID, nullptr), 0) << "only its creator removes a segment";
}

TEST(EntityVars, FailuresLeaveNothingBehind)
{
    const std::string attachMessage = "kernelentity:152 Error: ShmemServer:  Unable to attach to the shared memory.\n";
    TestEntity creator(2000), other(2000), large(2000, 65), empty(2000, 0), single(IPC_PRIVATE);
    shmatFails = true;
    for (TestEntity *entity : {&creator, &other})
    {
        EXPECT_TRUE(failedAttach(*entity) == attachMessage && entity->vars == nullptr);
    }
    shmatFails = false;
    entityReleaseSharedMem(&other);
    EXPECT_NE(segmentOf(2000), -1);
    entityReleaseSharedMem(&creator);
    EXPECT_EQ(segmentOf(2000), -1);

    // Released, both may try again, and a former creator may be the second.
    EXPECT_TRUE(entityAttachToSharedMemory(&other) == 1 && entityAttachToSharedMemory(&creator) == 1);
    EXPECT_TRUE(other.shmCreated == 1 && creator.shmCreated == 0);
    EXPECT_EQ(failedAttach(large),
              "kernelentity:126 Error: ShmemServer:  Unable to get/create to the shared memory.\n");
    EXPECT_TRUE(large.vars == nullptr && large.shmId == -1);

    // Without variables only the failure value of an earlier attach is an error.
    EXPECT_EQ(entityAttachToSharedMemory(&empty), 1);
    empty.definition = nullptr;
    empty.vars = reinterpret_cast<void *>(-1);
    EXPECT_EQ(failedAttach(empty), attachMessage);
    EXPECT_TRUE(empty.vars == nullptr && empty.shmId == -1);

    ASSERT_EQ(entityAttachToSharedMemory(&single), 1);
    const int id = single.shmId;
    entityReleaseSharedMem(&single);
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), -1) << "the private segment was still there";
}
