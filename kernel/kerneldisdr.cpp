#include "kerneldisdr.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>

namespace
{

// Two entities are extrapolated side by side, one in each lane, without branches. Each lane goes through the same IEEE
// operations whatever stands in the other one.
using Pair = double __attribute__((vector_size(16)));
using PairBits = int64_t __attribute__((vector_size(16)));

constexpr double kPi = 3.14159265358979323846;
constexpr double kSecondsPerHour = 3600.0;
constexpr double kNegligibleOmega = 0.00001;
constexpr double kVerticalCosine = 0.000001;

enum Step : uint8_t
{
    kFirstOrder = 1,
    kSecondOrder = 2,
    kBody = 4,
    kAttitude = 8
};

unsigned stepsOf(uint8_t algorithm)
{
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
    return algorithm < sizeof kSteps ? kSteps[algorithm] : 0;
}

inline Pair spread(double x)
{
    return Pair{x, x};
}

inline Pair select(PairBits mask, Pair a, Pair b)
{
    return (Pair)((mask & (PairBits)a) | (~mask & (PairBits)b));
}

inline Pair magnitude(Pair x)
{
    return (Pair)((PairBits)x & INT64_MAX);
}

inline Pair negatedWhere(PairBits mask, Pair x)
{
    return (Pair)((PairBits)x ^ (mask & INT64_MIN));
}

inline Pair squareRoot(Pair x)
{
    return _mm_sqrt_pd(x);
}

inline Pair roundedToFloat(Pair x)
{
    return _mm_cvtps_pd(_mm_cvtpd_ps(x));
}

template <int N>
__attribute__((always_inline)) inline Pair estrin(Pair x, const Pair (&c)[N])
{
    if constexpr (N == 1)
    {
        return c[0];
    }
    else
    {
        Pair half[(N + 1) / 2];
#pragma GCC unroll 16
        for (int i = 0; i < N / 2; ++i)
        {
            half[i] = c[2 * i] + c[2 * i + 1] * x;
        }
        if constexpr (N % 2 != 0)
        {
            half[N / 2] = c[N - 1];
        }
        return estrin(x * x, half);
    }
}
template <int N>
__attribute__((always_inline)) inline Pair polynomial(Pair x, const double (&coefficients)[N])
{
    Pair c[N];
#pragma GCC unroll 16
    for (int i = 0; i < N; ++i)
    {
        c[i] = spread(coefficients[i]);
    }
    return estrin(x, c);
}

constexpr double kSine[] = {-0.16666666666666666,   0.008333333333330943,    -0.0001984126983674956,
                            2.755731609787775e-06, -2.5051130870968297e-08, 1.591805913698281e-10};
constexpr double kCosine[] = {0.041666666666666664,    -0.0013888888888887393, 2.4801587298760048e-05,
                              -2.755731726880539e-07, 2.0876145659059344e-09, -1.1382588535352522e-11};
constexpr double kArcSine[] = {0.16666666666666655,  0.075000000000171,    0.04464285710445364,  0.030381947779903183,
                               0.022372012509623364, 0.017356446193822463, 0.013908959824591177, 0.012070300491340377,
                               0.006924569126700292, 0.016468645712014278};

__attribute__((noinline, cold)) void sineCosineFar(Pair x, Pair &sine, Pair &cosine)
{
    for (int i = 0; i < 2; ++i)
    {
        sine[i] = std::sin(x[i]);
        cosine[i] = std::cos(x[i]);
    }
}

constexpr double kLargestReduced = 1048576;
constexpr double kHalfPiHigh = 0x1.921fb544p+0;
constexpr double kHalfPiLow = 6.077100506506192e-11;

inline bool any(PairBits mask)
{
    return _mm_movemask_pd((__m128d)mask) != 0;
}

inline void sineCosine(Pair x, Pair &sine, Pair &cosine)
{
    constexpr double kShift = 0x1.8p52;
    const Pair shifted = x * (2 / kPi) + kShift;
    const PairBits quadrant = (PairBits)shifted;
    const Pair n = shifted - kShift;
    const Pair r = (x - n * kHalfPiHigh) - n * kHalfPiLow;
    const Pair v = r * r;
    const Pair s = r + r * v * polynomial(v, kSine);
    const Pair c = 1.0 - (v * 0.5 - v * v * polynomial(v, kCosine));
    const PairBits swap = -(quadrant & 1);
    sine = negatedWhere(quadrant << 62, select(swap, c, s));
    cosine = negatedWhere((quadrant + 1) << 62, select(swap, s, c));
    const PairBits near = magnitude(x) <= kLargestReduced;
    if (__builtin_expect(any(~near), 0))
    {
        Pair fs, fc;
        sineCosineFar(x, fs, fc);
        sine = select(near, sine, fs);
        cosine = select(near, cosine, fc);
    }
}

inline Pair quadrantAngle(Pair sine, Pair cosine)
{
    const PairBits steep = sine > cosine;
    const Pair low = select(steep, cosine, sine), high = select(steep, sine, cosine);
    const PairBits shift = low > 0.38268343236508977;
    const Pair z = select(shift, (low - high) * 0.70710678118654752, low);
    const Pair v = z * z;
    const Pair angle = (Pair)((PairBits)spread(kPi / 4) & shift) + (z + z * v * polynomial(v, kArcSine));
    return select(steep, kPi / 2 - angle, angle);
}

inline Pair arcCosine(Pair x)
{
    x = select(x > 1.0, spread(1), x);
    x = select(x < -1.0, spread(-1), x);
    const Pair angle = quadrantAngle(squareRoot(1.0 - x * x), magnitude(x));
    return select(x < 0.0, kPi - angle, angle);
}

struct FloatPairs
{
    const float *a;
    const float *b;

