#include "kerneldisdr.h"

#include "kernellanes.hpp"

#include <bit>
#include <bitset>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>
#include <memory>
#include <sys/auxv.h>

namespace
{

constexpr size_t kLine = 64; // bytes of a cache line
constexpr double kPi = 3.14159265358979323846;
constexpr double kSecondsPerHour = 3600.0;
constexpr double kNegligibleOmega = 0.00001; // rad/s
constexpr double kVerticalCosine = 0.000001; // of the pitch; up to here heading and roll cannot be told apart

vuEntity *entityOf(vunode *node)
{
    return reinterpret_cast<vuEntity *>(node);
}

vulist &entitiesOf(vunode *scene)
{
    return reinterpret_cast<vuScene *>(scene)->entities;
}

bool receivesDis(const vuEntity *e)
{
    return (e->receive & VU_RECEIVE_DIS) != 0;
}

double clockOf(const vuRootNode *root)
{
    return root->time.sim.sec + root->time.sim.usec / 1000000.0;
}

INLINE void fetchLine(const void *record, size_t offset = 0)
{
    __builtin_prefetch(static_cast<const char *>(record) + offset);
}

// Walking the lists. Entities go through three blocks: into the first as the list is followed, when fetch requests the
// lines of the entity that will be needed; through the second, when these have arrived and follow requests what they
// point to; and out of the third, when visit finds everything in the cache. The next link is the only thing that is
// waited for, and in a list that lies scattered in memory that wait is long enough to hide all others.

constexpr int kBlock = 4;

struct Cursor
{
    vunode *scene; // the one behind the scene of node
    vunode *node;
};

template<class Fetch>
INLINE int collect(Cursor &cursor, vuEntity **block, Fetch fetch)
{
    int count = 0;
    while (count < kBlock)
    {
        if (cursor.node == nullptr)
        {
            if (cursor.scene == nullptr)
            {
                break;
            }
            cursor.node = entitiesOf(cursor.scene).first;
            cursor.scene = cursor.scene->next;
            continue;
        }
        block[count++] = entityOf(cursor.node);
        fetch(entityOf(cursor.node));
        cursor.node = cursor.node->next;
    }
    return count;
}

// Ends early when visit returns false.
template<class Fetch, class Follow, class Visit>
INLINE void eachEntity(vuRootNode *root, Fetch fetch, Follow follow, Visit visit)
{
    vuEntity *blocks[3][kBlock];
    vuEntity **fresh = blocks[0], **near = blocks[1], **due = blocks[2];
    int nearCount = 0, dueCount = 0;
    Cursor cursor = {root->scenes.first, nullptr};
    do
    {
        const int freshCount = collect(cursor, fresh, fetch);
        for (int i = 0; i < nearCount; ++i)
        {
            follow(near[i]);
        }
        for (int i = 0; i < dueCount; ++i)
        {
            if (!visit(due[i]))
            {
                return;
            }
        }
        vuEntity **done = due;
        due = near;
        near = fresh;
        fresh = done;
        dueCount = nearCount;
        nearCount = freshCount;
    } while (nearCount + dueCount > 0);
}

// Two numbers side by side. Rotations are computed for two entities at once, one in each lane, without branches. A lane
// goes through the same IEEE operations whatever stands in the other one, so that what an entity gets does not depend
// on its neighbour.

PairBits bitsOf(Pair x)
{
    return reinterpret_cast<PairBits>(x);
}

Pair pairOf(PairBits bits)
{
    return reinterpret_cast<Pair>(bits);
}

Pair spread(double x)
{
    return Pair{x, x};
}

Pair choose(PairBits mask, Pair a, Pair b)
{
    return pairOf((mask & bitsOf(a)) | (~mask & bitsOf(b)));
}

Pair magnitude(Pair x)
{
    return pairOf(bitsOf(x) & INT64_MAX);
}

// Only the top bit of each lane of the mask counts.
Pair negateWhere(PairBits mask, Pair x)
{
    return pairOf(bitsOf(x) ^ (mask & INT64_MIN));
}

Pair squareRoot(Pair x)
{
    return _mm_sqrt_pd(x);
}

Pair roundToFloat(Pair x)
{
    return _mm_cvtps_pd(_mm_cvtpd_ps(x));
}

// Interpolated at Chebyshev nodes in 60 digits, then rounded; v is the square of the argument. The relative error of
//   sin x  = x + x v P(v)           is below 2e-17 for |x| up to pi/4
//   cos x  = 1 - (v/2 - v^2 P(v))   is below 1e-18 for |x| up to pi/4
//   asin x = x + x v P(v)           is below 3e-17 for |x| up to sin(pi/8)
constexpr double kSine[] = {-0.16666666666666666,  0.008333333333330943,    -0.0001984126983674956,
                            2.755731609787775e-06, -2.5051130870968297e-08, 1.591805913698281e-10};
constexpr double kCosine[] = {0.041666666666666664,   -0.0013888888888887393, 2.4801587298760048e-05,
                              -2.755731726880539e-07, 2.0876145659059344e-09, -1.1382588535352522e-11};
constexpr double kArcSine[] = {0.16666666666666655,  0.075000000000171,    0.04464285710445364,  0.030381947779903183,
                               0.022372012509623364, 0.017356446193822463, 0.013908959824591177, 0.012070300491340377,
                               0.006924569126700292, 0.016468645712014278};

// Reduction by multiples of pi/2 in two parts (Cody and Waite). The first has 33 bits: times a multiple of up to 20
// bits it is exact, and so is its difference from an argument that is a float.
constexpr double kHalfPiHigh = 0x1.921fb544p+0;
constexpr double kHalfPiLow = 6.077100506506192e-11;
constexpr double kReducible = 1048576;  // 2^20
constexpr double kToInteger = 0x1.8p52; // added to a number, leaves its nearest integer in the low bits

// Sine and cosine of x, whose lanes hold floats.
INLINE void sineCosine(Pair x, Pair &sine, Pair &cosine)
{
    const Pair shifted = x * (2 / kPi) + kToInteger;
    const PairBits quadrant = bitsOf(shifted);
    const Pair n = shifted - kToInteger;
    const Pair r = (x - n * kHalfPiHigh) - n * kHalfPiLow;
    const Pair v = r * r;
    const Pair s = r + r * v * polynomial(v, kSine);
    const Pair c = 1.0 - (v * 0.5 - v * v * polynomial(v, kCosine));

    const PairBits odd = -(quadrant & 1);
    sine = negateWhere(quadrant << 62, choose(odd, c, s));
    cosine = negateWhere((quadrant + 1) << 62, choose(odd, s, c));
    for (int i = 0; i < 2; ++i)
    {
        if (!(std::fabs(x[i]) <= kReducible)) [[unlikely]]
        {
            sine[i] = std::sin(x[i]);
            cosine[i] = std::cos(x[i]);
        }
    }
}

// Angle, 0 to pi/2, of a unit vector in the first quadrant. It is mirrored at pi/4, and what then still lies above pi/8
// is turned back by pi/4.
INLINE Pair quadrantAngle(Pair sine, Pair cosine)
{
    constexpr double kSineOfEighth = 0.38268343236508977;  // of pi/8
    constexpr double kSineOfQuarter = 0.70710678118654752; // of pi/4
    const Pair low = sine < cosine ? sine : cosine;
    const Pair high = sine > cosine ? sine : cosine;
    const PairBits turned = low > kSineOfEighth;
    const Pair z = choose(turned, (low - high) * kSineOfQuarter, low);
    const Pair v = z * z;
    const Pair angle = choose(turned, spread(kPi / 4), Pair{}) + (z + z * v * polynomial(v, kArcSine));
    return sine > cosine ? kPi / 2 - angle : angle;
}

// Arc cosine; arguments beyond 1 count as 1.
INLINE Pair arcCosine(Pair x)
{
    x = x > 1.0 ? spread(1) : x;
    x = x < -1.0 ? spread(-1) : x;
    const Pair angle = quadrantAngle(squareRoot(1.0 - x * x), magnitude(x));
    return x < 0.0 ? kPi - angle : angle;
}

// What an algorithm computes.
constexpr unsigned kFirstOrder = 1;  // position with the velocity
constexpr unsigned kSecondOrder = 2; // and with the acceleration
constexpr unsigned kBody = 4;        // position by the integrated rotation
constexpr unsigned kAttitude = 8;    // orientation
constexpr unsigned kRotating = kBody | kAttitude;

constexpr uint8_t kSteps[] = {0,
                              0,                                      // VU_DR_STATIC
                              kFirstOrder,                            // VU_DR_FPW
                              kFirstOrder | kAttitude,                // VU_DR_RPW
                              kFirstOrder | kSecondOrder | kAttitude, // VU_DR_RVW
                              kFirstOrder | kSecondOrder,             // VU_DR_FVW
                              kBody,                                  // VU_DR_FPB
                              kBody | kAttitude,                      // VU_DR_RPB
                              kBody | kAttitude,                      // VU_DR_RVB
                              kBody};                                 // VU_DR_FVB

unsigned stepsOf(uint8_t algorithm)
{
    return algorithm < sizeof kSteps ? kSteps[algorithm] : 0;
}

INLINE Pair advance(Pair location, Pair velocity, Pair acceleration, double age, unsigned steps)
{
    const auto first = reinterpret_cast<PairBits>(_mm_set1_epi32(steps & kFirstOrder ? -1 : 0));
    const auto second = reinterpret_cast<PairBits>(_mm_set1_epi32(steps & kSecondOrder ? -1 : 0));
    const Pair moved = location + velocity * age;
    return choose(second, moved + acceleration * (0.5 * age * age), choose(first, moved, location));
}

INLINE Pair firstTwo(const float *v)
{
    return _mm_cvtps_pd(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64 *>(v)));
}

