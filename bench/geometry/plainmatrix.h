// The matrix product as it is written down: the oracle of the tests, and the yardstick of the benchmarks.
#pragma once

namespace plain
{

// out = a b, for matrices other than out.
inline void multiply(float (*out)[4], const float (*a)[4], const float (*b)[4])
{
    for (int i = 0; i < 4; ++i)
    {
        for (int j = 0; j < 4; ++j)
        {
            double sum = 0;
            for (int k = 0; k < 4; ++k)
            {
                sum += double{a[i][k]} * double{b[k][j]};
            }
            out[i][j] = static_cast<float>(sum);
        }
    }
}

} // namespace plain