    Pair operator[](int i) const
    {
        return _mm_cvtps_pd(_mm_unpacklo_ps(_mm_load_ss(a + i), _mm_load_ss(b + i)));
    }
};

constexpr int kBatch = 32;
constexpr int kPairs = kBatch / 2;

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
    int pairs()
    {
        if (count % 2 != 0)
        {
            add(entity[count - 1], state[count - 1], age[count - 1]);
        }
        return count / 2;
    }
};

void turnAttitude(Batch &batch)
{
    const int pairs = batch.pairs();
    Pair k1s[kPairs], s1s[kPairs], cs[kPairs];
    Pair n[5][kPairs];
    Pair ths[kPairs], cts[kPairs];
    for (int p = 0; p < pairs; ++p)
    {
        const Pair w = {batch.entity[2 * p]->omega, batch.entity[2 * p + 1]->omega};
        const Pair wt = roundedToFloat(w * Pair{batch.age[2 * p], batch.age[2 * p + 1]});
        Pair sine, cosine;
        sineCosine(wt, sine, cosine);
        k1s[p] = roundedToFloat((1.0 - cosine) / (w * w));
        s1s[p] = roundedToFloat(sine / w);
        cs[p] = roundedToFloat(cosine);
    }
    for (int p = 0; p < pairs; ++p)
    {
        vuEntity &e = *batch.entity[2 * p], &f = *batch.entity[2 * p + 1];
        const FloatPairs outer{e.omegaOuter, f.omegaOuter}, skew{e.omegaSkew, f.omegaSkew}, m{e.drMatrix, f.drMatrix};
        const Pair k1 = k1s[p], s1 = s1s[p], c = cs[p];
        const auto q = [&](int i) { return i % 4 == 0 ? k1 * outer[i] + c : k1 * outer[i] - s1 * skew[i]; };
        const Pair m0 = m[0], m3 = m[3], m6 = m[6];
        n[0][p] = q(0) * m0 + q(1) * m3 + q(2) * m6;
        n[1][p] = q(3) * m0 + q(4) * m3 + q(5) * m6;
        const Pair q6 = q(6), q7 = q(7), q8 = q(8);
        n[2][p] = q6 * m0 + q7 * m3 + q8 * m6;
        n[3][p] = q6 * m[1] + q7 * m[4] + q8 * m[7];
        n[4][p] = q6 * m[2] + q7 * m[5] + q8 * m[8];
    }
    for (int p = 0; p < pairs; ++p)
    {
        const Pair n6 = n[2][p];
        const Pair level = squareRoot(1.0 - n6 * n6);
        const Pair theta = negatedWhere(~(PairBits)n6, quadrantAngle(magnitude(n6), level));
        const Pair stored = roundedToFloat(theta);
        const Pair d = stored - theta;
        ths[p] = stored;
        cts[p] = level * (1.0 - d * d * 0.5) + n6 * d;
    }
    for (int p = 0; p < pairs; ++p)
    {
        vuEntity &e = *batch.entity[2 * p], &f = *batch.entity[2 * p + 1];
        const Pair ct = cts[p], stored = ths[p];
        const Pair psi = negatedWhere(n[1][p] < 0.0, arcCosine(n[0][p] / ct));
        const Pair phi = negatedWhere(n[3][p] < 0.0, arcCosine(n[4][p] / ct));
        if (ct[0] > kVerticalCosine)
        {
            e.orientation[0] = psi[0];
            e.orientation[1] = stored[0];
            e.orientation[2] = phi[0];
        }
        if (ct[1] > kVerticalCosine)
        {
            f.orientation[0] = psi[1];
            f.orientation[1] = stored[1];
            f.orientation[2] = phi[1];
        }
    }
    batch.count = 0;
}