INLINE Pair third(const float *v)
{
    return _mm_cvtps_pd(_mm_load_ss(v + 2));
}

// Without branches on the algorithm, which in a mixed list would not be predicted.
INLINE void moveStraight(vuEntity *e, const vuEntityState *s, double age, unsigned steps)
{
    const float *v = s->velocity, *a = s->deadReckoning.linearAcc;
    _mm_storeu_pd(e->position, advance(_mm_loadu_pd(s->location), firstTwo(v), firstTwo(a), age, steps));
    _mm_store_sd(e->position + 2, advance(_mm_load_sd(s->location + 2), third(v), third(a), age, steps));
}

INLINE void keepAttitude(vuEntity *e, const vuEntityState *s)
{
    std::memcpy(e->orientation, s->orientation, sizeof e->orientation);
}

// Rotating entities that take the same steps, waiting for each other: few enough to stay in the cache meanwhile. Every
// result is written once, with its final value, because other processes read them at any time.
constexpr size_t kBatch = 16;
constexpr size_t kBatchPairs = kBatch / 2;

struct Batch
{
    size_t count = 0;
    vuEntity *entity[kBatch];
    vuEntityState *state[kBatch];
    double age[kBatch];
};

INLINE void put(Batch &batch, size_t at, vuEntity *e, vuEntityState *s, double age)
{
    batch.entity[at] = e;
    batch.state[at] = s;
    batch.age[at] = age;
}

