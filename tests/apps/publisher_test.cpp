#include "support/capture.h"

#include <tolvin/apps/disinput.h>
#include <tolvin/apps/dispdu.h>
#include <tolvin/apps/motion.h>
#include <tolvin/apps/publisher.h>
#include <tolvin/performer/pf.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

using namespace tolvin;

namespace
{

constexpr double kDegree = std::numbers::pi / 180.0;

struct Sent
{
    double time;
    vuEntityState report{};
    RemoveEntity removal{};
};

void orient(vuEntity &entity, double psi, double theta, double phi)
{
    std::ranges::transform(Vector3{psi, theta, phi}, entity.orientation,
                           [](double degrees) { return static_cast<float>(degrees * kDegree); });
}

Matrix3 attitudeOf(const float (&orientation)[3])
{
    return rotationOf({orientation[0], orientation[1], orientation[2]});
}

const LocalFrame kPole({-90, 0, 0});

// An entity that is published from the south pole: there what turns about the vertical does so in the axes of the body as in the
// geocentric ones, about which the kernel turns attitudes.
struct PublisherTest : testing::Test
{
    PublisherTest()
    {
        setupES(&es);
        es.deadReckoning.algorithm = VU_DR_FPW;
        es.entityId = {12, 34, 56};
        orient(entity, -90, 0, 0);
    }

    std::size_t frame(double now)
    {
        time = now;
        const std::size_t before = sent.size();
        publisher.frame(entity, now);
        return sent.size() - before;
    }

    vuEntity entity{};
    vuEntityState &es = entity.xform.es;
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
                            Sent &last = sent.emplace_back(Sent{time});
                            EXPECT_EQ(kindOf(pdu.header) == PduKind::EntityState
                                          ? decodeEntityState(pdu, last.report)
                                          : decodeRemoveEntity(pdu, last.removal),
                                      PduFault::None);
                        }};
};

} // namespace

TEST_F(PublisherTest, TurnsLocalAxesIntoGeocentricOnes)
{
    const double c = std::sqrt(3.0) / 2.0;
    const std::tuple<Geodetic, Vector3, Vector3, Vector3> cases[] = {
        {{0, 0, 0}, {0, 30, 0}, {0.5, 0, c}, {0, 1, 0}},      // north, nose up
        {{0, 0, 0}, {90, 0, 30}, {0, -1, 0}, {-0.5, 0, c}},   // west, right wing down
        {{0, 90, 0}, {-90, 60, 0}, {-0.5, c, 0}, {0, 0, -1}}, // east is -x, up is y
        {{90, 0, 0}, {0, 0, 90}, {-1, 0, 0}, {0, 0, -1}},     // from the pole along -x, right wing straight down
        {{0, 180, 0}, {-90, 30, 30}, {-0.5, -c, 0}, {c * 0.5, -0.25, -c}}, // east is -y, up is -x
    };
    entity.position[2] = 10;
    es.velocity[2] = 7; // upwards
    for (const auto &[origin, angles, forward, right] : cases)
    {
        SCOPED_TRACE(origin.longitude + angles[0]);
        orient(entity, angles[0], angles[1], angles[2]);
        es.deadReckoning.algorithm = VU_DR_FPW;
        const vuEntityState report = networkReport(entity, LocalFrame(origin), 3600.5);
        EXPECT_EQ(report.timestamp, static_cast<std::uint32_t>(0x80000000 / 7200) << 1);
        const Matrix3 axes = attitudeOf(report.orientation);
        const Vector3 ground = geocentricOf(origin);
        double off = 0;
        for (int i = 0; i < 3; ++i)
        {
            const double up = ground[i] / length(ground);
            off = std::max({off, std::abs(axes[3 * i] - forward[i]), std::abs(axes[3 * i + 1] - right[i]),
                            std::abs(report.location[i] - ground[i] - 10 * up), std::abs(report.velocity[i] - 7 * up)});
        }
        EXPECT_LT(off, 1e-6);
        es.deadReckoning.algorithm = VU_DR_RVB;
        EXPECT_EQ(networkReport(entity, LocalFrame(origin), 0).velocity[2], 7);
    }
}

