#include "support/capture.h"
#include "support/otherprocess.h"

#include <tolvin/apps/dismessage.h>
#include <tolvin/apps/entityreceiver.h>
#include <tolvin/apps/entitysegment.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <sys/shm.h>

using namespace tolvin;

namespace
{

// Of this test alone, even where several builds run it at once.
const std::int32_t kKey = 0x52000000 + static_cast<std::int32_t>(getpid()) * 2;

int segmentOf(std::int32_t key)
{
    return shmget(key, 0, 0);
}

std::unique_ptr<WrittenSegment> attached(std::int32_t key = kKey)
{
    return std::make_unique<WrittenSegment>(key, sizeof(EntityVars));
}

const SegmentInfo *find(const std::vector<SegmentInfo> &segments, std::int32_t key = kKey)
{
    const auto found = std::ranges::find(segments, key, &SegmentInfo::key);
    return found == segments.end() ? nullptr : &*found;
}

std::vector<std::uint8_t> datagramOf(std::uint16_t entity, std::uint32_t stamp, std::uint8_t exercise = 1)
{
    vuEntityState state;
    setupES(&state);
    state.exerciseId = exercise;
    state.timestamp = stamp;
    state.entityId = {7, 8, entity};
    state.location[0] = 6378137.0;
    std::vector<std::uint8_t> datagram(kEntityStateSize);
    encodeEntityState(state, datagram);
    return datagram;
}

struct EntitySegments : testing::Test
{
    ~EntitySegments() override
    {
        for (const std::int32_t key : {kKey, kKey + 1})
        {
            EXPECT_EQ(segmentOf(key), -1);
            shmctl(segmentOf(key), IPC_RMID, nullptr);
        }
    }

    // What the receiver has put there since.
    std::optional<EntityReport> report(std::int32_t key = kKey)
    {
        std::uint32_t seen = 0;
        const std::vector<SegmentInfo> segments = findSegments();
        const SegmentInfo *const info = find(segments, key);
        const auto *const vars =
            static_cast<const EntityVars *>(info == nullptr ? nullptr : shmat(info->id, nullptr, SHM_RDONLY));
        const auto found = vars == nullptr ? std::nullopt : readNewReport(*vars, seen);
        shmdt(vars);
        return found;
    }
};

} // namespace

TEST_F(EntitySegments, AreRemovedByTheirMakerOrTheLastOfTheOthersOnceThatIsGone)
{
    auto own = attached();
    EXPECT_TRUE(own->isCreated());
    own.reset();
    EXPECT_EQ(segmentOf(kKey), -1);

    const OtherProcess maker([] { attached().release(); });
    EXPECT_NE(refusalOf([] { attached(); }).find("is written by process " + std::to_string(maker.id())),
              std::string::npos);
    maker.killIt();
    own = attached();
    EXPECT_FALSE(own->isCreated());
    {
        const OtherProcess reader([] { shmat(segmentOf(kKey), nullptr, SHM_RDONLY); });
        own.reset();
        EXPECT_NE(segmentOf(kKey), -1);
    }
    own = attached();
    own.reset();
    EXPECT_EQ(segmentOf(kKey), -1);

    const OtherProcess living(
        []
        {
            WrittenSegment *const segment = attached().release();
            leaveWriting(segment->vars());
            shmdt(&segment->vars());
        });
    attached();
    EXPECT_NE(segmentOf(kKey), -1); // it is still there, and may want it again
    const int id = segmentOf(kKey);
    auto *const vars = static_cast<EntityVars *>(shmat(id, nullptr, 0));
    const std::vector<SegmentInfo> before = findSegments();
    EXPECT_TRUE(find(before)->isCreatorAlive && removeAbandoned(*find(before)));
    vars->maker ^= 1u << 31; // of another process, that has its number now
    shmdt(vars);
    const std::vector<SegmentInfo> after = findSegments();
    EXPECT_TRUE(isAbandoned(*find(after)) && !removeAbandoned(*find(after)));
    EXPECT_FALSE(removeAbandoned(*find(after))) << "somebody else was faster";
    living.killIt();
}

TEST_F(EntitySegments, AreMadeAgainAsTheyWereAndLeftToAWriterThatDoesNotSeeTheirs)
{
    std::string notices;
    {
        const OtherProcess maker([] { leaveWriting((new WrittenSegment(kKey, 300))->vars()); });
        EntityReceiver receiver({{kKey, 168, {7, 8, 1}}}, 1, [&](const std::string &line) { notices += line + '\n'; });
        shmctl(segmentOf(kKey), IPC_RMID, nullptr);
        receiver.keepSegments();
        EXPECT_EQ(find(findSegments())->size, 300u);

        auto *const vars = static_cast<EntityVars *>(shmat(segmentOf(kKey), nullptr, 0));
        vars->magic = 1; // somebody writes over it
        receiver.keepSegments();
        EXPECT_NE(find(findSegments()), nullptr);
        shmdt(vars);
        auto *const taken = static_cast<EntityVars *>(shmat(segmentOf(kKey), nullptr, 0));
        taken->writer = 1;
        receiver.keepSegments();
        receiver.keepSegments();
        receiver.take(datagramOf(1, 0), 10);
        EXPECT_TRUE(receiver.counts().written == 0 && taken->writer == 1 && receiver.heard() == 0);
        taken->writer = 0;
        receiver.keepSegments();
        EXPECT_TRUE(report()->arrival == 10 && taken->writer != 0 && receiver.heard() == 1);
        shmdt(taken);

        shmctl(segmentOf(kKey), IPC_RMID, nullptr); // and is there smaller before it is missed
        const int id = shmget(kKey, 168, IPC_CREAT | 0666);
        receiver.keepSegments();
        EXPECT_TRUE(segmentOf(kKey) == id && report()->arrival == 10);
        shmctl(id, IPC_RMID, nullptr);
    }
    EXPECT_TRUE(std::ranges::count(notices, '\n') == 5 && notices.find("is written by process 1 now") != notices.npos);
}

