// Dead reckoning written down formula by formula, one call of the C library for every sine, cosine and arc: what the
// tests compare the kernel's results with and the benchmark its speed.
#pragma once

#include <cmath>
#include <cstring>
#include <tolvin/kernel/kerneldisdr.h>

namespace plain
{

inline double now(const vuRootNode *root)
{
    return root->time.sim.sec + root->time.sim.usec / 1000000.0;
}

inline float arcCosine(double x)
{
    x = x > 1 ? 1 : x < -1 ? -1 : x;
    return static_cast<float>(std::atan2(std::sqrt(1 - x * x), x));
}

// Whether the turned matrix n has angles.
inline bool anglesOf(const double *n, float *angles)
{
    angles[1] = static_cast<float>(-std::atan2(n[6], std::sqrt(1 - n[6] * n[6])));
    const double c = std::cos(double{angles[1]});
    angles[0] = (n[3] < 0 ? -1.0F : 1.0F) * arcCosine(n[0] / c);
    angles[2] = (n[7] < 0 ? -1.0F : 1.0F) * arcCosine(n[8] / c);
    return c > 0.000001;
}

// Turns drMatrix into n, and sets drR1 for the body algorithms.
inline void turn(vuEntity *e, double dt, bool body, double *n)
{
    const double w = e->omega, wt = static_cast<float>(w * dt), sine = std::sin(wt), cosine = std::cos(wt);
    const double c = static_cast<float>(cosine), s1 = static_cast<float>(sine / w);
    const double k1 = static_cast<float>((1 - cosine) / (w * w));
    const double k2 = static_cast<float>((w * dt - sine) / (w * w * w)), k3 = static_cast<float>((1 - c) / (w * w));
    double q[9];
    for (int i = 0; i < 9; ++i)
    {
        const double outer = e->omegaOuter[i], skew = e->omegaSkew[i];
        q[i] = i % 4 == 0 ? k1 * outer + c : k1 * outer - s1 * skew;
        if (body)
        {
            e->drR1[i] = static_cast<float>(i % 4 == 0 ? s1 + k2 * outer : k2 * outer + k3 * skew);
        }
    }
    for (int i = 0; i < 9; ++i)
    {
        const double *row = q + i / 3 * 3;
        const float *column = e->drMatrix + i % 3;
        n[i] = row[0] * column[0] + row[1] * column[3] + row[2] * column[6];
    }
}

inline void deadRecon(vuRootNode *root, vuEntity *e, vuEntityState *s)
{
    const double dt = now(root) - e->recvTime - e->timeOffset;
    double n[9] = {};
    uint8_t &a = s->deadReckoning.algorithm;
    if (a == 3 || a == 4 || (a >= 6 && a <= 9))
    {
        if (e->omega > 0.00001)
        {
            turn(e, dt, a >= 6, n);
        }
        else
        {
            a = 2;
        }
    }

    double b[3] = {};
    for (int j = 0; j < 3 && a >= 6 && a <= 9; ++j)
    {
        const double v[3] = {s->velocity[0], s->velocity[1], s->velocity[2]};
        b[j] = e->drR1[j] * v[0] + e->drR1[3 + j] * v[1] + e->drR1[6 + j] * v[2];
    }
    for (int j = 0; j < 3; ++j)
    {
        const float *inverse = e->drInverse + j;
        double &p = e->position[j] = s->location[j];
        if (a >= 2 && a <= 5)
        {
            p += double{s->velocity[j]} * dt;
        }
        if (a == 4 || a == 5)
        {
            p += 0.5 * double{s->deadReckoning.linearAcc[j]} * dt * dt;
        }
        if (a >= 6 && a <= 9)
        {
            p += inverse[0] * b[0] + inverse[3] * b[1] + inverse[6] * b[2];
        }
    }
    if (!((a == 3 || a == 4 || a == 7 || a == 8) && anglesOf(n, e->orientation)))
    {
        std::memcpy(e->orientation, s->orientation, sizeof e->orientation);
    }
}

inline void updatePositions(vuRootNode *root)
{
    for (vunode *scene = root->scenes.first; scene != nullptr; scene = scene->next)
    {
        for (vunode *node = reinterpret_cast<vuScene *>(scene)->entities.first; node != nullptr; node = node->next)
        {
            vuEntity *e = reinterpret_cast<vuEntity *>(node);
            if (e->status == 2 && ((e->receive & 2) != 0 || e == root->ownEntity) && e->drState != nullptr)
            {
                deadRecon(root, e, e->drState);
            }
        }
    }
}

} // namespace plain
