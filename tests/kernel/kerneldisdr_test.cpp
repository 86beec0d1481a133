#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <tolvin/bench/kernel/plaindr.h>
#include <vector>

namespace
{

using Vector = std::array<float, 3>;
constexpr double kPi = 3.14159265358979323846;
constexpr Vector kZero = {}, kVelocity = {1, -2, 4}, kAngles = {0.3F, -0.2F, 2}, kTurn = {0, 0, 0.5F};

// Scenes with moving entities 0, 1, 2 ... of site 3, application 4, each with a report of its own. Once copied, a world
// can be set back to the copy in place.
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
            scene.disSite = 3;
            scene.disApplication = 4;
            vunodeAppend(&root.scenes, &scene.node);
        }
        for (size_t i = 0; i < count; ++i)
        {
            vuEntity &e = entities[i];
            e.status = VU_STATUS_MOVING;
            e.receive = VU_RECEIVE_DIS;
            e.drState = &reports[i];
            e.disId = {3, 4, static_cast<uint16_t>(i)};
            vunodeAppend(&scenes[i * sceneCount / count].entities, &e.node);
        }
    }
};

bool sameBytes(const World &a, const World &b)
{
    const auto same = [](const auto &x, const auto &y)
    { return std::memcmp(x.data(), y.data(), sizeof x[0] * x.size()) == 0; };
    return same(a.entities, b.entities) && same(a.reports, b.reports);
}