// The rotation since the report, about the angular velocity.
struct Spin
{
    Pair angle;
    Pair sine;
    Pair cosine;
    Pair perOmega; // 1 / omega
};

// Element i of a float array in the two records.
template<class Record, class Field>
INLINE Pair both(Record *const *records, Field field, int i)
{
    const __m128 a = _mm_load_ss(&(records[0]->*field)[i]), b = _mm_load_ss(&(records[1]->*field)[i]);
    return _mm_cvtps_pd(_mm_unpacklo_ps(a, b));
}

void placeInBody(const Batch &batch, size_t pairs, const Spin *spins)
{
    for (size_t p = 0; p < pairs; ++p)
    {
        vuEntity *const *e = &batch.entity[2 * p];
        vuEntityState *const *s = &batch.state[2 * p];
        const Spin &spin = spins[p];
        const Pair perOmega2 = spin.perOmega * spin.perOmega;
        const Pair s2 = roundToFloat(spin.sine * spin.perOmega);
        const Pair k2 = roundToFloat((spin.angle - spin.sine) * spin.perOmega * perOmega2);
        const Pair k3 = roundToFloat((1.0 - roundToFloat(spin.cosine)) * perOmega2);

        Pair b[3] = {};
#pragma GCC unroll 9
        for (int i = 0; i < 9; ++i)
        {
            const Pair outer = k2 * both(e, &vuEntity::omegaOuter, i);
            const Pair element = i % 4 == 0 ? s2 + outer : outer + k3 * both(e, &vuEntity::omegaSkew, i);
            const __m128 stored = _mm_cvtpd_ps(element);
            e[0]->drR1[i] = stored[0];
            e[1]->drR1[i] = stored[1];
            b[i % 3] += Pair(_mm_cvtps_pd(stored)) * both(s, &vuEntityState::velocity, i / 3);
        }
#pragma GCC unroll 3
        for (int j = 0; j < 3; ++j)
        {
            const Pair d = both(e, &vuEntity::drInverse, j) * b[0] + both(e, &vuEntity::drInverse, 3 + j) * b[1] +
                           both(e, &vuEntity::drInverse, 6 + j) * b[2];
            e[0]->position[j] = s[0]->location[j] + d[0];
            e[1]->position[j] = s[1]->location[j] + d[1];
        }
    }
}

