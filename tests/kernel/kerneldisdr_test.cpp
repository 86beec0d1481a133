#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <support/plaindr.h>
#include <tolvin/kernel/kernelvunode.h>
#include <vector>

namespace
{

constexpr float kNan = NAN;
constexpr double kPi = 3.14159265358979323846;

// Scenes with entities of consecutive DIS numbers from 0 on, each with a report of its own.
struct World
{
    vuRootNode root = {};
    std::vector<vuScene> scenes;
    std::vector<vuEntity> entities;
    std::vector<vuEntityState> reports;

    explicit World(size_t count, size_t sceneCount = 1) : scenes(sceneCount), entities(count), reports(count)
    {
        root.time.sim = {7205, 500000};
        for (vuScene &scene : scenes)
        {
            vunodeAppend(&root.scenes, &scene.node);
        }
        for (size_t i = 0; i < count; ++i)
        {
            vuEntity &e = entities[i];
            e.status = VU_STATUS_MOVING;
            e.receive = VU_RECEIVE_DIS;
            e.drState = &reports[i];
            e.disId = reports[i].entityId = {3, 4, static_cast<uint16_t>(i)};
            e.recvTime = 7205.5;
            vunodeAppend(&scenes[i * sceneCount / count].entities, &e.node);
        }
    }

    std::vector<uint8_t> bytes() const
    {
        std::vector<uint8_t> all(entities.size() * sizeof(vuEntity) + reports.size() * sizeof(vuEntityState));
        std::memcpy(all.data(), entities.data(), entities.size() * sizeof(vuEntity));
        std::memcpy(all.data() + entities.size() * sizeof(vuEntity), reports.data(),
                    reports.size() * sizeof(vuEntityState));
        return all;
    }