TEST_F(EntitySegments, OfOthersAreRefusedAndStay)
{
    int id = shmget(kKey, sizeof(EntityVars), IPC_CREAT | 0666);
    auto *const bytes = static_cast<char *>(shmat(id, nullptr, 0));
    bytes[100] = 'x';
    EXPECT_NE(refusalOf([] { attached(); }).find("holds something else"), std::string::npos);
    EXPECT_EQ(find(findSegments()), nullptr);
    shmdt(bytes);
    EXPECT_EQ(segmentOf(kKey), id);
    shmctl(id, IPC_RMID, nullptr);

    id = shmget(kKey, 300, IPC_CREAT | 0666);
    auto *const longer = static_cast<char *>(shmat(id, nullptr, 0));
    longer[299] = 'x'; // behind the variables
    EXPECT_NE(refusalOf([] { WrittenSegment(kKey, 300); }).find("holds something else"), std::string::npos);
    EXPECT_EQ(longer[0], 0);
    shmdt(longer);
    shmctl(id, IPC_RMID, nullptr);

    id = shmget(kKey, 64, IPC_CREAT | 0666);
    const std::string told = capturedStderr(
        []
        { EXPECT_NE(refusalOf([] { attached(); }).find("has 64 bytes, expected at least 168"), std::string::npos); });
    EXPECT_EQ(told, "");
    shmctl(id, IPC_RMID, nullptr);
    EXPECT_NE(refusalOf([] { WrittenSegment(kKey, 167); }).find("167 bytes are too few"), std::string::npos);
}

TEST_F(EntitySegments, GetReportsOfTheirEntities)
{
    std::vector<std::string> notices;
    EntityReceiver receiver({{kKey + 1, 168, {7, 8, 2}}, {kKey, 168, {7, 8, 1}}}, 1,
                            [&](const std::string &line) { notices.push_back(line); });
    constexpr std::uint32_t kSecond = 0x1p32 / 3600;
    receiver.take(datagramOf(1, 0u - kSecond), 10); // a second before the hour
    receiver.take(datagramOf(1, kSecond), 11);
    receiver.take(datagramOf(1, 0), 12); // overtaken
    receiver.take(datagramOf(3, 0), 13);
    receiver.take(datagramOf(1, 2 * kSecond, 9), 14);
    auto broken = datagramOf(1, 3 * kSecond);
    broken.resize(143);
    receiver.take(broken, 15);
    receiver.take({}, 15);
    receiver.take({}, 15);
    const ReceiverCounts &counts = receiver.counts();
    EXPECT_TRUE(counts.datagrams == 8 && counts.written == 2 && counts.unknown == 1 && counts.late == 1 &&
                counts.otherExercise == 1 && counts.malformed == 3 && notices.size() == 2);
    EXPECT_TRUE(report().value().arrival == 11 && report()->state.timestamp == kSecond);
    EXPECT_FALSE(report(kKey + 1).has_value());
    EXPECT_EQ(receiver.heard(), 1u);
    receiver.take(datagramOf(1, kSecond / 2 * 3600), 16); // its clock was set by half an hour
    EXPECT_EQ(report()->arrival, 16);

    std::vector<std::uint8_t> removal(kRemoveEntitySize);
    const auto remove = [&](const vuEntityId &by)
    {
        encodeRemoveEntity({{6, 1, 0, 0, kSecond / 2 * 3601, 0, 0}, by, {7, 8, 1}, 1}, removal);
        receiver.take(removal, 17);
        return leaves(report()->state);
    };
    EntityStateUpdate update = {};
    update.header = {7, 1, 67, 1, kSecond / 2 * 3600 + 2, 0, 0};
    update.velocity[2] = 3.0f;
    for (const std::uint16_t entity : {3, 2, 1}) // the first two were not heard yet
    {
        update.entityId = {7, 8, entity};
        receiver.take(encode({update, {}, {}, {}, {}, {}, {}}), 16);
        receiver.take(encode({update, {}, {}, {}, {}, {}, {}}), 13'000'000'000); // too late
    }
    EXPECT_TRUE(counts.otherPdus == 3 && counts.unknown == 3 && report()->arrival == 16);
    EXPECT_TRUE(report()->state.velocity[2] == 3.0f && report()->state.location[0] == 0.0 &&
                !report(kKey + 1).has_value());

    EXPECT_FALSE(remove({7, 9, 1}));
    EXPECT_TRUE(remove({7, 8, 0}));
    receiver.take(encode({update, {}, {}, {}, {}, {}, {}}), 18); // of one that has left
    EXPECT_EQ(report()->arrival, 17);

    shmctl(segmentOf(kKey), IPC_RMID, nullptr); // as the program that made it does at its end
    EXPECT_FALSE(report().has_value());
    receiver.keepSegments();
    EXPECT_EQ(report().value().arrival, 17);
}
