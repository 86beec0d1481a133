#include "support/capture.h"

#include <tolvin/apps/disinput.h>
#include <tolvin/apps/dispdu.h>
#include <tolvin/apps/motion.h>
#include <tolvin/apps/publisher.h>
#include <tolvin/performer/pf.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

using namespace tolvin;

namespace
{

constexpr double kDegree = std::numbers::pi / 180.0;

struct Sent
{
    double time;
    PduKind kind;
    vuEntityState report{};
    RemoveEntity removal{};
};

void orient(vuEntity &entity, double psi, double theta, double phi)
{
    const double degrees[] = {psi, theta, phi};
    for (int i = 0; i < 3; ++i)
    {
        entity.orientation[i] = static_cast<float>(degrees[i] * kDegree);
    }
}

const LocalFrame kPole({-90, 0, 0});

// An entity that is published from the south pole: there what turns about the vertical does so in the axes of the body as in the
// geocentric ones, about which the kernel turns attitudes.
struct PublisherTest : testing::Test
{
    void SetUp() override
    {
        setupES(&entity.xform.es);
        entity.xform.es.deadReckoning.algorithm = VU_DR_FPW;
        entity.xform.es.entityId = {12, 34, 56};
        orient(entity, -90, 0, 0);
    }

    std::size_t frame(double now)
    {
        time = now;
        const std::size_t before = sent.size();
        publisher.frame(entity, now);
        return sent.size() - before;
    }

    // As the motion has it at that time. Its heading is clockwise and its wings are level.
    void follow(const Motion &motion, double now)
    {
        const MotionState state = stateAt(motion, now);
        const bool body = entity.xform.es.deadReckoning.algorithm >= VU_DR_FPB;
        for (int i = 0; i < 3; ++i)
        {
            entity.position[i] = state.position[i];
            entity.xform.es.velocity[i] = static_cast<float>(body ? state.bodyVelocity[i] : state.velocity[i]);
            entity.xform.es.deadReckoning.linearAcc[i] = static_cast<float>(body ? 0 : state.acceleration[i]);
            entity.xform.es.deadReckoning.angularVel[i] = static_cast<float>(state.angularVelocity[i]);
        }
        const Matrix3 &m = state.attitude;
        orient(entity, std::atan2(-m[0], m[3]) / kDegree, std::asin(m[6]) / kDegree, 0);
    }

    vuEntity entity{};
    double time = 0;
    std::vector<Sent> sent;
    std::vector<std::vector<std::uint8_t>> pdus;
    Publisher publisher{kPole,
                        {.exercise = 3},
                        [this](std::span<const std::uint8_t> bytes)
                        {
                            pdus.emplace_back(bytes.begin(), bytes.end());
                            PduReader reader(bytes);
                            Pdu pdu{};
                            EXPECT_TRUE(reader.next(pdu) && pdu.bytes.size() == bytes.size());
                            Sent &last = sent.emplace_back(Sent{time, kindOf(pdu.header)});
                            EXPECT_EQ(last.kind == PduKind::EntityState ? decodeEntityState(pdu, last.report)
                                                                        : decodeRemoveEntity(pdu, last.removal),
                                      PduFault::None);
                        }};
};

double metresBetween(const double (&a)[3], const double (&b)[3])
{
    return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
}

double degreesBetween(const float (&a)[3], const float (&b)[3])
{
    const Matrix3 turn = product(transposed(rotationOf({a[0], a[1], a[2]})), rotationOf({b[0], b[1], b[2]}));
    return std::acos(std::min(1.0, (turn[0] + turn[4] + turn[8] - 1.0) / 2.0)) / kDegree;
}

} // namespace