    void restore(const std::vector<uint8_t> &all)
    {
        const size_t split = entities.size() * sizeof(vuEntity);
        std::memcpy(static_cast<void *>(entities.data()), all.data(), split);
        std::memcpy(static_cast<void *>(reports.data()), all.data() + split, all.size() - split);
    }
};

vuEntityState reportOf(int algorithm, const float *orientation, const float *velocity, const float *omega)
{
    vuEntityState s = {};
    s.deadReckoning.algorithm = static_cast<uint8_t>(algorithm);
    for (int i = 0; i < 3; ++i)
    {
        s.location[i] = 1000.0 * (i + 1);
        s.orientation[i] = orientation[i];
        s.velocity[i] = velocity[i];
        s.deadReckoning.linearAcc[i] = i == 2 ? -9.81F : 0.5F;
        s.deadReckoning.angularVel[i] = omega[i];
    }
    return s;
}

// The one entity of a world, extrapolated from the report over dt seconds.
vuEntity &extrapolated(World &w, const vuEntityState &s, double dt)
{
    vuEntity &e = w.entities[0];
    *e.drState = s;
    e.recvTime = plain::now(&w.root) - dt - 11;
    e.timeOffset = 11;
    disCalcDRMatrices(&e, e.drState);
    updateEntityPositions(&w.root);
    return e;
}

double angleBetween(double a, double b)
{
    return std::fabs(std::remainder(a - b, 2 * kPi));
}

// How far an angle that is the arc cosine of x = m / level may be off when m is off by a few units of single precision:
// more and more towards the ends of the arc cosine, and where the pitch is steep.
double angleTolerance(double angle, double level)
{
    const double off = 4 * FLT_EPSILON / level;
    return 4 * FLT_EPSILON + std::min(off / std::max(std::fabs(std::sin(angle)), 1e-30), std::sqrt(2 * off));
}

constexpr float kZero[3] = {0, 0, 0};
constexpr float kVelocity[3] = {1, -2, 4};
constexpr float kAngles[3] = {0.3F, -0.2F, 2};

TEST(DeadReckoning, StraightAlgorithms)
{
    const float slow[3] = {0, 0.000005F, 0}, limit[3] = {0, 0, 0.00001F}, none[3] = {kNan, 0, 0}, turn[3] = {0, 1, 0};
    const struct
    {
        int algorithm;
        const float *omega;
        int order; // of the position in time
        int algorithmAfter;
    } cases[] = {{0, turn, 0, 0},   {1, turn, 0, 1},     {2, turn, 1, 2}, {5, turn, 2, 5}, {10, turn, 0, 10},
                 {12, turn, 0, 12}, {255, none, 0, 255}, {3, slow, 1, 2}, {4, slow, 1, 2}, {6, limit, 1, 2},
                 {7, none, 1, 2},   {8, kZero, 1, 2},    {9, slow, 1, 2}, {2, none, 1, 2}};
    for (const auto &c : cases)
    {
        for (const double dt : {2.0, 0.0, -3.5})
        {
            SCOPED_TRACE(testing::Message() << c.algorithm << " " << dt);
            World w(1);
            const vuEntity &e = extrapolated(w, reportOf(c.algorithm, kAngles, kVelocity, c.omega), dt);
            for (int i = 0; i < 3; ++i)
            {
                const double acceleration = i == 2 ? double{-9.81F} : 0.5;
                EXPECT_NEAR(e.position[i],
                            1000.0 * (i + 1) + (c.order > 0 ? kVelocity[i] * dt : 0) +
                                (c.order > 1 ? acceleration / 2 * dt * dt : 0),
                            1e-9);
            }
            EXPECT_EQ(std::memcmp(e.orientation, kAngles, sizeof kAngles), 0);
            EXPECT_EQ(e.drState->deadReckoning.algorithm, c.algorithmAfter);
        }
    }

    // What is not used may hold anything.
    World w(1);
    const float bad[3] = {kNan, INFINITY, kNan};
    EXPECT_EQ(extrapolated(w, reportOf(1, kAngles, bad, bad), 1).position[1], 2000);
}

// A turn about one axis adds to the angle of that axis when the others are 0.
TEST(DeadReckoning, TurnsAboutAxes)
{
    for (const int algorithm : {3, 4, 7, 8})
    {
        for (const int angle : {0, 1, 2}) // psi about z, theta about y, phi about x
        {
            for (const double dt : {0.0, 0.4, -1.9, 2e6})
            {
                SCOPED_TRACE(testing::Message() << algorithm << " " << angle << " " << dt);
                float start[3] = {}, omega[3] = {};
                start[angle] = angle == 1 ? -0.25F : 2.75F;
                omega[2 - angle] = angle == 1 && dt > 1 ? 1e-5F * 1.0625F : 0.75F;
                World w(1);
                const vuEntity &e = extrapolated(w, reportOf(algorithm, start, kVelocity, omega), dt);
                const double turned = start[angle] + static_cast<float>(double{omega[2 - angle]} * dt);
                for (int i = 0; i < 3; ++i)
                {
                    const double expected = i != angle ? 0 : angle == 1 ? std::asin(std::sin(turned)) : turned;
                    const bool over = angle == 1 && std::cos(turned) < 0;
                    EXPECT_NEAR(angleBetween(e.orientation[i], over && i != 1 ? kPi : expected), 0, 5e-4);
                }
                const double second = algorithm == 4 ? -9.81F / 2.0 * dt * dt : 0;
                if (algorithm < 6)
                {
                    EXPECT_NEAR(e.position[2], 3000 + 4 * dt + second, 1e-12 * std::fabs(second) + 1e-9);
                }
            }
        }
    }
}

// Constant speed along the nose and a constant turn about z give a circle of radius speed / omega.
TEST(DeadReckoning, BodyAlgorithmsRunInCircles)
{
    for (const int algorithm : {6, 7, 8, 9})
    {
        for (const double dt : {1.0, -7.0, 50.0, 0.0})
        {
            for (const float psi : {0.0F, 2.0F})
            {
                SCOPED_TRACE(testing::Message() << algorithm << " " << dt << " " << psi);
                const float start[3] = {psi, 0, 0}, velocity[3] = {10, 0, 0}, omega[3] = {0, 0, 0.125F};
                World w(1);
                const vuEntity &e = extrapolated(w, reportOf(algorithm, start, velocity, omega), dt);
                const double end = psi + 0.125 * dt;
                EXPECT_NEAR(e.position[0], 1000 + 80 * (std::sin(end) - std::sin(psi)), 1e-4);
                EXPECT_NEAR(e.position[1], 2000 + 80 * (std::cos(psi) - std::cos(end)), 1e-4);
                EXPECT_NEAR(e.position[2], 3000, 1e-9);
                const bool turns = algorithm == 7 || algorithm == 8;
                EXPECT_NEAR(angleBetween(e.orientation[0], turns ? end : psi), 0, turns ? 1e-6 : 0);
            }
        }
    }
}

TEST(DeadReckoning, KeepsReportedAnglesWhereTheyCannotBeHad)
{
    const float steep[3] = {0.5F, static_cast<float>(kPi / 2), 0.25F}, aboutZ[3] = {0, 0, 0.5F};
    World w(1);
    vuEntity &e = extrapolated(w, reportOf(3, steep, kVelocity, aboutZ), 1);
    EXPECT_EQ(std::memcmp(e.orientation, steep, sizeof steep), 0);

    // An orientation matrix that is none: its sine of the pitch is 2, or no number at all.
    for (const float sine : {2.0F, kNan})
    {
        extrapolated(w, reportOf(3, kAngles, kVelocity, aboutZ), 1);
        e.drMatrix[6] = sine;
        disDeadRecon(&w.root, &e, e.drState);
        EXPECT_EQ(std::memcmp(e.orientation, kAngles, sizeof kAngles), 0);
    }

    // A quotient of 1.0000001 counts as 1, one of -1.0000001 as -1.
    extrapolated(w, reportOf(3, kZero, kVelocity, aboutZ), 0);
    e.drMatrix[0] = 1.0000001F;
    e.drMatrix[8] = -1.0000001F;
    disDeadRecon(&w.root, &e, e.drState);
    EXPECT_EQ(e.orientation[0], 0);
    EXPECT_FLOAT_EQ(e.orientation[2], static_cast<float>(kPi));
}

// Rz(psi) Ry(theta) Rx(phi), its transpose, and the outer product; the skew matrix's diagonal is never written.
TEST(DeadReckoning, Matrices)
{
    for (const int algorithm : {4, 6, 9, 10})
    {
        const float omega[3] = {3, -5, 7};
        const vuEntityState s = reportOf(algorithm, kAngles, kVelocity, omega);
        vuEntity e = {};
        std::fill_n(e.omegaSkew, 9, 99.0F);
        std::fill_n(e.drInverse, 9, 99.0F);
        disCalcDRMatrices(&e, &s);
        double expected[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        for (const int axis : {2, 1, 0})
        {
            const double angle = kAngles[2 - axis], c = std::cos(angle), n = std::sin(angle);
            const int a = (axis + 1) % 3, b = (axis + 2) % 3; // the plane that turns
            for (int row = 0; row < 3; ++row)
            {
                const double x = expected[3 * row + a], y = expected[3 * row + b];
                expected[3 * row + a] = x * c + y * n;
                expected[3 * row + b] = y * c - x * n;
            }
        }
        const float skew[9] = {99, 7, 5, -7, 99, 3, -5, -3, 99};
        for (int i = 0; i < 9; ++i)
        {
            EXPECT_NEAR(e.drMatrix[i], expected[i], 2e-7);
            EXPECT_NEAR(e.drInverse[i], algorithm == 4 || algorithm == 10 ? 99 : expected[i % 3 * 3 + i / 3], 5e-7);
            EXPECT_EQ(e.omegaOuter[i], omega[i / 3] * omega[i % 3]);
            EXPECT_EQ(e.omegaSkew[i], skew[i]);
        }
        EXPECT_DOUBLE_EQ(e.omega, std::sqrt(83.0));
    }
}

// The same as the formulas written down plainly, for any report; and one entity alone the same as in a list.
TEST(DeadReckoning, AgreesWithPlainVersion)
{
    constexpr size_t kCount = 20011;
    std::mt19937 random(7);
    std::uniform_real_distribution<float> any(-1, 1);
    World w(kCount, 3);
    for (vuEntity &e : w.entities)
    {
        vuEntityState &s = *e.drState;
        const float rate = std::pow(10.0F, 6 * any(random)); // from negligible to absurd
        for (int i = 0; i < 3; ++i)
        {
            s.location[i] = 1e7 * double{any(random)};
            s.velocity[i] = 300 * any(random);
            s.orientation[i] = 4 * any(random);
            s.deadReckoning.linearAcc[i] = 20 * any(random);
            s.deadReckoning.angularVel[i] = rate * any(random);
            e.omegaSkew[4 * i] = kNan;
        }
        s.deadReckoning.algorithm = static_cast<uint8_t>(random() % 12);
        e.recvTime = plain::now(&w.root) + 10 * double{any(random)};
        e.timeOffset = double{any(random)};
        plain::calcMatrices(&e, &s);
    }
    const std::vector<uint8_t> start = w.bytes();
    updateEntityPositions(&w.root);
    const std::vector<uint8_t> inList = w.bytes();
    std::vector<vuEntity> results = w.entities;

    w.restore(start);
    for (vuEntity &e : w.entities)
    {
        disDeadRecon(&w.root, &e, e.drState);
    }
    EXPECT_TRUE(w.bytes() == inList);

    w.restore(start);
    plain::updatePositions(&w.root);
    for (size_t n = 0; n < kCount; ++n)
    {
        vuEntity &e = w.entities[n], &r = results[n];
        const vuEntityState &s = *e.drState;
        const double dt = std::fabs(plain::now(&w.root) - e.recvTime - e.timeOffset);
        SCOPED_TRACE(testing::Message() << n << " algorithm " << int{s.deadReckoning.algorithm});
        const double level = std::max(std::fabs(std::cos(double{e.orientation[1]})), 1e-7);
        EXPECT_NEAR(r.orientation[1], e.orientation[1], angleTolerance(e.orientation[1] + kPi / 2, 1));
        EXPECT_LE(angleBetween(r.orientation[0], e.orientation[0]), angleTolerance(e.orientation[0], level));
        EXPECT_LE(angleBetween(r.orientation[2], e.orientation[2]), angleTolerance(e.orientation[2], level));
        for (int i = 0; i < 9; ++i)
        {
            EXPECT_NEAR(r.drR1[i], e.drR1[i], 4 * FLT_EPSILON * dt);
        }
        for (int i = 0; i < 3; ++i)
        {
            EXPECT_NEAR(r.position[i], e.position[i], 4 * FLT_EPSILON * 520 * dt + 1e-8); // 520: greatest speed
        }
        // Nothing else has changed.
        std::memcpy(r.position, e.position, sizeof e.position);
        std::memcpy(r.orientation, e.orientation, sizeof e.orientation);
        std::memcpy(r.drR1, e.drR1, sizeof e.drR1);
        EXPECT_EQ(std::memcmp(&r, &e, sizeof e), 0);
    }
    EXPECT_EQ(std::memcmp(w.reports.data(), inList.data() + kCount * sizeof(vuEntity), kCount * sizeof(vuEntityState)),
              0);
}

TEST(DeadReckoning, MovesOnlyWhatIsDue)
{
    World w(5);
    w.entities[0].status = 1;
    w.entities[1].receive = w.entities[2].receive = VU_RECEIVE_UDP;
    w.root.ownEntity = &w.entities[2];
    w.entities[3].drState = nullptr;
    for (vuEntityState &s : w.reports)
    {
        s.location[0] = 5;
    }
    updateEntityPositions(&w.root);
    const double expected[] = {0, 0, 5, 0, 5};
    for (size_t i = 0; i < 5; ++i)
    {
        EXPECT_EQ(w.entities[i].position[0], expected[i]) << i;
    }
}

TEST(DisUpdate, TakesOverTimesReportAndMatrices)
{
    for (const int algorithm : {2, 3, 5, 9})
    {
        World w(1);
        vuEntityState s = reportOf(algorithm, kZero, kVelocity, kVelocity);
        s.entityId = {3, 4, 0};
        s.timestamp = 0xFFFFFFFF; // the last moment of the hour
        const vuEntityState before = s;
        disUpdateEntity(&w.root, &s);
        const vuEntity &e = w.entities[0];
        EXPECT_EQ(e.pduTime, 3600);
        EXPECT_EQ(e.recvTime, 7205.5);
        EXPECT_EQ(e.timeOffset, 5.5 - 3600);
        EXPECT_EQ(std::memcmp(e.drState, &s, sizeof s), 0);
        EXPECT_EQ(e.drMatrix[0], algorithm == 3 || algorithm == 9 ? 1 : 0);
        updateEntityPositions(&w.root); // 3594.5 seconds, which the report's own record takes, not the caller's
        EXPECT_EQ(std::memcmp(&s, &before, sizeof s), 0);
        if (algorithm < 4)
        {
            EXPECT_EQ(e.position[0], 1000 + 3594.5);
        }
    }
}

TEST(DisUpdate, FindsFirstEntityThatReceivesDis)
{
    World w(8, 2);
    const vuEntityId id = {3, 4, 5};
    w.entities[0].disId = {2, 4, 5};
    w.entities[1].disId = {3, 3, 5};
    w.entities[2].disId = {3, 4, 6};
    w.entities[3].disId = w.entities[4].disId = id;
    w.entities[3].receive = VU_RECEIVE_UDP;
    EXPECT_EQ(entityFindDIS(&w.scenes[0], &id), &w.entities[3]); // receiving or not
    EXPECT_EQ(entityFindDIS(&w.scenes[1], &id), &w.entities[4]);
    EXPECT_EQ(entityFindDIS(&w.scenes[1], &w.entities[2].disId), nullptr);

    vuEntityState s = {};
    s.entityId = id;
    s.location[0] = 9;
    disUpdateEntity(&w.root, &s);
    for (size_t i = 0; i < w.entities.size(); ++i)
    {
        EXPECT_EQ(w.reports[i].location[0], i == 4 ? 9 : 0) << i; // 5 has the same identity, but is not the first
    }

    // The first stays the one even if it has no record.
    w.entities[4].drState = nullptr;
    const std::vector<uint8_t> before = w.bytes();
    const vuEntityState twice[] = {s, s};
    disUpdateEntity(&w.root, &s);
    disUpdateEntities(&w.root, twice, 2);
    EXPECT_TRUE(w.bytes() == before);
    w.entities[4].receive = w.entities[5].receive = 0;
    disUpdateEntities(&w.root, twice, 2);
    EXPECT_EQ(w.reports[5].location[0], 0);
}

TEST(DisUpdate, ManyAtOnceAreTheLoop)
{
    std::mt19937 random(11);
    std::uniform_real_distribution<float> any(-1, 1);
    const size_t counts[] = {0, 1, 2, 3, 31, 32, 33, 500, 5000};
    for (const size_t entities : {1, 7, 60, 900})
    {
        World w(entities, entities > 6 ? 4 : 1);
        const auto identity = [&]()
        {
            return vuEntityId{static_cast<uint16_t>(random() % 2), static_cast<uint16_t>(random() % 2),
                              static_cast<uint16_t>(random() % entities)};
        };
        for (vuEntity &e : w.entities)
        {
            e.disId = identity();
            e.receive = random() % 4 == 0 ? VU_RECEIVE_UDP : VU_RECEIVE_DIS;
            e.drState = random() % 8 == 0 ? nullptr : e.drState;
        }
        for (const size_t count : counts)
        {
            SCOPED_TRACE(testing::Message() << entities << " entities, " << count << " reports");
            std::vector<vuEntityState> states(count);
            for (vuEntityState &s : states)
            {
                const float values[3] = {any(random), any(random), any(random)};
                s = reportOf(static_cast<int>(random() % 11), values, values, values);
                s.entityId = identity();
                s.timestamp = random();
            }
            const std::vector<vuEntityState> given = states;
            const std::vector<uint8_t> before = w.bytes();
            for (const vuEntityState &s : states)
            {
                disUpdateEntity(&w.root, &s);
            }
            const std::vector<uint8_t> looped = w.bytes();
            w.restore(before);
            disUpdateEntities(&w.root, count == 0 ? nullptr : states.data(), count);
            EXPECT_TRUE(w.bytes() == looped);
            EXPECT_EQ(std::memcmp(static_cast<const void *>(given.data()), states.data(), count * sizeof given[0]), 0);
            EXPECT_TRUE(count < 500 || looped != before);
        }
    }
}

TEST(DisNumbers, FirstFree)
{
    World w(4);
    vuScene &scene = w.scenes[0];
    scene.disSite = 3;
    scene.disApplication = 4;
    w.entities[0].disId.entity = 5;
    w.entities[1].disId.entity = 6;
    w.entities[2].disId = {3, 5, 7};
    w.entities[3].disId.entity = 65535;
    scene.disNextEntity = 5;
    EXPECT_EQ(disGetNewEntityId(&scene), 7);
    EXPECT_EQ(scene.disNextEntity, 8);
    scene.disNextEntity = 65535;
    EXPECT_EQ(disGetNewEntityId(&scene), 0);
    EXPECT_EQ(scene.disNextEntity, 1);
    scene.disNextEntity = 65534;
    EXPECT_EQ(disGetNewEntityId(&scene), 65534);
    EXPECT_EQ(scene.disNextEntity, 65535);

    World full(65536);
    full.scenes[0].disSite = 3;
    full.scenes[0].disApplication = 4;
    full.scenes[0].disNextEntity = 65535;
    EXPECT_EQ(disGetNewEntityId(&full.scenes[0]), 65535);
    EXPECT_EQ(full.scenes[0].disNextEntity, 0);
}

TEST(DisStatus, MovesCurrentToPrevious)
{
    vuEntity e = {};
    e.status = 4;
    disChangeStatus(&e.status, 2);
    EXPECT_EQ(e.status, 2);
    EXPECT_EQ(e.prevStatus, 4);
    disChangeStatus(nullptr, 3);
}

} // namespace
