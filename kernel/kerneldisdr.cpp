#include "kerneldisdr.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>
#include <sys/auxv.h>

#define INLINE [[gnu::always_inline]] inline

namespace
{

constexpr double kPi = 3.14159265358979323846;
constexpr double kSecondsPerHour = 3600.0;
constexpr double kNegligibleOmega = 0.00001; // rad/s
constexpr double kVerticalCosine = 0.000001; // cosine of the pitch up to which there is no heading

vuEntity *entityOf(vunode *node)
{
    return reinterpret_cast<vuEntity *>(node);
}

vulist &entitiesOf(vunode *scene)
{
    return reinterpret_cast<vuScene *>(scene)->entities;
}

double clockOf(const vuRootNode *root)
{
    return root->time.sim.sec + root->time.sim.usec / 1000000.0;
}

// ---- Two entities side by side

// Rotations are computed for two entities at once, one in each lane, without branches. Each lane goes through the same
// IEEE operations whatever stands in the other one, so an entity's results do not depend on its neighbour.
using Pair = double __attribute__((vector_size(16)));
using PairBits = int64_t __attribute__((vector_size(16)));

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

// Estrin's scheme: about the operations of Horner's, in a third of its latency.
Pair polynomial(Pair x, const double (&c)[6])
{
    const Pair x2 = x * x;
    return (c[0] + c[1] * x) + x2 * ((c[2] + c[3] * x) + x2 * (c[4] + c[5] * x));
}

Pair polynomial(Pair x, const double (&c)[10])
{
    const Pair x2 = x * x, x4 = x2 * x2;
    const Pair low = (c[0] + c[1] * x) + x2 * (c[2] + c[3] * x);
    const Pair high = (c[4] + c[5] * x) + x2 * (c[6] + c[7] * x);
    return low + x4 * (high + x4 * (c[8] + c[9] * x));
}

constexpr double kSine[] = {-0.16666666666666666,   0.008333333333330943,    -0.0001984126983674956,
                            2.755731609787775e-06, -2.5051130870968297e-08, 1.591805913698281e-10};
constexpr double kCosine[] = {0.041666666666666664,    -0.0013888888888887393, 2.4801587298760048e-05,
                              -2.755731726880539e-07, 2.0876145659059344e-09, -1.1382588535352522e-11};
constexpr double kArcSine[] = {0.16666666666666655,  0.075000000000171,    0.04464285710445364,  0.030381947779903183,
                               0.022372012509623364, 0.017356446193822463, 0.013908959824591177, 0.012070300491340377,
                               0.006924569126700292, 0.016468645712014278};

constexpr double kLargestReduced = 1048576;
constexpr double kHalfPiHigh = 0x1.921fb544p+0;
constexpr double kHalfPiLow = 6.077100506506192e-11;

INLINE void sineCosine(Pair x, Pair &sine, Pair &cosine)
{
    constexpr double kShift = 0x1.8p52;
    const Pair shifted = x * (2 / kPi) + kShift;
    const PairBits quadrant = bitsOf(shifted);
    const Pair n = shifted - kShift;
    const Pair r = (x - n * kHalfPiHigh) - n * kHalfPiLow;
    const Pair v = r * r;
    const Pair s = r + r * v * polynomial(v, kSine);
    const Pair c = 1.0 - (v * 0.5 - v * v * polynomial(v, kCosine));
    const PairBits swap = -(quadrant & 1);
    sine = negateWhere(quadrant << 62, choose(swap, c, s));
    cosine = negateWhere((quadrant + 1) << 62, choose(swap, s, c));
    for (int i = 0; i < 2; ++i)
    {
        if (__builtin_expect(!(std::fabs(x[i]) <= kLargestReduced), 0))
        {
            sine[i] = std::sin(x[i]);
            cosine[i] = std::cos(x[i]);
        }
    }
}

INLINE Pair quadrantAngle(Pair sine, Pair cosine)
{
    const Pair low = sine < cosine ? sine : cosine;
    const Pair high = sine > cosine ? sine : cosine;
    const PairBits shift = low > 0.38268343236508977;
    const Pair z = choose(shift, (low - high) * 0.70710678118654752, low);
    const Pair v = z * z;
    const Pair angle = pairOf(bitsOf(spread(kPi / 4)) & shift) + (z + z * v * polynomial(v, kArcSine));
    return sine > cosine ? kPi / 2 - angle : angle;
}

INLINE Pair arcCosine(Pair x)
{
    x = 1.0 < x ? spread(1.0) : x;
    x = -1.0 > x ? spread(-1.0) : x;
    const Pair angle = quadrantAngle(squareRoot(1.0 - x * x), magnitude(x));
    return x < 0.0 ? kPi - angle : angle;
}

// ---- Steps

enum Step : uint8_t
{
    kFirstOrder = 1,
    kSecondOrder = 2,
    kBody = 4,
    kAttitude = 8
};
constexpr unsigned kRotating = kBody | kAttitude;
constexpr uint8_t kSteps[] = {0,
                              0,
                              kFirstOrder,
                              kFirstOrder | kAttitude,
                              kFirstOrder | kSecondOrder | kAttitude,
                              kFirstOrder | kSecondOrder,
                              kBody,
                              kBody | kAttitude,
                              kBody | kAttitude,
                              kBody};

unsigned stepsOf(uint8_t algorithm)
{
    return algorithm < sizeof kSteps ? kSteps[algorithm] : 0;
}

constexpr int kBatch = 32;
constexpr int kBatchPairs = kBatch / 2;

struct Batch
{
    int count = 0;
    vuEntity *entity[kBatch];
    vuEntityState *state[kBatch];
    double age[kBatch];
    void add(vuEntity *e, vuEntityState *s, double a)
    {
        entity[count] = e;
        state[count] = s;
        age[count] = a;
        ++count;
    }
};

template <class Record, class Field>
INLINE Pair column(Record *const *records, Field field, int i)
{
    return _mm_cvtps_pd(_mm_unpacklo_ps(_mm_load_ss(&(records[0]->*field)[i]), _mm_load_ss(&(records[1]->*field)[i])));
}

struct Spin
{
    Pair angle;
    Pair sine;
    Pair cosine;
    Pair inverse;
};

void turnAttitudes(const Batch &batch, int pairs, const Spin *spins)
{
    Pair n0[kBatchPairs], n3[kBatchPairs], n6[kBatchPairs], n7[kBatchPairs], n8[kBatchPairs];
    for (int p = 0; p < pairs; ++p)
    {
        const Spin &spin = spins[p];
        const Pair k1 = roundToFloat((1.0 - spin.cosine) * spin.inverse * spin.inverse);
        const Pair s1 = roundToFloat(spin.sine * spin.inverse);
        const Pair c = roundToFloat(spin.cosine);
        vuEntity *const *e = batch.entity + p * 2;
        const auto q = [&](int i) __attribute__((always_inline))
        {
            const Pair outer = k1 * column(e, &vuEntity::omegaOuter, i);
            return i % 4 == 0 ? outer + c : outer - s1 * column(e, &vuEntity::omegaSkew, i);
        };
        const auto m = [&](int i) __attribute__((always_inline)) { return column(e, &vuEntity::drMatrix, i); };
        const Pair m0 = m(0), m3 = m(3), m6 = m(6);
        n0[p] = q(0) * m0 + q(1) * m3 + q(2) * m6;
        n3[p] = q(3) * m0 + q(4) * m3 + q(5) * m6;
        const Pair q6 = q(6), q7 = q(7), q8 = q(8);
        n6[p] = q6 * m0 + q7 * m3 + q8 * m6;
        n7[p] = q6 * m(1) + q7 * m(4) + q8 * m(7);
        n8[p] = q6 * m(2) + q7 * m(5) + q8 * m(8);
    }
    Pair level[kBatchPairs], pitch[kBatchPairs];
    for (int p = 0; p < pairs; ++p)
    {
        const Pair c = squareRoot(1.0 - n6[p] * n6[p]);
        const Pair theta = negateWhere(~bitsOf(n6[p]), quadrantAngle(magnitude(n6[p]), c));
        pitch[p] = roundToFloat(theta);
        const Pair d = pitch[p] - theta;
        level[p] = c * (1.0 - d * d * 0.5) + n6[p] * d;
    }
    for (int p = 0; p < pairs; ++p)
    {
        const Pair psi = negateWhere(n3[p] < 0.0, arcCosine(n0[p] / level[p]));
        const Pair phi = negateWhere(n7[p] < 0.0, arcCosine(n8[p] / level[p]));
        for (int i = 0; i < 2; ++i)
        {
            if (level[p][i] > kVerticalCosine)
            {
                float *o = batch.entity[p * 2 + i]->orientation;
                o[0] = psi[i];
                o[1] = pitch[p][i];
                o[2] = phi[i];
            }
        }
    }
}

void bodyPositions(const Batch &batch, int pairs, const Spin *spins)
{
    for (int p = 0; p < pairs; ++p)
    {
        const Spin &spin = spins[p];
        const Pair s2 = roundToFloat(spin.sine * spin.inverse);
        const Pair k2 = roundToFloat((spin.angle - spin.sine) * spin.inverse * spin.inverse * spin.inverse);
        const Pair k3 = roundToFloat((1.0 - roundToFloat(spin.cosine)) * spin.inverse * spin.inverse);
        vuEntity *const *e = batch.entity + p * 2;
        vuEntityState *const *s = batch.state + p * 2;
        Pair b[3] = {};
#pragma GCC unroll 3
        for (int row = 0; row < 3; ++row)
        {
            const Pair v = column(s, &vuEntityState::velocity, row);
#pragma GCC unroll 3
            for (int j = 0; j < 3; ++j)
            {
                const int i = 3 * row + j;
                const Pair outer = k2 * column(e, &vuEntity::omegaOuter, i);
                const __m128 r = _mm_cvtpd_ps(row == j ? s2 + outer : outer + k3 * column(e, &vuEntity::omegaSkew, i));
                b[j] = row == 0 ? _mm_cvtps_pd(r) * v : b[j] + _mm_cvtps_pd(r) * v;
                e[0]->drR1[i] = r[0];
                e[1]->drR1[i] = r[1];
            }
        }
#pragma GCC unroll 3
        for (int j = 0; j < 3; ++j)
        {
            const Pair d = column(e, &vuEntity::drInverse, j) * b[0] + column(e, &vuEntity::drInverse, j + 3) * b[1] +
                           column(e, &vuEntity::drInverse, j + 6) * b[2];
            e[0]->position[j] = s[0]->location[j] + d[0];
            e[1]->position[j] = s[1]->location[j] + d[1];
        }
    }
}

void turn(Batch &batch, unsigned steps)
{
    if (batch.count % 2 != 0)
    {
        batch.add(batch.entity[batch.count - 1], batch.state[batch.count - 1], batch.age[batch.count - 1]);
    }
    const int pairs = batch.count / 2;
    Spin spins[kBatchPairs];
    for (int p = 0; p < pairs; ++p)
    {
        const Pair w = {batch.entity[p * 2]->omega, batch.entity[p * 2 + 1]->omega};
        Spin &spin = spins[p];
        spin.angle = w * Pair{batch.age[p * 2], batch.age[p * 2 + 1]};
        sineCosine(roundToFloat(spin.angle), spin.sine, spin.cosine);
        spin.inverse = 1.0 / w;
    }
    if (steps & kBody)
    {
        bodyPositions(batch, pairs, spins);
    }
    if (steps & kAttitude)
    {
        turnAttitudes(batch, pairs, spins);
    }
    batch.count = 0;
}

INLINE Pair along(Pair p0, Pair v, Pair a, double age, PairBits first, PairBits second)
{
    const Pair p1 = p0 + v * age;
    const Pair p2 = p1 + a * (0.5 * age * age);
    return choose(second, p2, choose(first, p1, p0));
}
INLINE Pair load2(const float *f)
{
    return _mm_cvtps_pd(_mm_loadl_pi(__m128{}, (const __m64 *)f));
}
INLINE Pair load1(const float *f)
{
    return _mm_cvtps_pd(_mm_load_ss(f));
}

INLINE void worldPosition(vuEntity *e, const vuEntityState *s, double age, unsigned steps)
{
    const PairBits first = (PairBits)_mm_set1_epi32(-(int)(steps & kFirstOrder));
    const PairBits second = (PairBits)_mm_set1_epi32(-(int)((steps & kSecondOrder) >> 1));
    _mm_storeu_pd(e->position, along(_mm_loadu_pd(s->location), load2(s->velocity), load2(s->deadReckoning.linearAcc),
                                     age, first, second));
    _mm_store_sd(e->position + 2, along(_mm_load_sd(s->location + 2), load1(s->velocity + 2),
                                        load1(s->deadReckoning.linearAcc + 2), age, first, second));
    std::memcpy(e->orientation, s->orientation, sizeof e->orientation);
}

INLINE void extrapolate(vuEntity *e, vuEntityState *s, double now, Batch *batches)
{
    const double age = now - e->recvTime - e->timeOffset;
    unsigned steps = stepsOf(s->deadReckoning.algorithm);
    if (steps & kRotating)
    {
        if (!(e->omega > kNegligibleOmega))
        {
            s->deadReckoning.algorithm = VU_DR_FPW;
            steps = kFirstOrder;
        }
        else
        {
            Batch &b = batches[(steps >> 2) - 1];
            b.add(e, s, age);
        }
    }
    worldPosition(e, s, age, steps);
    if (steps & kRotating)
    {
        Batch &b = batches[(steps >> 2) - 1];
        if (b.count == kBatch)
            turn(b, steps);
    }
}

#ifndef BLOCK
#define BLOCK 8
#define STRIDE 0
#endif
constexpr int kBlock = BLOCK;

struct Cursor
{
    vunode *scene;
    vunode *node;
};

template <class Fetch>
INLINE int collect(Cursor &cursor, vuEntity **block, Fetch fetch)
{
    vunode *node = cursor.node;
    int count = 0;
    while (count < kBlock)
    {
        while (node == nullptr)
        {
            if (cursor.scene == nullptr)
            {
                cursor.node = nullptr;
                return count;
            }
            node = entitiesOf(cursor.scene).first;
            cursor.scene = cursor.scene->next;
        }
        block[count++] = entityOf(node);
        fetch(entityOf(node));
        vunode *next = node->next;
        if (STRIDE)
            __builtin_prefetch((char *)next + STRIDE * ((char *)next - (char *)node));
        node = next;
    }
    cursor.node = node;
    return count;
}

template <class Fetch, class Follow, class Visit>
INLINE void eachEntity(vuRootNode *root, Fetch fetch, Follow follow, Visit visit)
{
    vuEntity *blocks[3][kBlock];
    vuEntity **fresh = blocks[0], **near = blocks[1], **due = blocks[2];
    Cursor cursor = {root->scenes.first, nullptr};
    int freshCount, nearCount = 0, dueCount = 0;
    do
    {
        freshCount = collect(cursor, fresh, fetch);
        for (int i = 0; i < nearCount; ++i)
        {
            follow(near[i]);
        }
        for (int i = 0; i < dueCount; ++i)
        {
            visit(due[i]);
        }
        vuEntity **done = due;
        due = near;
        near = fresh;
        fresh = done;
        dueCount = nearCount;
        nearCount = freshCount;
    } while (nearCount + dueCount > 0);
}

} // namespace