TEST_F(PublisherTest, ReportsWhatOthersCannotKnow)
{
    const std::tuple<Vector3, Vector3, double, bool> cases[] = {
        {{0.99, 0, 0}, {}, 0, false},       {{1.01, 0, 0}, {}, 0, true},  {{0.6, 0.6, 0.6}, {}, 0, true},
        {{0.57, 0.57, 0.57}, {}, 0, false}, {{}, {2.9, 0, 0}, 0, false},  {{}, {-3.1, 0, 0}, 0, true},
        {{}, {0, -2.9, 0}, 0, false},       {{}, {0, 3.1, 0}, 0, true},   {{}, {0, 0, 2.9}, 0, false},
        {{}, {0, 0, -3.1}, 0, true},        {{}, {2.2, 2.2, 0}, 0, true}, // together 3.11
        {{}, {10, 0, -10}, 85, false},      {{}, {10, 0, 10}, 85, true},  {{}, {360, 0, 0}, 0, false},
        {{}, {178, 0, 0}, 0, true}, // and not beyond what an arc sine takes
    };
    double now = 0;
    for (const auto &[place, angles, pitch, due] : cases) // from 0, 0, 0 and from east, pitched by pitch
    {
        SCOPED_TRACE(now);
        publisher.leave(entity, now);
        std::fill_n(entity.position, 3, 0.0);
        orient(entity, -90, pitch, 0);
        EXPECT_EQ(frame(now += 1), 1u);
        std::ranges::copy(place, entity.position);
        orient(entity, -90 + angles[0], pitch + angles[1], angles[2]);
        EXPECT_EQ(frame(now += 0.04), due);
        EXPECT_EQ(frame(now += 0.04), 0u);
    }
    for (void *const field :
         std::initializer_list<void *>{&es.appearance, &es.marking.text[10], &es.forceId, &es.entityType.extra,
                                       &es.capabilities, &es.deadReckoning.algorithm})
    {
        *static_cast<std::uint8_t *>(field) ^= 1;
        EXPECT_EQ(frame(now += 0.04), 1u);
        EXPECT_EQ(frame(now += 0.04), 0u);
    }
    const PublisherCounts &counts = publisher.counts();
    EXPECT_TRUE(counts.distance == 2 && counts.angle == 6 && counts.changes == 6 && counts.heartbeats == 0);

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

// Through the network and the kernel at the other end, no entity is ever further off than the limits. A circle of R = 300 m at
// w = 0.1333 rad/s turns by 3 degrees in 0.393 s, leaves its tangent by R (w t)^2 / 2, 1 m after 0.61 s, and its second-order path
// by R (w t)^3 / 6, 1 m after 2.04 s. In body axes that turn it stays what it is.
TEST_F(PublisherTest, KeepsReceiversWithinTheLimits)
{
    vuRootNode root{};
    capturedStderr([&] { initRootNode(&root); });
    DisInput input(root, {.exercise = 3}, [](const std::string &line) { ADD_FAILURE() << line; });
    using Counts = PublisherCounts;
    const std::tuple<std::uint8_t, double, std::uint64_t Counts::*> cases[] = {
        {VU_DR_FPW, 0.40, &Counts::angle},   {VU_DR_RPW, 0.64, &Counts::distance}, {VU_DR_RVW, 2.04, &Counts::distance},
        {VU_DR_FVW, 0.40, &Counts::angle},   {VU_DR_FPB, 0.40, &Counts::angle},    {VU_DR_RPB, 5, &Counts::heartbeats},
        {VU_DR_RVB, 5, &Counts::heartbeats}, {VU_DR_FVB, 0.40, &Counts::angle}};
    const Motion motions[] = {{.kind = MotionKind::Circle, .speed = 40, .radius = 300},
                              {.kind = MotionKind::Helix, .speed = 40, .radius = -200, .climbRate = 9},
                              {.kind = MotionKind::Line, .heading = 1, .speed = 200}};
    for (const auto &[algorithm, interval, reason] : cases)
    {
        SCOPED_TRACE(int{algorithm});
        const std::size_t first = sent.size();
        std::size_t sentOnLine = 0;
        const std::uint64_t before = publisher.counts().*reason;
        entity.id = es.entityId.entity = es.deadReckoning.algorithm = algorithm;
        const bool body = algorithm >= VU_DR_FPB;
        double worst = 0, now = 3590;
        const auto receive = [&]
        {
            root.time.sim = {static_cast<std::int32_t>(now), static_cast<std::int32_t>(std::fmod(now, 1) * 1e6 + 0.5)};
            capturedStderr([&] { std::ranges::for_each(pdus, [&](const auto &pdu) { input.take(pdu, now); }); });
            pdus.clear();
            input.frame([](std::uint8_t, double) {});
            return input.entities().find(es.entityId);
        };
        for (int i = 0; i < 500; ++i, now += 0.04)
        {
            if (i == 300)
            {
                EXPECT_EQ(publisher.counts().*reason - before, std::floor(11.97 / interval));
            }
            const MotionState state = stateAt(motions[i < 300 ? 0 : i < 400 ? 1 : 2], now);
            const Matrix3 &m = state.attitude; // its wings are level
            orient(entity, std::atan2(-m[0], m[3]) / kDegree, std::asin(m[6]) / kDegree, 0);
            std::ranges::copy(state.position, entity.position);
            std::ranges::copy(body ? state.bodyVelocity : state.velocity, es.velocity);
            std::ranges::copy(body ? Vector3{} : state.acceleration, es.deadReckoning.linearAcc);
            std::ranges::copy(state.angularVelocity, es.deadReckoning.angularVel);
            sentOnLine += frame(now) * (i > 400);
            const RemoteEntity *remote = receive();
            ASSERT_NE(remote, nullptr);
            const vuEntity &there = *remote->entity;
            const vuEntityState truth = networkReport(entity, kPole, now);
            const double *const a = there.position, *const b = truth.location;
            const Matrix3 turn = product(transposed(attitudeOf(there.orientation)), attitudeOf(truth.orientation));
            const double angle = std::acos(std::min(1.0, (turn[0] + turn[4] + turn[8] - 1.0) / 2.0)) / kDegree;
            worst = std::max({worst, std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]), angle / 3});
        }
        EXPECT_EQ(sentOnLine, 0u);
        EXPECT_NEAR(sent.at(first + 1).time, 3590 + interval, 1e-9);
        EXPECT_LT(worst, 1.0003); // metres, or times 3 degrees
        EXPECT_GT(worst, 0.5);    // silent for as long as it may be
        publisher.leave(entity, now);
        EXPECT_EQ(receive(), nullptr);
    }
    EXPECT_TRUE(input.counts().left == 8 && input.counts().leaves == 16 && input.counts().late == 0);
}

TEST_F(PublisherTest, LeavesOnceAndComesBack)
{
    publisher.leave(entity, 1);
    EXPECT_TRUE(sent.empty());
    es.velocity[0] = 5;
    frame(1);
    es.entityId.entity = 57; // leaves as 56, enters as 57
    EXPECT_EQ(frame(2), 3u);
    publisher.leave(entity, 3);
    publisher.leave(entity, 3);
    EXPECT_EQ(frame(3), 1u);
    ASSERT_EQ(sent.size(), 7u);
    for (const unsigned request : {1, 2})
    {
        const vuEntityState &report = sent[3 * request - 2].report;
        const auto &[header, originating, receiving, number] = sent[3 * request - 1].removal;
        EXPECT_TRUE(leaves(report) && report.velocity[1] == 0 && report.entityId.entity == 55 + request);
        EXPECT_TRUE(receiving.entity == 55 + request && number == request);
        EXPECT_TRUE(originating.site == 12 && originating.application == 34 && originating.entity == 0);
        EXPECT_TRUE(header.exerciseId == 3 && header.protocolVersion == 6 && header.timestamp == report.timestamp);
    }
    EXPECT_TRUE(publisher.counts().reports == 5 && publisher.counts().removes == 2);
}