TEST(NetworkReport, TurnsLocalAxesIntoGeocentricOnes)
{
    const double c = std::sqrt(3.0) / 2.0;
    const struct
    {
        Geodetic origin;
        double psi, theta, phi;
        Vector3 forward, right;
    } cases[] = {
        {{0, 0, 0}, -90, 0, 0, {0, 1, 0}, {0, 0, -1}},      // east; south is to the right
        {{0, 0, 0}, 0, 30, 0, {0.5, 0, c}, {0, 1, 0}},      // north, nose up
        {{0, 0, 0}, 90, 0, 30, {0, -1, 0}, {-0.5, 0, c}},   // west, right wing down
        {{0, 90, 0}, -90, 60, 0, {-0.5, c, 0}, {0, 0, -1}}, // east is -x, up is y
        {{90, 0, 0}, 0, 0, 90, {-1, 0, 0}, {0, 0, -1}},     // from the pole along -x, right wing straight down
        {{0, 180, 0}, -90, 30, 30, {-0.5, -c, 0}, {c * 0.5, -0.25, -c}}, // east is -y, up is -x
    };
    for (const auto &expected : cases)
    {
        SCOPED_TRACE(&expected - cases);
        vuEntity entity{};
        entity.position[2] = 10;
        orient(entity, expected.psi, expected.theta, expected.phi);
        entity.xform.es.velocity[2] = 7; // upwards
        const vuEntityState report = networkReport(entity, LocalFrame(expected.origin), 3600.5);
        EXPECT_EQ(report.timestamp, static_cast<std::uint32_t>(0x80000000 / 7200) << 1);
        const Matrix3 axes = rotationOf({report.orientation[0], report.orientation[1], report.orientation[2]});
        const Vector3 origin = geocentricOf(expected.origin);
        for (int i = 0; i < 3; ++i)
        {
            const double up = origin[i] / length(origin);
            EXPECT_NEAR(axes[3 * i], expected.forward[i], 1e-6);
            EXPECT_NEAR(axes[3 * i + 1], expected.right[i], 1e-6);
            EXPECT_NEAR(report.location[i], origin[i] + 10 * up, 1e-6);
            EXPECT_NEAR(report.velocity[i], 7 * up, 1e-6);
        }
        entity.xform.es.deadReckoning.algorithm = VU_DR_RVB;
        EXPECT_EQ(networkReport(entity, LocalFrame(expected.origin), 0).velocity[2], 7);
    }
}

TEST_F(PublisherTest, ReportsWhatOthersCannotKnow)
{
    const struct
    {
        double place[3], angles[3]; // from 0, 0, 0 and from east, pitched by pitch
        double pitch;
        bool due;
    } cases[] = {
        {{0.99, 0, 0}, {}, 0, false},  {{1.01, 0, 0}, {}, 0, true},    {{0, -0.99, 0}, {}, 0, false},
        {{0, 0, -1.01}, {}, 0, true},  {{0.6, 0.6, 0.6}, {}, 0, true}, {{0.57, 0.57, 0.57}, {}, 0, false},
        {{}, {2.9, 0, 0}, 0, false},   {{}, {-3.1, 0, 0}, 0, true},    {{}, {0, -2.9, 0}, 0, false},
        {{}, {0, 3.1, 0}, 0, true},    {{}, {0, 0, 2.9}, 0, false},    {{}, {0, 0, -3.1}, 0, true},
        {{}, {2.2, 2.2, 0}, 0, true}, // together 3.11
        {{}, {10, 0, -10}, 85, false}, {{}, {10, 0, 10}, 85, true},    {{}, {360, 0, 0}, 0, false},
        {{}, {178, 0, 0}, 0, true}, // and not beyond what an arc sine takes
    };
    double now = 0;
    for (const auto &step : cases)
    {
        SCOPED_TRACE(&step - cases);
        publisher.leave(entity, now);
        std::fill_n(entity.position, 3, 0.0);
        orient(entity, -90, step.pitch, 0);
        EXPECT_EQ(frame(now += 1), 1u);
        std::copy_n(step.place, 3, entity.position);
        orient(entity, -90 + step.angles[0], step.pitch + step.angles[1], step.angles[2]);
        EXPECT_EQ(frame(now += 0.04), step.due);
        EXPECT_EQ(frame(now += 0.04), 0u);
    }
    vuEntityState &es = entity.xform.es;
    const std::pair<void *, int> changes[] = {{&es.appearance, 1},
                                              {&es.marking.text[10], 'x'},
                                              {&es.forceId, 2},
                                              {&es.entityType.extra, 9},
                                              {&es.deadReckoning.algorithm, VU_DR_STATIC}};
    for (const auto &[field, value] : changes)
    {
        *static_cast<std::uint8_t *>(field) = static_cast<std::uint8_t>(value);
        EXPECT_EQ(frame(now += 0.04), 1u) << &field - &changes[0].first;
        EXPECT_EQ(frame(now += 0.04), 0u);
    }
    const PublisherCounts &counts = publisher.counts();
    EXPECT_TRUE(counts.distance == 3 && counts.angle == 6 && counts.changes == 5 && counts.heartbeats == 0);

    const std::size_t before = sent.size();
    entity.position[1] = NAN;
    EXPECT_EQ(frame(now += 10) + frame(NAN), 0u);
    EXPECT_EQ(counts.nowhere, 2u);
    publisher.leave(entity, now); // from where it was last
    ASSERT_EQ(sent.size(), before + 2);
    EXPECT_EQ(sent[before].report.location[0], sent[before - 1].report.location[0]);
}