// What dead reckoning has no use for is filled at random.
vuEntityState reportOf(size_t algorithm, const Vector &orientation, const Vector &velocity, const Vector &omega)
{
    static std::minstd_rand random;
    vuEntityState s;
    std::generate_n(reinterpret_cast<uint8_t *>(&s), sizeof s, [] { return static_cast<uint8_t>(random() % 256); });
    s.entityId = {3, 4, 0};
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

bool keepsAngles(const vuEntity &e)
{
    return std::memcmp(e.orientation, e.drState->orientation, sizeof e.orientation) == 0;
}

double angleBetween(double a, double b)
{
    return std::fabs(std::remainder(a - b, 2 * kPi));
}

// How far an angle may be off that is the arc cosine of x / level when x is off by a few units of single precision:
// more and more towards the ends of the arc cosine, and where the pitch is steep.
double angleTolerance(double angle, double level)
{
    const double off = 4 * FLT_EPSILON / std::max(level, 1e-7);
    return 4 * FLT_EPSILON + std::min(off / (std::fabs(std::sin(angle)) + 1e-30), std::sqrt(2 * off));
}

TEST(DeadReckoning, WithoutRotation)
{
    const Vector slow = {0, 0.000005F, 0}, limit = {0, 0, 0.00001F}, bad = {NAN, INFINITY, 0};
    const struct
    {
        size_t algorithm, after;
        Vector omega;
        int order; // of the position in time
    } cases[] = {{0, 0, kTurn, 0},   {1, 1, bad, 0},       {2, 2, kTurn, 1}, {5, 5, bad, 2},  {10, 10, kTurn, 0},
                 {12, 12, kTurn, 0}, {255, 255, kTurn, 0}, {3, 2, slow, 1},  {4, 2, slow, 1}, {6, 2, limit, 1},
                 {7, 2, bad, 1},     {8, 2, kZero, 1},     {9, 2, slow, 1}};
    for (const auto &c : cases)
    {
        for (const double dt : {2.0, 0.0, -3.5})
        {
            World w(1);
            const Vector &velocity = c.order > 0 ? kVelocity : bad; // static ones do not use it
            const vuEntity &e = extrapolated(w, reportOf(c.algorithm, kAngles, velocity, c.omega), dt);
            EXPECT_NEAR(e.position[1], 2000 + (c.order > 0) * -2 * dt + (c.order > 1) * 0.25 * dt * dt, 1e-9);
            EXPECT_NEAR(e.position[2], 3000 + (c.order > 0) * 4 * dt - (c.order > 1) * 4.905 * dt * dt, 1e-5);
            EXPECT_TRUE(keepsAngles(e)) << c.algorithm;
            EXPECT_EQ(e.drState->deadReckoning.algorithm, c.after);
        }
    }
}

// A turn about one axis adds to the angle of that axis while the others are 0: psi about z, theta about y, phi about x.
// In the body algorithms speed along the nose then gives a circle of radius speed / omega.
TEST(DeadReckoning, TurnsAboutAxesAndInCircles)
{
    for (const size_t algorithm : {3, 4, 6, 7, 8, 9})
    {
        for (const double dt : {0.0, 2.25, -1.75, 50.0, 1e15})
        {
            for (size_t n = 0; n < 3 && (n != 1 || dt < 3); ++n)
            {
                SCOPED_TRACE(testing::Message() << algorithm << " " << dt << " " << n);
                Vector start = {}, omega = {};
                start[n] = n == 1 ? -0.25F : 2.75F;
                omega[2 - n] = 0.5F;
                World w(1);
                const vuEntity &e = extrapolated(w, reportOf(algorithm, start, {10, 0, 0}, omega), dt);
                const double turn = static_cast<float>(0.5 * dt), s = std::sin(turn), c = std::cos(turn);
                const bool fixed = algorithm == 6 || algorithm == 9;
                EXPECT_TRUE(!fixed || keepsAngles(e));
                for (size_t i = 0; i < 3 && !fixed; ++i) // the others are arc cosines of 1, give or take a rounding
                {
                    const double expected = i == n ? start[n] + std::atan2(s, c) : 0;
                    EXPECT_LT(angleBetween(e.orientation[i], expected), i == n ? 2e-6 : 1e-3);
                }
                if (n == 0 && algorithm >= 6 && dt < 100)
                {
                    EXPECT_NEAR(e.position[0], 1000 + 20 * (std::sin(2.75 + turn) - std::sin(2.75)), 5e-5);
                    EXPECT_NEAR(e.position[1], 2000 + 20 * (std::cos(2.75) - std::cos(2.75 + turn)), 5e-5);
                    EXPECT_NEAR(e.position[2], 3000, 1e-9);
                }
            }
        }
    }
}

TEST(DeadReckoning, KeepsReportedAnglesWhereThereAreNone)
{
    World w(1);
    vuEntity &e = extrapolated(w, reportOf(3, kAngles, kVelocity, kTurn), 0);
    for (const float sine : {-1.0F, 2.0F, NAN}) // straight up, and no sine of a pitch
    {
        e.drMatrix[6] = sine;
        e.orientation[0] = 99;
        disDeadRecon(&w.root, &e, e.drState);
        EXPECT_TRUE(keepsAngles(e)) << sine;
    }
    extrapolated(w, reportOf(3, kZero, kVelocity, kTurn), 0);
    e.drMatrix[8] = -1.0000001F; // but a little more than 1 is 1
    disDeadRecon(&w.root, &e, e.drState);
    EXPECT_EQ(e.orientation[2], static_cast<float>(kPi));
}

// Rz(psi) Ry(theta) Rx(phi), of sines and cosines rounded to float, and its transpose.
TEST(DeadReckoning, Matrices)
{
    const Vector omega = {3, -5, 7}, huge = {5e9F, -1e12F, 3e15F}; // huge takes another way to sine and cosine
    const float skew[9] = {99, 7, 5, -7, 99, 3, -5, -3, 99};       // the diagonal stays
    for (const size_t algorithm : {4, 6, 9, 10})
    {
        const Vector &angles = algorithm == 9 ? huge : kAngles;
        double expected[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        for (const int axis : {2, 1, 0})
        {
            const double angle = angles[2 - axis];
            const double c = static_cast<float>(std::cos(angle)), s = static_cast<float>(std::sin(angle));
            for (int row = 0; row < 9; row += 3)
            {
                double &a = expected[row + (axis + 1) % 3], &b = expected[row + (axis + 2) % 3], before = a;
                a = a * c + b * s;
                b = b * c - before * s;
            }
        }
        const vuEntityState s = reportOf(algorithm, angles, kVelocity, omega);
        vuEntity e = {};
        std::fill_n(e.omegaSkew, 9, 99.0F);
        disCalcDRMatrices(&e, &s);
        for (int i = 0; i < 9; ++i)
        {
            EXPECT_EQ(e.drMatrix[i], static_cast<float>(expected[i]));
            EXPECT_NEAR(e.drInverse[i], algorithm == 6 || algorithm == 9 ? expected[i % 3 * 3 + i / 3] : 0, 5e-7);
            EXPECT_EQ(e.omegaOuter[i], omega[i / 3] * omega[i % 3]);
            EXPECT_EQ(e.omegaSkew[i], skew[i]);
        }
        EXPECT_DOUBLE_EQ(e.omega, std::sqrt(83.0));
    }
}

// Any reports: the same as from the formulas written down plainly, and one by one the same as in a list.
TEST(DeadReckoning, AgreesWithPlainVersion)
{
    std::mt19937 random(7);
    std::uniform_real_distribution<float> any(-1, 1);
    const auto draw = [&](float size) { return Vector{size * any(random), size * any(random), size * any(random)}; };
    World w(20011, 3);
    for (vuEntity &e : w.entities)
    {
        const float rate = std::pow(10.0F, 6 * any(random)); // from negligible to absurd
        *e.drState = reportOf(random() % 12, draw(4), draw(300), draw(rate));
        e.recvTime = plain::now(&w.root) + 10 * double{any(random)};
        e.timeOffset = double{any(random)};
        e.omegaSkew[4] = NAN;
        disCalcDRMatrices(&e, e.drState);
    }
    const World start = w;
    updateEntityPositions(&w.root);
    World inList = w;
    w = start;
    for (vuEntity &e : w.entities)
    {
        disDeadRecon(&w.root, &e, e.drState);
    }
    EXPECT_TRUE(sameBytes(w, inList));

    w = start;
    plain::updatePositions(&w.root);
    size_t otherwiseRounded = 0;
    for (size_t n = 0; n < w.entities.size(); ++n)
    {
        vuEntity &e = w.entities[n], &f = inList.entities[n];
        SCOPED_TRACE(testing::Message() << n << " algorithm " << int{e.drState->deadReckoning.algorithm});
        const double level = std::cos(double{e.orientation[1]});
        const double precision = 4 * FLT_EPSILON * std::fabs(plain::now(&w.root) - e.recvTime - e.timeOffset);
        for (int i = 0; i < 9; ++i)
        {
            const double angle = e.orientation[i % 3];
            const double tolerance = i % 3 == 1 ? angleTolerance(angle + kPi / 2, 1) : angleTolerance(angle, level);
            EXPECT_LE(angleBetween(f.orientation[i % 3], angle), tolerance);
            EXPECT_NEAR(f.position[i % 3], e.position[i % 3], 520 * precision + 1e-8); // 520 is the top speed
            EXPECT_NEAR(f.drR1[i], e.drR1[i], precision);
            otherwiseRounded += f.drR1[i] != e.drR1[i] || f.orientation[i / 3] != e.orientation[i / 3];
        }
        std::memcpy(f.position, e.position, sizeof e.position);
        std::memcpy(f.orientation, e.orientation, sizeof e.orientation);
        std::memcpy(f.drR1, e.drR1, sizeof e.drR1);
    }
    EXPECT_TRUE(sameBytes(w, inList)); // nothing else has changed
    EXPECT_LE(otherwiseRounded, 10U);  // of 180000: sines and arcs are far more precise than what is made of them
}

TEST(DeadReckoning, MovesOnlyWhatIsDue)
{
    World w(5);
    w.entities[0].status = 1;
    w.entities[1].receive = w.entities[2].receive = VU_RECEIVE_UDP;
    w.root.ownEntity = &w.entities[2];
    w.entities[3].drState = nullptr;
    std::fill_n(w.reports.begin(), 5, reportOf(1, kAngles, kZero, kZero));
    updateEntityPositions(&w.root);
    for (size_t i = 0; i < 5; ++i)
    {
        EXPECT_EQ(w.entities[i].position[0], i == 2 || i == 4 ? 1000 : 0) << i;
    }
}

TEST(DisUpdate, FirstEntityThatReceivesDisTakesOver)
{
    for (const size_t algorithm : {2, 3, 5, 6, 9})
    {
        World w(8, 2);
        const vuEntityId id = {3, 4, 5};
        w.entities[0].disId = {2, 4, 5};
        w.entities[1].disId = {3, 3, 5};
        w.entities[3].disId = w.entities[4].disId = id; // as entity 5
        w.entities[3].receive = VU_RECEIVE_UDP;
        EXPECT_EQ(entityFindDIS(&w.scenes[0], &id), &w.entities[3]); // receiving or not
        EXPECT_EQ(entityFindDIS(&w.scenes[1], &id), &w.entities[4]);
        EXPECT_EQ(entityFindDIS(&w.scenes[1], &w.entities[1].disId), nullptr);

        vuEntityState s = reportOf(algorithm, kZero, kVelocity, kZero);
        s.entityId = id;
        s.timestamp = 0xFFFFFFFF; // the last moment of the hour
        const vuEntityState given = s;
        disUpdateEntity(&w.root, &s);
        for (size_t i = 0; i < 8; ++i)
        {
            EXPECT_EQ(w.entities[i].recvTime, i == 4 ? 7205.5 : 0) << i;
        }
        const vuEntity &e = w.entities[4];
        EXPECT_EQ(e.pduTime, 3600);
        EXPECT_EQ(e.timeOffset, 5.5 - 3600);
        EXPECT_EQ(std::memcmp(e.drState, &given, sizeof s), 0);
        EXPECT_EQ(e.drMatrix[0], algorithm == 2 || algorithm == 5 ? 0 : 1);
        updateEntityPositions(&w.root); // changes the algorithm, but not in the caller's record
        EXPECT_EQ(e.drState->deadReckoning.algorithm, algorithm == 5 ? 5 : 2);
        EXPECT_EQ(std::memcmp(&s, &given, sizeof s), 0);
    }
}

// Among the entities are some that share an identity, do not receive DIS or have nowhere to keep a report.
TEST(DisUpdate, ManyAtOnceAreTheLoop)
{
    std::mt19937 random(11);
    for (const size_t entities : {1, 7, 60, 900})
    {
        const auto drawId = [&](vuEntityId &id) {
            id = {static_cast<uint16_t>(random() % 2), 0, static_cast<uint16_t>(random() % entities)};
        };
        World w(entities, 1 + entities / 20);
        for (vuEntity &e : w.entities)
        {
            drawId(e.disId);
            e.receive = random() % 4 == 0 ? VU_RECEIVE_UDP : VU_RECEIVE_DIS;
            e.drState = random() % 8 == 0 ? nullptr : e.drState;
        }
        for (const size_t count : {0, 1, 2, 3, 32, 33, 500, 5000})
        {
            const World before = w;
            std::vector<vuEntityState> states;
            for (size_t i = 0; i < count; ++i)
            {
                const float value = static_cast<float>(random()) / 4e9F;
                states.push_back(reportOf(random() % 11, {value, 0, -value}, kVelocity, {0, value, 1}));
                drawId(states[i].entityId);
                states[i].entityId.application = static_cast<uint16_t>(random() % 2 * random()); // half are unknown
                disUpdateEntity(&w.root, &states[i]);
            }
            const World looped = w;
            w = before;
            disUpdateEntities(&w.root, states.data(), count);
            EXPECT_TRUE(sameBytes(w, looped)) << entities << " entities, " << count << " reports";
        }
    }
}

TEST(DisNumbers, FirstFree)
{
    World w(4);
    w.entities[0].disId.entity = 5;
    w.entities[1].disId.entity = 6;
    w.entities[2].disId = {3, 5, 7};
    w.entities[3].disId.entity = 65535;
    const uint16_t cases[][3] = {{5, 7, 8}, {65535, 0, 1}, {65534, 65534, 65535}}; // next, number, next afterwards
    for (const auto &c : cases)
    {
        w.scenes[0].disNextEntity = c[0];
        EXPECT_EQ(disGetNewEntityId(&w.scenes[0]), c[1]);
        EXPECT_EQ(w.scenes[0].disNextEntity, c[2]);
    }
    World full(65536);
    full.scenes[0].disNextEntity = 65535;
    EXPECT_EQ(disGetNewEntityId(&full.scenes[0]), 65535);
    EXPECT_EQ(full.scenes[0].disNextEntity, 0);
}

TEST(DisStatus, MovesCurrentToPrevious)
{
    uint16_t pair[2] = {4, 1};
    disChangeStatus(pair, 2);
    EXPECT_TRUE(pair[0] == 2 && pair[1] == 4);
    disChangeStatus(nullptr, 3);
}

} // namespace