// Those elements of the turned orientation matrices that the angles come from.
struct Turned
{
    Pair n0, n3, n6, n7, n8;
};

INLINE Turned turnMatrices(vuEntity *const *e, const Spin &spin)
{
    const Pair k1 = roundToFloat((1.0 - spin.cosine) * spin.perOmega * spin.perOmega);
    const Pair s1 = roundToFloat(spin.sine * spin.perOmega);
    const Pair c = roundToFloat(spin.cosine);
    Pair q[9], m[9];
#pragma GCC unroll 9
    for (int i = 0; i < 9; ++i)
    {
        const Pair outer = k1 * both(e, &vuEntity::omegaOuter, i);
        q[i] = i % 4 == 0 ? outer + c : outer - s1 * both(e, &vuEntity::omegaSkew, i);
        m[i] = both(e, &vuEntity::drMatrix, i);
    }
    return {q[0] * m[0] + q[1] * m[3] + q[2] * m[6], q[3] * m[0] + q[4] * m[3] + q[5] * m[6],
            q[6] * m[0] + q[7] * m[3] + q[8] * m[6], q[6] * m[1] + q[7] * m[4] + q[8] * m[7],
            q[6] * m[2] + q[7] * m[5] + q[8] * m[8]};
}

// In three passes: one pair's chain of roots, quotients and polynomials is too long for the processor to begin the next
// pair's before its end, that of one pass is not.
void turnAttitudes(const Batch &batch, size_t pairs, const Spin *spins)
{
    Turned turned[kBatchPairs];
    for (size_t p = 0; p < pairs; ++p)
    {
        turned[p] = turnMatrices(&batch.entity[2 * p], spins[p]);
    }

    Pair theta[kBatchPairs], level[kBatchPairs];
    for (size_t p = 0; p < pairs; ++p)
    {
        // level is the cosine of the stored angle, which differs from the angle by the rounding to float: d.
        const Pair n6 = turned[p].n6;
        const Pair c = squareRoot(1.0 - n6 * n6);
        const Pair angle = negateWhere(~bitsOf(n6), quadrantAngle(magnitude(n6), c));
        theta[p] = roundToFloat(angle);
        const Pair d = theta[p] - angle;
        level[p] = c * (1.0 - 0.5 * d * d) + n6 * d;
    }

    for (size_t p = 0; p < pairs; ++p)
    {
        const Turned &n = turned[p];
        const Pair psi = negateWhere(n.n3 < 0.0, arcCosine(n.n0 / level[p]));
        const Pair phi = negateWhere(n.n7 < 0.0, arcCosine(n.n8 / level[p]));
        for (size_t i = 0; i < 2; ++i)
        {
            vuEntity *e = batch.entity[2 * p + i];
            if (level[p][i] > kVerticalCosine)
            {
                e->orientation[0] = static_cast<float>(psi[i]);
                e->orientation[1] = static_cast<float>(theta[p][i]);
                e->orientation[2] = static_cast<float>(phi[i]);
            }
            else // or it is not a number
            {
                keepAttitude(e, batch.state[2 * p + i]);
            }
        }
    }
}

// Entities that turn too slowly go on straight, for good, and leave the batch.
INLINE void dropNegligible(Batch &batch)
{
    size_t kept = 0;
    for (size_t i = 0; i < batch.count; ++i)
    {
        vuEntity *e = batch.entity[i];
        vuEntityState *s = batch.state[i];
        if (e->omega > kNegligibleOmega)
        {
            put(batch, kept++, e, s, batch.age[i]);
        }
        else
        {
            s->deadReckoning.algorithm = VU_DR_FPW;
            moveStraight(e, s, batch.age[i], kFirstOrder);
            keepAttitude(e, s);
        }
    }
    batch.count = kept;
}