void updateEntityPositions(vuRootNode *root)
{
    Batch batches[3];
    const double now = clockOf(root);
    eachEntity(
        root,
        [](vuEntity *e)
        {
            __builtin_prefetch(&e->position[2]);
            __builtin_prefetch(&e->receive);
            __builtin_prefetch(&e->drState);
            __builtin_prefetch(&e->timeOffset);
        },
        [](vuEntity *e)
        {
            vuEntityState *s = e->drState;
            __builtin_prefetch(&s->velocity);
            __builtin_prefetch(&s->deadReckoning);
            __builtin_prefetch((char*)&s->deadReckoning+39);
        },
        [&](vuEntity *e)
        {
            if (e->status == VU_STATUS_MOVING && ((e->receive & VU_RECEIVE_DIS) != 0 || e == root->ownEntity) &&
                e->drState != nullptr)
            {
                extrapolate(e, e->drState, now, batches);
            }
        });
    for (int i = 0; i < 3; ++i)
        turn(batches[i], (i + 1) << 2);
}

void disDeadRecon(vuRootNode *root, vuEntity *entity, vuEntityState *state)
{
    Batch batches[3];
    extrapolate(entity, state, clockOf(root), batches);
    for (int i = 0; i < 3; ++i)
        turn(batches[i], (i + 1) << 2);
}
