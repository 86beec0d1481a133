#include "support/capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <dlfcn.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <tolvin/kernel/kernelentity.h>
#include <tolvin/kernel/kernelgeneric.h>
#include <unistd.h>
#include <vector>

namespace
{

// Keys from 2000 on stand for keys of this run's own, so that runs side by side do not meet.
const key_t kOwnKeys = 0x40000000 + getpid() * 2 - VU_SHM_FIRST_KEY;
const auto systemShmget = reinterpret_cast<decltype(&shmget)>(dlsym(RTLD_NEXT, "shmget"));
const auto systemShmat = reinterpret_cast<decltype(&shmat)>(dlsym(RTLD_NEXT, "shmat"));
std::vector<std::array<int, 3>> shmgetCalls; // key, size, flags
int shmatFlags = 0;
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

// Bytes of the fields, or 0 when one of their bytes is not value.
template<typename... T>
size_t bytesThatAre(int value, const T &...fields)
{
    const auto all = [value](const auto &field)
    {
        const auto *bytes = reinterpret_cast<const unsigned char *>(&field);
        return std::all_of(bytes, bytes + sizeof field, [value](int byte) { return byte == value; });
    };
    return (all(fields) && ...) ? (sizeof fields + ...) : 0;
}

const std::string kAttachMessage = "kernelentity:152 Error: ShmemServer:  Unable to attach to the shared memory.\n";

} // namespace

extern "C" int shmget(key_t key, size_t size, int flags) noexcept
{
    shmgetCalls.push_back({key, static_cast<int>(size), flags});
    return systemShmget(key < VU_SHM_FIRST_KEY ? key : kOwnKeys + key, size, flags);
}

extern "C" void *shmat(int id, const void *address, int flags) noexcept
{
    shmatFlags = flags;
    return shmatFails ? reinterpret_cast<void *>(-1) : systemShmat(id, address, flags);
}