void finish(Batch &batch, unsigned steps)
{
    dropNegligible(batch);
    for (size_t i = 0; i < batch.count; ++i)
    {
        vuEntity *e = batch.entity[i];
        const vuEntityState *s = batch.state[i];
        if (!(steps & kBody))
        {
            moveStraight(e, s, batch.age[i], stepsOf(s->deadReckoning.algorithm));
        }
        if (!(steps & kAttitude))
        {
            keepAttitude(e, s);
        }
    }
    const size_t pairs = (batch.count + 1) / 2;
    if (batch.count % 2 != 0)
    {
        const size_t last = batch.count - 1; // is its own neighbour
        put(batch, batch.count, batch.entity[last], batch.state[last], batch.age[last]);
    }
    batch.count = 0;

    Spin spins[kBatchPairs];
    for (size_t p = 0; p < pairs; ++p)
    {
        const Pair omega = {batch.entity[2 * p]->omega, batch.entity[2 * p + 1]->omega};
        Spin &spin = spins[p];
        spin.angle = omega * Pair{batch.age[2 * p], batch.age[2 * p + 1]};
        spin.perOmega = 1.0 / omega;
        sineCosine(roundToFloat(spin.angle), spin.sine, spin.cosine);
    }
    if (steps & kBody)
    {
        placeInBody(batch, pairs, spins);
    }
    if (steps & kAttitude)
    {
        turnAttitudes(batch, pairs, spins);
    }
}

// A batch for each combination of kBody and kAttitude, at steps / kBody; the first is not used.
struct Batches
{
    Batch batch[kRotating / kBody + 1];
};

INLINE void extrapolate(vuEntity *e, vuEntityState *s, double now, Batches &batches)
{
    const double age = now - e->recvTime - e->timeOffset;
    const unsigned steps = stepsOf(s->deadReckoning.algorithm);
    if (!(steps & kRotating))
    {
        moveStraight(e, s, age, steps);
        keepAttitude(e, s);
    }
    else
    {
        fetchLine(e->drMatrix);
        fetchLine(e->drMatrix, kLine);
        fetchLine(e->drMatrix, 2 * kLine);
        fetchLine(&e->drR1[8]);
        fetchLine(&e->omega);
        Batch &batch = batches.batch[steps / kBody];
        put(batch, batch.count++, e, s, age);
        if (batch.count == kBatch)
        {
            finish(batch, steps);
        }
    }
}

void finishAll(Batches &batches)
{
    for (const unsigned steps : {kBody, kAttitude, kRotating})
    {
        finish(batches.batch[steps / kBody], steps);
    }
}

// Identity in one number; never 0, which marks a free place of the table below.
uint64_t keyOf(const vuEntityId &id)
{
    return uint64_t{1} << 48 | uint64_t{id.site} << 32 | uint32_t{id.application} << 16 | id.entity;
}

struct Arrival
{
    double now;
    double pastHour;
};

Arrival arrivalOf(const vuRootNode *root)
{
    const double now = clockOf(root);
    return {now, std::fmod(now, kSecondsPerHour)};
}

void takeOver(vuEntity *e, const vuEntityState *s, const Arrival &arrival)
{
    if (e->drState == nullptr)
    {
        return;
    }
    e->pduTime = disTimeSeconds(s->timestamp);
    e->recvTime = arrival.now;
    e->timeOffset = arrival.pastHour - e->pduTime;
    std::memmove(e->drState, s, sizeof *s); // an application may pass the record itself
    if (stepsOf(s->deadReckoning.algorithm) & kRotating)
    {
        disCalcDRMatrices(e, s);
    }
}

// The identities of a batch of reports and the entity of each, by open addressing with linear steps; at most half full.
struct Place
{
    uint64_t key;
    vuEntity *entity;
};

struct IdentityTable
{
    Place *places = nullptr;
    unsigned bits = 0;                                               // log2 of the number of places
    uint64_t factor[2] = {0x9E3779B97F4A7C15u, 0xD6E8FEB86659FD93u}; // odd
};

// Identities come from the network. Whoever chooses them to collide in a big table has to know these numbers, which the
// system draws for every process.
void drawFactors(IdentityTable &table)
{
    if (const auto *drawn = reinterpret_cast<const void *>(getauxval(AT_RANDOM)))
    {
        std::memcpy(table.factor, drawn, sizeof table.factor);
        table.factor[0] |= 1;
        table.factor[1] |= 1;
    }
}