TEST_F(PublisherTest, KeepsTheHeartbeatThroughTheHourAndClocksThatAreSet)
{
    for (int i = 0; i < 25 * 60; ++i)
    {
        frame(1.7e9 + 2770 + i * 0.04); // 1.7e9 is 800 s past an hour: 30 s are left
    }
    ASSERT_EQ(sent.size(), 12u);
    for (std::size_t i = 0; i < sent.size(); ++i)
    {
        EXPECT_NEAR(sent[i].time, 1.7e9 + 2770 + i * 5.0, 1e-6);
        EXPECT_NEAR((sent[i].report.timestamp >> 1) / 0x80000000p0 * 3600, std::fmod(3570 + i * 5.0, 3600), 2e-6);
    }
    EXPECT_EQ(frame(100) + frame(100), 1u);
    EXPECT_EQ(frame(104.9), 0u);
    EXPECT_EQ(frame(105), 1u);
    EXPECT_EQ(publisher.counts().heartbeats, 13u);
}

TEST_F(PublisherTest, ReportsWhenTheRecordsAlgorithmNoLongerTells)
{
    // A great arc leaves its tangent by (v t)^2 / 2 R: 1 m after 3.577 s at 1000 m/s, never within 5 s at 250 m/s. A circle
    // at 0.03 rad/s turns by 3 degrees in 1.745 s. Its second-order path is off by R (0.03 t)^3 / 6: 1 m after 6.06 s. In body
    // axes it stays what it is, but for algorithms that keep the attitude.
    const Motion line{.kind = MotionKind::Line, .heading = 1, .speed = 200};
    const Motion circle{.kind = MotionKind::Circle, .phase = 0.3, .speed = 30, .radius = 1000};
    const struct
    {
        const Motion *motion; // none: the arc
        double speed;
        std::uint8_t algorithm;
        double interval;
        std::uint64_t PublisherCounts::*reason;
    } cases[] = {
        {nullptr, 1000, VU_DR_FPW, 3.60, &PublisherCounts::distance},
        {nullptr, 250, VU_DR_FPW, 5, &PublisherCounts::heartbeats},
        {&line, 0, VU_DR_FPW, 5, &PublisherCounts::heartbeats},
        {&line, 0, VU_DR_RVB, 5, &PublisherCounts::heartbeats},
        {&line, 0, VU_DR_STATIC, 0.04, &PublisherCounts::distance},
        {&circle, 0, VU_DR_RVB, 5, &PublisherCounts::heartbeats},
        {&circle, 0, VU_DR_FVB, 1.76, &PublisherCounts::angle},
        {&circle, 0, VU_DR_FVW, 1.76, &PublisherCounts::angle},
        {&circle, 0, VU_DR_RVW, 5, &PublisherCounts::heartbeats},
        {&circle, 0, VU_DR_RPW, 1.52, &PublisherCounts::distance},
    };
    for (const auto &c : cases)
    {
        SCOPED_TRACE(&c - cases);
        entity.id = static_cast<std::uint32_t>(&c - cases);
        entity.xform.es.deadReckoning.algorithm = c.algorithm;
        const PublisherCounts before = publisher.counts();
        sent.clear();
        for (double now = 0; now < 20.02; now += 0.04)
        {
            const double way = c.speed * now, angle = way / 6.4e6;
            const Motion arc{.kind = MotionKind::Line,
                             .start = {6.4e6 * std::sin(angle) - way, 0, 6.4e6 * (std::cos(angle) - 1)},
                             .heading = 90 * kDegree,
                             .speed = c.speed};
            follow(c.motion != nullptr ? *c.motion : arc, now);
            if (c.motion == nullptr)
            {
                entity.xform.es.velocity[0] = static_cast<float>(c.speed * std::cos(angle));
                entity.xform.es.velocity[2] = static_cast<float>(-c.speed * std::sin(angle));
            }
            frame(now);
        }
        EXPECT_EQ(sent.size(), static_cast<std::size_t>(20.001 / c.interval) + 1);
        EXPECT_NEAR(sent.at(1).time, c.interval, 1e-9);
        EXPECT_EQ(publisher.counts().*c.reason - before.*c.reason, sent.size() - 1);
    }
}