void turnPosition(Batch &batch)
{
    const int pairs = batch.pairs();
    Pair s2s[kPairs], k2s[kPairs], k3s[kPairs];
    for (int p = 0; p < pairs; ++p)
    {
        const Pair w = {batch.entity[2 * p]->omega, batch.entity[2 * p + 1]->omega};
        const Pair unrounded = w * Pair{batch.age[2 * p], batch.age[2 * p + 1]};
        Pair sine, cosine;
        sineCosine(roundedToFloat(unrounded), sine, cosine);
        const Pair c = roundedToFloat(cosine);
        s2s[p] = roundedToFloat(sine / w);
        k2s[p] = roundedToFloat((unrounded - sine) / (w * w * w));
        k3s[p] = roundedToFloat((1.0 - c) / (w * w));
    }
    for (int p = 0; p < pairs; ++p)
    {
        vuEntity &e = *batch.entity[2 * p], &f = *batch.entity[2 * p + 1];
        const vuEntityState &s = *batch.state[2 * p], &u = *batch.state[2 * p + 1];
        const FloatPairs outer{e.omegaOuter, f.omegaOuter}, skew{e.omegaSkew, f.omegaSkew},
            inverse{e.drInverse, f.drInverse}, velocity{s.velocity, u.velocity};
        const Pair s2 = s2s[p], k2 = k2s[p], k3 = k3s[p];
        Pair r1[9];
        for (int i = 0; i < 9; ++i)
        {
            const __m128 r = _mm_cvtpd_ps(i % 4 == 0 ? s2 + k2 * outer[i] : k2 * outer[i] + k3 * skew[i]);
            r1[i] = _mm_cvtps_pd(r);
            e.drR1[i] = r[0];
            f.drR1[i] = r[1];
        }
        const Pair v0 = velocity[0], v1 = velocity[1], v2 = velocity[2];
        Pair b[3];
        for (int j = 0; j < 3; ++j)
        {
            b[j] = r1[j] * v0 + r1[j + 3] * v1 + r1[j + 6] * v2;
        }
        for (int j = 0; j < 3; ++j)
        {
            const Pair p = Pair{s.location[j], u.location[j]} +
                           (inverse[j] * b[0] + inverse[j + 3] * b[1] + inverse[j + 6] * b[2]);
            e.position[j] = p[0];
            f.position[j] = p[1];
        }
    }
    batch.count = 0;
}

inline void worldPosition(vuEntity *e, const vuEntityState *s, double age, unsigned steps)
{
    for (int j = 0; j < 3; ++j)
    {
        const double p0 = s->location[j];
        const double p1 = p0 + s->velocity[j] * age;
        const double p2 = p1 + 0.5 * s->deadReckoning.linearAcc[j] * age * age;
        e->position[j] = steps & kSecondOrder ? p2 : steps & kFirstOrder ? p1 : p0;
    }
    for (int j = 0; j < 3; ++j)
    {
        e->orientation[j] = s->orientation[j];
    }
}

inline double clockOf(const vuRootNode *root)
{
    return root->time.sim.sec + root->time.sim.usec / 1000000.0;
}

inline void extrapolate(vuEntity *e, vuEntityState *s, double now, Batch &attitude, Batch &body)
{
    const double age = now - e->recvTime - e->timeOffset;
    unsigned steps = stepsOf(s->deadReckoning.algorithm);
    if (steps & (kBody | kAttitude))
    {
        if (!(e->omega > kNegligibleOmega))
        {
            s->deadReckoning.algorithm = VU_DR_FPW;
            steps = kFirstOrder;
        }
    }
    worldPosition(e, s, age, steps);
    if (steps & kAttitude)
    {
        attitude.add(e, s, age);
    }
    if (steps & kBody)
    {
        body.add(e, s, age);
    }
    if (attitude.count == kBatch)
    {
        turnAttitude(attitude);
    }
    if (body.count == kBatch)
    {
        turnPosition(body);
    }
}

} // namespace

void updateEntityPositions(vuRootNode *root)
{
    Batch attitude, body;
    const double now = clockOf(root);
    for (vunode *scene = root->scenes.first; scene != nullptr; scene = scene->next)
    {
        for (vunode *node = reinterpret_cast<vuScene *>(scene)->entities.first; node != nullptr; node = node->next)
        {
            vuEntity *e = reinterpret_cast<vuEntity *>(node);
            if (e->status == VU_STATUS_MOVING && ((e->receive & VU_RECEIVE_DIS) != 0 || e == root->ownEntity) &&
                e->drState != nullptr)
            {
                extrapolate(e, e->drState, now, attitude, body);
            }
        }
    }
    turnAttitude(attitude);
    turnPosition(body);
}

void disDeadRecon(vuRootNode *root, vuEntity *entity, vuEntityState *state)
{
    Batch attitude, body;
    extrapolate(entity, state, clockOf(root), attitude, body);
    turnAttitude(attitude);
    turnPosition(body);
}