INLINE Place *homeOf(const IdentityTable &table, uint64_t key)
{
    uint64_t mixed = key * table.factor[0];
    mixed = (mixed ^ mixed >> 32) * table.factor[1];
    return table.places + (mixed >> (64 - table.bits));
}

// The place of key, or the free one where it belongs.
INLINE Place *placeOf(const IdentityTable &table, uint64_t key)
{
    Place *place = homeOf(table, key);
    while (place->key != key && place->key != 0)
    {
        place = place + 1 == table.places + (size_t{1} << table.bits) ? table.places : place + 1;
    }
    return place;
}

size_t enterIdentities(IdentityTable &table, const vuEntityState *states, size_t count)
{
    size_t distinct = 0;
    for (size_t i = 0; i < count; ++i)
    {
        const uint64_t key = keyOf(states[i].entityId);
        Place *place = placeOf(table, key);
        distinct += place->key == 0;
        place->key = key;
    }
    return distinct;
}

// Give every identity of the table the first DIS-receiving entity that has it.
void findEntities(vuRootNode *root, IdentityTable &table, size_t missing)
{
    eachEntity(
        root,
        [](vuEntity *e)
        {
            fetchLine(&e->receive);
            fetchLine(&e->disId);
        },
        [&](vuEntity *e) { fetchLine(homeOf(table, keyOf(e->disId))); },
        [&](vuEntity *e)
        {
            if (receivesDis(e))
            {
                Place *place = placeOf(table, keyOf(e->disId));
                if (place->key != 0 && place->entity == nullptr)
                {
                    place->entity = e;
                    --missing;
                }
            }
            return missing > 0;
        });
}

// Reports are far from each other's entities in memory, so the entities are looked up some reports ahead.
void takeOverAll(const IdentityTable &table, const vuEntityState *states, size_t count, const Arrival &arrival)
{
    constexpr size_t kAhead = 8;
    vuEntity *ahead[kAhead] = {};
    for (size_t i = 0; i < count + kAhead; ++i)
    {
        vuEntity *&e = ahead[i % kAhead];
        if (e != nullptr)
        {
            takeOver(e, &states[i - kAhead], arrival);
        }
        e = i < count ? placeOf(table, keyOf(states[i].entityId))->entity : nullptr;
        if (e != nullptr)
        {
            fetchLine(&e->drState);
            fetchLine(&e->timeOffset);
            fetchLine(e->drMatrix, kLine);
            fetchLine(e->drMatrix, 2 * kLine);
            fetchLine(&e->omega);
        }
        if (const vuEntity *next = ahead[(i + kAhead / 2) % kAhead]; next != nullptr && next->drState != nullptr)
        {
            fetchLine(next->drState);
            fetchLine(next->drState, kLine);
            fetchLine(next->drState, sizeof(vuEntityState) - 1);
        }
    }
}

} // namespace

void disUpdateEntity(vuRootNode *root, const vuEntityState *state)
{
    const uint64_t key = keyOf(state->entityId);
    for (vunode *scene = root->scenes.first; scene != nullptr; scene = scene->next)
    {
        for (vunode *node = entitiesOf(scene).first; node != nullptr; node = node->next)
        {
            vuEntity *e = entityOf(node);
            if (receivesDis(e) && keyOf(e->disId) == key)
            {
                takeOver(e, state, arrivalOf(root));
                return;
            }
        }
    }
}

void disUpdateEntities(vuRootNode *root, const vuEntityState *states, size_t count)
{
    constexpr size_t kFew = 64;
    Place few[kFew];
    std::unique_ptr<Place, decltype(&std::free)> many(nullptr, &std::free);
    IdentityTable table;

    if (count > 1 && count < SIZE_MAX / 4)
    {
        table.bits = static_cast<unsigned>(std::bit_width(2 * count - 1));
        const size_t size = size_t{1} << table.bits;
        if (size <= kFew)
        {
            std::memset(few, 0, size * sizeof(Place));
            table.places = few;
        }
        else
        {
            many.reset(static_cast<Place *>(std::calloc(size, sizeof(Place))));
            table.places = many.get();
            drawFactors(table);
        }
    }
    if (table.places == nullptr)
    {
        for (size_t i = 0; i < count; ++i)
        {
            disUpdateEntity(root, &states[i]);
        }
        return;
    }
    findEntities(root, table, enterIdentities(table, states, count));
    takeOverAll(table, states, count, arrivalOf(root));
}

