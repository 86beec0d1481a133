// Dead reckoning written down formula by formula, one call of the C library for every sine, cosine and arc: what the
// tests compare the kernel's results with and the benchmark its speed.
#pragma once

#include <cmath>
#include <cstring>
#include <tolvin/kernel/kerneldis.h>
#include <tolvin/kernel/kerneldisdr.h>

namespace plain
{

inline bool rotates(int algorithm)
{
    return algorithm == 3 || algorithm == 4 || (algorithm >= 6 && algorithm <= 9);
}

inline double now(const vuRootNode *root)
{
    return root->time.sim.sec + root->time.sim.usec / 1000000.0;
}

inline void calcMatrices(vuEntity *e, const vuEntityState *s)
{
    const double psi = s->orientation[0], theta = s->orientation[1], phi = s->orientation[2];
    const double cpsi = static_cast<float>(std::cos(psi)), spsi = static_cast<float>(std::sin(psi));
    const double cth = static_cast<float>(std::cos(theta)), sth = static_cast<float>(std::sin(theta));
    const double cphi = static_cast<float>(std::cos(phi)), sphi = static_cast<float>(std::sin(phi));
    const double m[9] = {cth * cpsi,
                         sphi * sth * cpsi - cphi * spsi,
                         sth * cphi * cpsi + sphi * spsi,
                         cth * spsi,
                         sphi * sth * spsi + cphi * cpsi,
                         spsi * sth * cphi - cpsi * sphi,
                         -sth,
                         sphi * cth,
                         cth * cphi};
    const double w[3] = {s->deadReckoning.angularVel[0], s->deadReckoning.angularVel[1],
                         s->deadReckoning.angularVel[2]};
    for (int i = 0; i < 9; ++i)
    {
        e->drMatrix[i] = static_cast<float>(m[i]);
        e->omegaOuter[i] = static_cast<float>(w[i / 3] * w[i % 3]);
    }
    e->omega = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
    const double skew[9] = {0, w[2], -w[1], -w[2], 0, w[0], w[1], -w[0], 0};
    for (int i = 0; i < 9; ++i)
    {
        e->omegaSkew[i] = i % 4 == 0 ? e->omegaSkew[i] : static_cast<float>(skew[i]);
    }
    if (s->deadReckoning.algorithm >= 6 && s->deadReckoning.algorithm <= 9)
    {
        disMatrixInverse(e->drInverse, e->drMatrix);
    }
}

inline float arcCosine(double x)
{
    x = x > 1 ? 1 : x < -1 ? -1 : x;
    return static_cast<float>(std::atan2(std::sqrt(1 - x * x), x));
}

// Whether the angles can be had from the turned matrix n.
inline bool anglesOf(const double *n, float *angles)
{
    const float theta = static_cast<float>(-std::atan2(n[6], std::sqrt(1 - n[6] * n[6])));
    const double c = std::cos(static_cast<double>(theta));
    if (!(c > 0.000001))
    {
        return false;
    }
    const float psi = arcCosine(n[0] / c), phi = arcCosine(n[8] / c);
    angles[0] = n[3] < 0 ? -psi : psi;
    angles[1] = theta;
    angles[2] = n[7] < 0 ? -phi : phi;
    return true;
}

inline void deadRecon(vuRootNode *root, vuEntity *e, vuEntityState *s)
{
    const double dt = now(root) - e->recvTime - e->timeOffset;
    double n[9] = {};
    if (rotates(s->deadReckoning.algorithm) && !(e->omega > 0.00001))
    {
        s->deadReckoning.algorithm = 2;
    }
    const int a = s->deadReckoning.algorithm;
    if (rotates(a))
    {
        const double w = e->omega;
        const double wt = static_cast<float>(w * dt);
        const double cosine = std::cos(wt), sine = std::sin(wt);
        const double c = static_cast<float>(cosine);
        const double k1 = static_cast<float>((1 - cosine) / (w * w)), s1 = static_cast<float>(sine / w);
        double q[9];
        for (int i = 0; i < 9; ++i)
        {
            q[i] = i % 4 == 0 ? k1 * e->omegaOuter[i] + c : k1 * e->omegaOuter[i] - s1 * e->omegaSkew[i];
        }
        for (int i = 0; i < 3; ++i)
        {
            for (int j = 0; j < 3; ++j)
            {
                n[3 * i + j] =
                    q[3 * i] * e->drMatrix[j] + q[3 * i + 1] * e->drMatrix[3 + j] + q[3 * i + 2] * e->drMatrix[6 + j];
            }
        }
        if (a >= 6)
        {
            const double k2 = static_cast<float>((w * dt - sine) / (w * w * w));
            const double k3 = static_cast<float>((1 - c) / (w * w));
            for (int i = 0; i < 9; ++i)
            {
                e->drR1[i] = static_cast<float>(i % 4 == 0 ? s1 + k2 * e->omegaOuter[i]
                                                           : k2 * e->omegaOuter[i] + k3 * e->omegaSkew[i]);
            }
        }
    }

    double b[3];
    for (int j = 0; j < 3 && a >= 6 && a <= 9; ++j)
    {
        b[j] = e->drR1[j] * double{s->velocity[0]} + e->drR1[3 + j] * double{s->velocity[1]} +
               e->drR1[6 + j] * double{s->velocity[2]};
    }
    for (int j = 0; j < 3; ++j)
    {
        const double v = s->velocity[j], acc = s->deadReckoning.linearAcc[j];
        switch (a)
        {
        case 2:
        case 3:
            e->position[j] = s->location[j] + v * dt;
            break;
        case 4:
        case 5:
            e->position[j] = s->location[j] + v * dt + 0.5 * acc * dt * dt;
            break;
        case 6:
        case 7:
        case 8:
        case 9:
            e->position[j] =
                s->location[j] + (e->drInverse[j] * b[0] + e->drInverse[3 + j] * b[1] + e->drInverse[6 + j] * b[2]);
            break;
        default:
            e->position[j] = s->location[j];
        }
    }

    const bool turns = a == 3 || a == 4 || a == 7 || a == 8;
    if (!turns || !anglesOf(n, e->orientation))
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