// Through the network and the kernel at the other end, no entity is ever further off than the limits.
TEST_F(PublisherTest, KeepsReceiversWithinTheLimits)
{
    vuRootNode root{};
    capturedStderr([&] { initRootNode(&root); });
    auto input = std::make_unique<DisInput>(root, DisInputOptions{.exercise = 3},
                                            [](const std::string &line) { ADD_FAILURE() << line; });
    for (const std::uint8_t algorithm : {2, 3, 4, 5, 6, 7, 8, 9})
    {
        SCOPED_TRACE(int{algorithm});
        entity.id = algorithm;
        entity.xform.es.entityId.entity = algorithm;
        entity.xform.es.deadReckoning.algorithm = algorithm;
        Motion climb{.kind = MotionKind::Helix, .speed = 40, .radius = 300, .climbRate = 9};
        double worst = 0, worstAngle = 0, now = 3590;
        const auto receive = [&]
        {
            root.time.sim = {static_cast<std::int32_t>(now),
                             static_cast<std::int32_t>(std::lround(std::fmod(now, 1) * 1e6))};
            capturedStderr(
                [&] { std::for_each(pdus.begin(), pdus.end(), [&](const auto &pdu) { input->take(pdu, now); }); });
            pdus.clear();
            input->frame([](std::uint8_t, double) {});
            return input->entities().find(entity.xform.es.entityId);
        };
        for (int i = 0; i < 500; ++i, now += 0.04)
        {
            climb.radius = i < 300 ? 300 : -200; // a kink
            follow(climb, now);
            frame(now);
            const RemoteEntity *remote = receive();
            ASSERT_NE(remote, nullptr);
            const vuEntity &there = *remote->entity;
            const vuEntityState truth = networkReport(entity, kPole, now);
            worst = std::max(worst, metresBetween(there.position, truth.location));
            worstAngle = std::max(worstAngle, degreesBetween(there.orientation, truth.orientation));
        }
        EXPECT_LT(worst, 1.001);
        EXPECT_LT(worstAngle, 3.001);
        EXPECT_GT(std::max(worst, worstAngle / 3), 0.5); // silent for as long as it may be
        publisher.leave(entity, now);
        EXPECT_EQ(receive(), nullptr);
    }
    EXPECT_TRUE(input->counts().left == 8 && input->counts().leaves == 16 && input->counts().late == 0);
    capturedStderr([&] { input.reset(); });
}

TEST_F(PublisherTest, LeavesOnceAndComesBack)
{
    publisher.leave(entity, 1);
    EXPECT_TRUE(sent.empty());
    entity.xform.es.velocity[0] = 5;
    frame(1);
    entity.xform.es.entityId.entity = 57; // leaves as 56, enters as 57
    EXPECT_EQ(frame(2), 3u);
    publisher.leave(entity, 3);
    publisher.leave(entity, 3);
    EXPECT_EQ(frame(3), 1u);
    ASSERT_EQ(sent.size(), 7u);
    for (const std::size_t last : {1, 4})
    {
        const vuEntityState &report = sent[last].report;
        const RemoveEntity &removal = sent[last + 1].removal;
        const int entityNumber = last == 1 ? 56 : 57;
        EXPECT_TRUE(leaves(report) && report.velocity[1] == 0 && report.entityId.entity == entityNumber);
        EXPECT_TRUE(removal.receiving.entity == entityNumber && removal.originating.entity == 0);
        EXPECT_TRUE(removal.originating.site == 12 && removal.originating.application == 34);
        EXPECT_TRUE(removal.header.exerciseId == 3 && removal.header.protocolVersion == 6 &&
                    removal.header.timestamp == report.timestamp);
        EXPECT_EQ(removal.request, last == 1 ? 1u : 2u);
    }
    EXPECT_TRUE(publisher.counts().reports == 5 && publisher.counts().removes == 2);
}