void updateEntityPositions(vuRootNode *root)
{
    Batches batches;
    const double now = clockOf(root);
    eachEntity(
        root,
        [](vuEntity *e)
        {
            fetchLine(&e->position[2]);
            fetchLine(&e->receive);
            fetchLine(&e->drState);
            fetchLine(&e->timeOffset);
        },
        [](vuEntity *e)
        {
            if (const vuEntityState *s = e->drState; s != nullptr)
            {
                fetchLine(s->velocity); // from there to the last of linearAcc are two or three lines
                fetchLine(s->velocity, kLine);
                fetchLine(&s->deadReckoning.linearAcc[2]);
            }
        },
        [&](vuEntity *e)
        {
            if (e->status == VU_STATUS_MOVING && (receivesDis(e) || e == root->ownEntity) && e->drState != nullptr)
            {
                extrapolate(e, e->drState, now, batches);
            }
            return true;
        });
    finishAll(batches);
}

void disDeadRecon(vuRootNode *root, vuEntity *entity, vuEntityState *state)
{
    Batches batches;
    extrapolate(entity, state, clockOf(root), batches);
    finishAll(batches);
}

void disCalcDRMatrices(vuEntity *entity, const vuEntityState *state)
{
    const float *angles = state->orientation;
    Pair sines[2], cosines[2];
    sineCosine(Pair{angles[0], angles[1]}, sines[0], cosines[0]);
    sineCosine(Pair{angles[2], angles[2]}, sines[1], cosines[1]);
    for (int i = 0; i < 2; ++i)
    {
        sines[i] = roundToFloat(sines[i]);
        cosines[i] = roundToFloat(cosines[i]);
    }
    const double sPsi = sines[0][0], sTheta = sines[0][1], sPhi = sines[1][0];
    const double cPsi = cosines[0][0], cTheta = cosines[0][1], cPhi = cosines[1][0];
    const double matrix[9] = {cTheta * cPsi,
                              sPhi * sTheta * cPsi - cPhi * sPsi,
                              sTheta * cPhi * cPsi + sPhi * sPsi,
                              cTheta * sPsi,
                              sPhi * sTheta * sPsi + cPhi * cPsi,
                              sPsi * sTheta * cPhi - cPsi * sPhi,
                              -sTheta,
                              sPhi * cTheta,
                              cTheta * cPhi};
    const float *w = state->deadReckoning.angularVel;
    const double x = w[0], y = w[1], z = w[2];
    for (int i = 0; i < 9; ++i)
    {
        entity->drMatrix[i] = static_cast<float>(matrix[i]);
        entity->omegaOuter[i] = w[i % 3] * w[i / 3];
    }
    entity->omega = std::sqrt(x * x + y * y + z * z);
    entity->omegaSkew[1] = w[2];
    entity->omegaSkew[2] = -w[1];
    entity->omegaSkew[3] = -w[2];
    entity->omegaSkew[5] = w[0];
    entity->omegaSkew[6] = w[1];
    entity->omegaSkew[7] = -w[0];
    if (stepsOf(state->deadReckoning.algorithm) & kBody)
    {
        disMatrixInverse(entity->drInverse, entity->drMatrix);
    }
}

vuEntity *entityFindDIS(vuScene *scene, const vuEntityId *id)
{
    const uint64_t key = keyOf(*id);
    for (vunode *node = scene->entities.first; node != nullptr; node = node->next)
    {
        if (keyOf(entityOf(node)->disId) == key)
        {
            return entityOf(node);
        }
    }
    return nullptr;
}

uint16_t disGetNewEntityId(vuScene *scene)
{
    std::bitset<65536> used;
    for (vunode *node = scene->entities.first; node != nullptr; node = node->next)
    {
        const vuEntityId &id = entityOf(node)->disId;
        if (id.site == scene->disSite && id.application == scene->disApplication)
        {
            used.set(id.entity);
        }
    }
    uint16_t number = scene->disNextEntity;
    if (!used.all())
    {
        while (used[number])
        {
            ++number;
        }
    }
    scene->disNextEntity = static_cast<uint16_t>(number + 1);
    return number;
}

void disChangeStatus(uint16_t *statusPair, uint16_t status)
{
    if (statusPair != nullptr)
    {
        statusPair[1] = statusPair[0];
        statusPair[0] = status;
    }
}