// The tests run in a child, so that its parent can remove the segments of one that dies.
int main(int argc, char **argv)
{
    int status = 1;
    const pid_t child = fork();
    if (child == 0)
    {
        testing::InitGoogleTest(&argc, argv);
        return RUN_ALL_TESTS();
    }
    waitpid(child, &status, 0);
    shmctl(segmentOf(2000), IPC_RMID, nullptr);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

TEST(Entity, InitSetsItsFieldsAndNoOthers)
{
    vuEntity e;
    memset(&e, 0x5A, sizeof e);
    srand(7);
    const int random = rand();
    srand(7);
    entityInit(&e, "tank");
    EXPECT_STREQ(e.node.name, "tank");
    EXPECT_EQ(e.node.type, 5);
    EXPECT_EQ(e.entityFlags, 128);
    EXPECT_EQ(e.xform.es.length, 144);
    EXPECT_EQ(e.randomValue, random);
    EXPECT_TRUE(std::ranges::all_of(e.vecE0, [](float scale) { return scale == 1.0F; }));
    const std::array<float, 7> probe = {0, 0, 0, 0, 0, -1, 5};
    EXPECT_TRUE(std::ranges::all_of(e.probes, [&](const vuProbe &p) { return memcmp(&p, &probe, sizeof p) == 0; }));
    ASSERT_NE(e.smooth, nullptr);
    EXPECT_EQ(e.smooth->length, 16);
    memset(static_cast<void *>(e.smooth), 0x5A, sizeof *e.smooth);
    smoothInit(e.smooth);
    e.smooth->length -= 16;
    EXPECT_EQ(bytesThatAre(0, *e.smooth), 1520U);

    const size_t named = sizeof e.node + sizeof e.id + sizeof e.entityFlags + sizeof e.xform + sizeof e.randomValue +
                         sizeof e.vecE0 + sizeof e.probes + sizeof e.smooth;
    const size_t zero =
        bytesThatAre(0, e.motionKind, e.definition, e.lists, e.receive, e.vars, e.groundDistance, e.nodes, e.vecB0,
                     e.word16C, e.shmCreated, e.shmKey, e.word188, e.moveLock, e.turnDirection, e.moveBlock, e.drState,
                     e.recvTime, e.timeOffset, e.word394, e.collideCount);
    const size_t ones = bytesThatAre(0xFF, e.word18, e.shmId, e.word19C);
    const size_t untouched = bytesThatAre(0x5A, e.status, e.prevStatus, e.position, e.orientation, e.groundHeight,
                                          e.reserved080, e.reserved0EC, e.reserved178, e.disId, e.reserved27E,
                                          e.pduTime, e.drMatrix, e.omegaSkew, e.omegaOuter, e.drInverse, e.drR1,
                                          e.reserved364, e.omega, e.reserved398, e.groundPoints, e.reserved484);
    EXPECT_TRUE(zero != 0 && ones != 0 && untouched != 0);
    EXPECT_TRUE(sizeof(void *) != 4 || named + zero + ones + untouched == 1180) << "not all fields were checked";
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
        vuRootNode root = {};
        uint32_t count = 0;
        while (const vuEntity *entity = entityCreate(&scene))
        {
            EXPECT_EQ(entity->id, count++);
        }
        EXPECT_GT(count, 10U);
        EXPECT_EQ(scene.entities.first, nullptr);
        while (pfMalloc(1, pfGetSharedArena()) != nullptr)
        {
        }
        TestEntity entity(1999);
        EXPECT_EQ(entity.smooth, nullptr);
        entityAllocVars(&root, &entity);
        EXPECT_EQ(entity.vars, nullptr);
        _exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(exhaust(), testing::ExitedWithCode(0),
                "^kernelentity:631 Error: .\\[31mentityCreate\\(\\): et = pfMalloc\\(\\) failed!.\\[0m\n$");
}

TEST(Entity, ListsAndSearches)
{
    vuScene scene = {};
    TestEntity nameless(0), first(0, 0, "twin"), second(0, 0, "twin");
    char file[] = "tank.flt";
    nameless.definition = nullptr;
    second.own.fileName = file;
    for (TestEntity *entity : {&nameless, &first, &second})
    {
        entityAppend(&scene, entity);
    }
    EXPECT_EQ(entityFindNamed(&scene, "twin"), &first);
    EXPECT_EQ(entityFindFilename(&scene, "tank.flt"), &second);
    entityRemove(&scene, &first);
    EXPECT_EQ(entityFindNamed(&scene, "twin"), &second);
    const auto failures = [&]
    {
        EXPECT_EQ(entityFindFilename(&scene, "Tank.flt"), nullptr);
        EXPECT_EQ(entityFindNamed(&scene, "Twin"), nullptr);
        entityAppend(nullptr, &first);
        entityAppend(&scene, nullptr);
        entityRemove(nullptr, &second);
        entityRemove(&scene, nullptr);
        EXPECT_EQ(entityCreate(nullptr), nullptr);
    };
    EXPECT_EQ(capturedStderr(failures), "kernelentity:571 Warning: Entity with name \"Twin\" not found!\n"
                                        "kernelentity:467 Error: \033[31mNo scene or entity\033[0m\n"
                                        "kernelentity:467 Error: \033[31mNo scene or entity\033[0m\n"
                                        "kernelentity:517 Error: \033[31mNo scene or entity\033[0m\n"
                                        "kernelentity:517 Error: \033[31mNo scene or entity\033[0m\n"
                                        "kernelentity:616 Error: \033[31mCreate Entity: no Scene!\033[0m\n");
    EXPECT_EQ(vunodesCount(&scene.entities), 2);
}

TEST(EntityVars, ReceptionIsReported)
{
    const std::string dis = "kernelentity:728 Notice: receive DIS\n", udp = "kernelentity:732 Notice: receive UDP\n";
    const std::string expected[] = {"", udp, dis, dis + udp};
    for (const uint32_t receive : {0, 1, 2, 3})
    {
        vuRootNode root = {};
        root.receiveFlags = 8;
        TestEntity entity(1999, 0);
        entity.receive = receive;
        EXPECT_EQ(capturedStderr([&] { entityAllocVars(&root, &entity); }), expected[receive]);
        EXPECT_EQ(root.receiveFlags, receive == 0 ? 8U : 9U);
        EXPECT_EQ(entity.vars, nullptr);
    }
}

TEST(EntityVars, KeyChoosesArenaOrSegment)
{
    vuRootNode root = {};
    pfArenaInfo before, during, after;
    TestEntity arena(1999, 300), creator(2000, 300), other(2000, 200);
    shmgetCalls.clear();
    pfGetArenaInfo(&before);
    for (TestEntity *entity : {&arena, &creator, &other})
    {
        entityAllocVars(&root, entity);
        ASSERT_NE(entity->vars, nullptr);
    }
    pfGetArenaInfo(&during);
    entityReleaseSharedMem(&arena);
    pfGetArenaInfo(&after);
    EXPECT_EQ(during.bytesInUse - before.bytesInUse, 300U);
    EXPECT_EQ(after.bytesInUse, before.bytesInUse);
    EXPECT_TRUE(arena.vars == nullptr && arena.shmId == -1);

    const std::vector<std::array<int, 3>> calls = {{2000, 300, 1462}, {2000, 300, 950}, {2000, 200, 1462}};
    EXPECT_EQ(shmgetCalls, calls);
    EXPECT_EQ(shmatFlags, 438);
    EXPECT_TRUE(creator.shmCreated == 1 && other.shmCreated == 0);
    shmid_ds info;
    ASSERT_EQ(shmctl(creator.shmId, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_segsz, 300U);
    EXPECT_EQ(info.shm_perm.mode & 0777, 0666);
    strcpy(creator.text(), "hello");
    EXPECT_STREQ(other.text(), "hello");
    void *const attached = other.vars;
    EXPECT_EQ(entityAttachToSharedMemory(&other), 0);
    EXPECT_EQ(other.vars, attached);

    entityReleaseSharedMem(&other);
    EXPECT_EQ(segmentOf(2000), creator.shmId);
    entityReleaseSharedMem(&creator);
    EXPECT_EQ(segmentOf(2000), -1);
    EXPECT_TRUE(creator.vars == nullptr && creator.shmId == -1 && creator.shmCreated == 1);
}

TEST(EntityVars, SegmentOfAnotherProcess)
{
    int ends[2];
    char byte = 0;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const pid_t child = fork();
    if (child == 0)
    {
        close(ends[0]);
        TestEntity receiver(2000);
        const bool ready = entityAttachToSharedMemory(&receiver) == 1 && receiver.shmCreated == 1;
        strcpy(receiver.text(), "received");
        const bool told = write(ends[1], "r", 1) == 1 && read(ends[1], &byte, 1) == 1;
        const bool answered = strcmp(receiver.text(), "drawn") == 0;
        entityReleaseSharedMem(&receiver);
        _exit(ready && told && answered ? 0 : 1);
    }
    close(ends[1]);
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    TestEntity drawer(2000);
    ASSERT_EQ(entityAttachToSharedMemory(&drawer), 1);
    EXPECT_EQ(drawer.shmCreated, 0);
    EXPECT_STREQ(drawer.text(), "received");
    strcpy(drawer.text(), "drawn");
    ASSERT_EQ(write(ends[0], "d", 1), 1);
    int status = -1;
    waitpid(child, &status, 0);
    close(ends[0]);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(segmentOf(2000), -1);
    EXPECT_STREQ(drawer.text(), "drawn") << "attached memory outlives its removal";
}

TEST(EntityVars, FailuresLeaveNothingBehind)
{
    TestEntity creator(2000), other(2000), large(2000, 65), empty(2000, 0), alone(IPC_PRIVATE);
    shmatFails = true;
    for (TestEntity *entity : {&creator, &other})
    {
        EXPECT_EQ(capturedStderr([=] { EXPECT_EQ(entityAttachToSharedMemory(entity), 0); }), kAttachMessage);
        EXPECT_EQ(entity->vars, nullptr);
    }
    shmatFails = false;
    entityReleaseSharedMem(&other);
    EXPECT_NE(segmentOf(2000), -1);
    entityReleaseSharedMem(&creator);
    EXPECT_EQ(segmentOf(2000), -1);

    // Released, both may try again, and a former creator may be the second.
    EXPECT_EQ(entityAttachToSharedMemory(&other), 1);
    EXPECT_EQ(entityAttachToSharedMemory(&creator), 1);
    EXPECT_TRUE(other.shmCreated == 1 && creator.shmCreated == 0);

    EXPECT_EQ(capturedStderr([&] { EXPECT_EQ(entityAttachToSharedMemory(&large), 0); }),
              "kernelentity:126 Error: ShmemServer:  Unable to get/create to the shared memory.\n");
    EXPECT_TRUE(large.vars == nullptr && large.shmId == -1);

    // Without variables only the failure value of an earlier attach is an error.
    EXPECT_EQ(entityAttachToSharedMemory(&empty), 1);
    empty.definition = nullptr;
    empty.vars = reinterpret_cast<void *>(-1);
    EXPECT_EQ(capturedStderr([&] { EXPECT_EQ(entityAttachToSharedMemory(&empty), 0); }), kAttachMessage);
    EXPECT_TRUE(empty.vars == nullptr && empty.shmId == -1);
    empty.shmId = 0; // a valid identifier, the first that a system gives
    EXPECT_EQ(entityAttachToSharedMemory(&empty), 0);

    ASSERT_EQ(entityAttachToSharedMemory(&alone), 1);
    const int id = alone.shmId;
    entityReleaseSharedMem(&alone);
    EXPECT_EQ(shmctl(id, IPC_RMID, nullptr), -1) << "the private segment was still there";
}
