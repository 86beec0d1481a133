#include "kernelnoise.h"

#include "../performer/pf.h"
#include "kernellanes.hpp"
#include "kernelutil.h"

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace
{

constexpr char kModule[] = "kernelnoise";
constexpr int kHashSize = 4096;
constexpr int kHashMask = kHashSize - 1;
constexpr int kBaseMask = 0xFF; // of the index of a corner's first coefficient
constexpr int kRSize = kBaseMask + 1 + 11;

uint16_t *hashTable; // a permutation of 0 to 4095
float *RTable;       // in [-1, 1]

// Sums of the single bytes.
struct CrcTable
{
    uint16_t entries[256] = {};

    constexpr CrcTable()
    {
        for (unsigned byte = 0; byte < 256; ++byte)
        {
            unsigned crc = byte;
            for (int bit = 0; bit < 8; ++bit)
            {
                crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xA001 : 0);
            }
            entries[byte] = static_cast<uint16_t>(crc);
        }
    }
};

constexpr CrcTable crctab;
static_assert(crctab.entries[1] == 0xC0C1 && crctab.entries[128] == 0xA001);

// Null, with a message, when there is no arena or it has no room.
template<class T>
T *allocateTable(int entries, const char *complaint, int line)
{
    void *const arena = pfGetSharedArena();
    auto *table = static_cast<T *>(arena ? pfMalloc(static_cast<size_t>(entries) * sizeof(T), arena) : nullptr);
    if (!table)
    {
        vuMessage("Error", kModule, line, "%s", complaint);
    }
    return table;
}

template<class T>
void freeTable(T *&table)
{
    pfFree(table);
    table = nullptr;
}

bool InitTextureTable()
{
    srand(0);
    if (hashTable)
    {
        return true;
    }
    hashTable = allocateTable<uint16_t>(kHashSize, "HashTable malloc failed!\n", __LINE__);
    if (!hashTable)
    {
        return false;
    }
    for (int k = 0; k < kHashSize; ++k)
    {
        hashTable[k] = static_cast<uint16_t>(k);
    }
    for (int k = kHashSize - 1; k >= 0; --k)
    {
        std::swap(hashTable[k], hashTable[rand() % kHashSize]);
    }
    return true;
}

void FreeTextureTable()
{
    freeTable(hashTable);
}

bool InitRTable()
{
    InitTextureTable();
    if (RTable)
    {
        return true;
    }
    RTable = allocateTable<float>(kRSize, "RTable malloc failed!\n", __LINE__);
    if (!RTable)
    {
        return false;
    }
    for (int i = 0; i < kRSize; ++i)
    {
        const auto c = static_cast<float>(i);
        float vector[3] = {c, c, c};
        RTable[i] = static_cast<float>(R(vector) * double{2.0F / 65535.0F} - 1.0);
    }
    return true;
}

void FreeRTable()
{
    freeTable(RTable);
}

// Everything below is written for n corners of a cell side by side, 4 or 8, and used in three ways: 4 for a single
// point, 4 and 8 for grids. What happens to a corner is the same sequence of single-precision operations in each, and
// the corners' terms are added up one after the other, so that all give the same bits.
//
// Corner k of a cell lies at its upper end along x if bit 0 of k is set, along y for bit 1, along z for bit 2.

template<size_t n>
struct CornersOf
{
    typedef float Floats __attribute__((vector_size(4 * n), aligned(4 * n)));
};

using Floats4 = CornersOf<4>::Floats;

template<size_t n>
using Floats = typename CornersOf<n>::Floats;

// Within each four lanes: row i of the result has element i of the four rows.
template<class Rows>
INLINE void transpose(Rows (&rows)[4])
{
    if constexpr (sizeof(Rows) == sizeof(Floats4))
    {
        const Rows a = __builtin_shufflevector(rows[0], rows[1], 0, 4, 1, 5);
        const Rows b = __builtin_shufflevector(rows[2], rows[3], 0, 4, 1, 5);
        const Rows c = __builtin_shufflevector(rows[0], rows[1], 2, 6, 3, 7);
        const Rows d = __builtin_shufflevector(rows[2], rows[3], 2, 6, 3, 7);
        rows[0] = __builtin_shufflevector(a, b, 0, 1, 4, 5);
        rows[1] = __builtin_shufflevector(a, b, 2, 3, 6, 7);
        rows[2] = __builtin_shufflevector(c, d, 0, 1, 4, 5);
        rows[3] = __builtin_shufflevector(c, d, 2, 3, 6, 7);
    }
    else
    {
        const Rows a = __builtin_shufflevector(rows[0], rows[1], 0, 8, 1, 9, 4, 12, 5, 13);
        const Rows b = __builtin_shufflevector(rows[2], rows[3], 0, 8, 1, 9, 4, 12, 5, 13);
        const Rows c = __builtin_shufflevector(rows[0], rows[1], 2, 10, 3, 11, 6, 14, 7, 15);
        const Rows d = __builtin_shufflevector(rows[2], rows[3], 2, 10, 3, 11, 6, 14, 7, 15);
        rows[0] = __builtin_shufflevector(a, b, 0, 1, 8, 9, 4, 5, 12, 13);
        rows[1] = __builtin_shufflevector(a, b, 2, 3, 10, 11, 6, 7, 14, 15);
        rows[2] = __builtin_shufflevector(c, d, 0, 1, 8, 9, 4, 5, 12, 13);
        rows[3] = __builtin_shufflevector(c, d, 2, 3, 10, 11, 6, 7, 14, 15);
    }
}

// Where a coordinate lies between its lower and its upper lattice index: offset from each, blend weight of each.
// Four numbers; so that a shuffle makes of them what each corner needs.
enum : int
{
    kLowOffset,
    kHighOffset,
    kLowWeight,
    kHighWeight
};

// What the corners from `first` on need of that: element `low` for those at the lower end, `high` for the others.
template<size_t n, size_t first, size_t axis, int low, int high>
INLINE Floats<n> perCorner(const Floats4 &between)
{
    if constexpr (n == 8)
    {
        const Floats4 lower = perCorner<4, 0, axis, low, high>(between);
        const Floats4 upper = perCorner<4, 4, axis, low, high>(between);
        return __builtin_shufflevector(lower, upper, 0, 1, 2, 3, 4, 5, 6, 7);
    }
    else if constexpr (axis == 0)
    {
        return __builtin_shufflevector(between, between, low, high, low, high);
    }
    else if constexpr (axis == 1)
    {
        return __builtin_shufflevector(between, between, low, low, high, high);
    }
    else
    {
        constexpr int end = first == 0 ? low : high;
        return __builtin_shufflevector(between, between, end, end, end, end);
    }
}

template<size_t n, size_t axis, size_t first = 0>
INLINE Floats<n> offsets(const Floats4 &between)
{
    return perCorner<n, first, axis, kLowOffset, kHighOffset>(between);
}

template<size_t n, size_t axis, size_t first = 0>
INLINE Floats<n> weights(const Floats4 &between)
{
    return perCorner<n, first, axis, kLowWeight, kHighWeight>(between);
}

// Places of four coordinates in the lattice.
struct Places
{
    __m128i floor;
    __m128i low, high; // floor and its successor, masked for the hash
    Floats4 between[4];
};

INLINE Places placesOf(__m128 coordinates)
{
    const __m128 one = _mm_set1_ps(1.0F);
    const __m128 c = _mm_add_ps(coordinates, _mm_set1_ps(10000.0F));
    // Truncated, then one less where that went up.
    const __m128i truncated = _mm_cvttps_epi32(c);
    const __m128 whole = _mm_cvtepi32_ps(truncated);
    const __m128 above = _mm_cmplt_ps(c, whole);
    const __m128i mask = _mm_set1_epi32(kHashMask);

    Places places;
    places.floor = _mm_add_epi32(truncated, _mm_castps_si128(above));
    places.low = _mm_and_si128(places.floor, mask);
    places.high = _mm_and_si128(_mm_add_epi32(places.floor, _mm_set1_epi32(1)), mask);
    // Where an integer of 32 bits does not reach, the difference is anything; in this order NaN becomes 0.
    const __m128 difference = _mm_sub_ps(c, _mm_sub_ps(whole, _mm_and_ps(above, one)));
    const Floats4 f = _mm_min_ps(_mm_max_ps(difference, _mm_setzero_ps()), one);
    const Floats4 s = (3.0F - (f + f)) * (f * f);
    Floats4(&between)[4] = places.between;
    between[kLowOffset] = f;
    between[kHighOffset] = f - one;
    between[kLowWeight] = one - s;
    between[kHighWeight] = s;
    transpose(between);
    return places;
}

// What the corners of a cell have in common along y and z: hash arguments, weights and offsets.
template<size_t n>
struct CrossSection
{
    uint32_t y[2], z[2];     // masked indices of the lower and the upper end
    Floats<n> weight[8 / n]; // product of those of y and z
    Floats<n> dy[8 / n], dz[8 / n];
};

template<int i>
INLINE uint32_t element(__m128i v)
{
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_shuffle_epi32(v, i)));
}

// From the places of y and z in lanes 1 and 2.
template<size_t n>
INLINE CrossSection<n> crossSectionOf(const Places &p)
{
    CrossSection<n> section;
    section.y[0] = element<1>(p.low);
    section.y[1] = element<1>(p.high);
    section.z[0] = element<2>(p.low);
    section.z[1] = element<2>(p.high);
    section.dy[0] = offsets<n, 1>(p.between[1]);
    section.dz[0] = offsets<n, 2>(p.between[2]);
    section.weight[0] = weights<n, 1>(p.between[1]) * weights<n, 2>(p.between[2]);
    if constexpr (n == 4)
    {
        section.dy[1] = section.dy[0];
        section.dz[1] = offsets<n, 2, 4>(p.between[2]);
        section.weight[1] = weights<n, 1>(p.between[1]) * weights<n, 2, 4>(p.between[2]);
    }
    return section;
}

// Of each corner the index of its first coefficient.
struct CornerIndices
{
    uint32_t coefficient[8];
};

// From the hash of the lower and the upper index along x.
template<size_t n>
INLINE CornerIndices cornerIndices(const uint16_t *hash, uint32_t lowX, uint32_t highX, const CrossSection<n> &section)
{
    CornerIndices corners;
    UNROLL
    for (size_t k = 0; k < 4; ++k)
    {
        const uint32_t hxy = hash[((k & 1) != 0 ? highX : lowX) ^ section.y[k >> 1]];
        corners.coefficient[k] = hash[hxy ^ section.z[0]] & kBaseMask;
        corners.coefficient[k + 4] = hash[hxy ^ section.z[1]] & kBaseMask;
    }
    return corners;
}

INLINE Floats4 fourFrom(const float *place)
{
    return _mm_loadu_ps(place);
}

// Corners' terms as far as they do not depend on the place along x.
template<size_t n>
struct Terms
{
    Floats<n> value, gradientX, y, z;
};

template<size_t n>
INLINE Terms<n> termsOf(const float *coefficients, const uint32_t *indices, const Floats<n> &dy, const Floats<n> &dz)
{
    Floats<n> rows[4];
    UNROLL
    for (size_t i = 0; i < 4; ++i)
    {
        const Floats4 low = fourFrom(coefficients + indices[i]);
        if constexpr (n == 4)
        {
            rows[i] = low;
        }
        else
        {
            const Floats4 high = fourFrom(coefficients + indices[i + 4]);
            rows[i] = __builtin_shufflevector(low, high, 0, 1, 2, 3, 4, 5, 6, 7);
        }
    }
    transpose(rows);
    return {0.5F * rows[0], rows[1], rows[2] * dy, rows[3] * dz};
}

// Those of a whole cell, for each component.
template<size_t n, int C>
INLINE void setTerms(Terms<n> (&terms)[C][8 / n], const CornerIndices &corners, const CrossSection<n> &section)
{
    UNROLL
    for (int c = 0; c < C; ++c)
    {
        UNROLL
        for (size_t i = 0; i < 8 / n; ++i)
        {
            const uint32_t *indices = corners.coefficient + n * i;
            terms[c][i] = termsOf<n>(RTable + 4 * c, indices, section.dy[i], section.dz[i]);
        }
    }
}

template<size_t n>
INLINE Floats<n> weighted(const Terms<n> &terms, const Floats<n> &dx, const Floats<n> &weight)
{
    return (((terms.value + terms.gradientX * dx) + terms.y) + terms.z) * weight;
}

template<class T>
INLINE T inOrder(const T &a, const T &b, const T &c, const T &d, const T &e, const T &f, const T &g, const T &h)
{
    return ((((((a + b) + c) + d) + e) + f) + g) + h;
}

// Sum of the products of the eight corners; their order, which decides the last bit, is another one for vectors.
template<int C, class T>
INLINE T sumOf(const T (&corners)[8])
{
    const auto &[c0, c1, c2, c3, c4, c5, c6, c7] = corners;
    return C == 1 ? inOrder<T>(c0, c1, c2, c3, c4, c5, c6, c7) : inOrder<T>(c0, c1, c3, c2, c6, c7, c5, c4);
}

// The result from the sum of the corners: of scalar noise offset and clamped, of vector noise the sum itself.
template<int C>
INLINE __m128 finished(__m128 sum)
{
    if constexpr (C > 1)
    {
        return sum;
    }
    return _mm_min_ps(_mm_max_ps(_mm_add_ps(sum, _mm_set1_ps(0.5F)), _mm_setzero_ps()), _mm_set1_ps(1.0F));
}

// Noise of C components at one point.
template<int C>
INLINE void noiseAt(float (&result)[C], float x, float y, float z)
{
    const Places p = placesOf(_mm_setr_ps(x, y, z, 0.0F));
    const auto section = crossSectionOf<4>(p);
    const uint16_t *hash = hashTable;
    const CornerIndices corners = cornerIndices(hash, hash[element<0>(p.low)], hash[element<0>(p.high)], section);
    const Floats4 dx = offsets<4, 0>(p.between[0]), weightX = weights<4, 0>(p.between[0]);
    Terms<4> terms[C][2];
    setTerms(terms, corners, section);
    UNROLL
    for (int c = 0; c < C; ++c)
    {
        const Floats4 a = weighted<4>(terms[c][0], dx, weightX * section.weight[0]);
        const Floats4 b = weighted<4>(terms[c][1], dx, weightX * section.weight[1]);
        const float sum = sumOf<C, float>({a[0], a[1], a[2], a[3], b[0], b[1], b[2], b[3]});
        result[c] = _mm_cvtss_f32(finished<C>(_mm_set_ss(sum)));
    }
}

// Up to so many neighbours along x are computed together.
constexpr int kBlock = 64;

struct Columns
{
    int count;
    uint32_t floor[kBlock];
    uint16_t low[kBlock], high[kBlock]; // hashed
    Floats4 between[kBlock];
};

// Values of one row of columns, by component.
template<int C>
using RowValues = float[C][kBlock];

// Four points' values of one component, from the products of all corners of each.
template<size_t n, int C>
INLINE __m128 valuesOfFour(Floats<n> (&products)[8 / n][4])
{
    Floats4 corners[8]; // of the four points side by side
    UNROLL
    for (size_t i = 0; i < 8 / n; ++i)
    {
        transpose(products[i]);
        UNROLL
        for (size_t k = 0; k < 4; ++k)
        {
            const Floats<n> &product = products[i][k];
            if constexpr (n == 4)
            {
                corners[4 * i + k] = product;
            }
            else
            {
                corners[k] = __builtin_shufflevector(product, product, 0, 1, 2, 3);
                corners[k + 4] = __builtin_shufflevector(product, product, 4, 5, 6, 7);
            }
        }
    }
    return finished<C>(sumOf<C>(corners));
}

template<size_t n, int C>
INLINE void noiseRow(RowValues<C> &values, const Columns &columns, const Places &yz)
{
    const auto section = crossSectionOf<n>(yz);
    const uint16_t *hash = hashTable;
    Terms<n> terms[C][8 / n] = {};         // kept as long as columns lie in the same cell
    uint32_t floor = columns.floor[0] + 1; // of no column yet
    for (int first = 0; first < columns.count; first += 4)
    {
        Floats<n> products[C][8 / n][4];
        UNROLL
        for (int point = 0; point < 4; ++point)
        {
            const int column = first + point;
            if (columns.floor[column] != floor)
            {
                floor = columns.floor[column];
                setTerms(terms, cornerIndices(hash, columns.low[column], columns.high[column], section), section);
            }
            const Floats<n> dx = offsets<n, 0>(columns.between[column]);
            const Floats<n> weightX = weights<n, 0>(columns.between[column]);
            UNROLL
            for (int c = 0; c < C; ++c)
            {
                UNROLL
                for (size_t i = 0; i < 8 / n; ++i)
                {
                    products[c][i][point] = weighted<n>(terms[c][i], dx, weightX * section.weight[i]);
                }
            }
        }
        UNROLL
        for (int c = 0; c < C; ++c)
        {
            _mm_store_ps(values[c] + first, valuesOfFour<n, C>(products[c]));
        }
    }
}

template<int C>
void noiseRowPlain(RowValues<C> &values, const Columns &columns, const Places &yz)
{
    noiseRow<4, C>(values, columns, yz);
}

template<int C>
[[gnu::target("avx2")]] void noiseRowAvx2(RowValues<C> &values, const Columns &columns, const Places &yz)
{
    noiseRow<8, C>(values, columns, yz);
}

float coordinate(const noiseGridPoints &grid, int axis, int index)
{
    return grid.origin[axis] + static_cast<float>(index) * grid.step[axis];
}

// The columns from `first` on; those missing to a multiple of four are copies of the last one.
void fillColumns(Columns &columns, const noiseGridPoints &grid, float frequency, int first)
{
    columns.count = std::min(kBlock, grid.count[0] - first);
    for (int column = 0; column < columns.count; column += 4)
    {
        float x[4];
        for (int i = 0; i < 4; ++i)
        {
            x[i] = frequency * coordinate(grid, 0, first + std::min(column + i, columns.count - 1));
        }
        const Places p = placesOf(_mm_loadu_ps(x));
        int low[4], high[4];
        _mm_storeu_si128(reinterpret_cast<__m128i *>(columns.floor + column), p.floor);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(low), p.low);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(high), p.high);
        for (int i = 0; i < 4; ++i)
        {
            columns.low[column + i] = hashTable[low[i]];
            columns.high[column + i] = hashTable[high[i]];
        }
        std::copy_n(p.between, 4, columns.between + column);
    }
}

// Calls add(point, values of its row, column) for every point of the grid, with the coordinates multiplied by
// frequency.
template<int C, class Add>
void overGrid(const noiseGridPoints &grid, float frequency, const Add &add)
{
    const auto noiseRowHere = hasAvx2() ? noiseRowAvx2<C> : noiseRowPlain<C>;
    Columns columns;
    alignas(16) RowValues<C> values;
    const auto [nx, ny, nz] = grid.count;
    if (nx <= 0 || ny <= 0 || nz <= 0)
    {
        return;
    }
    for (int64_t first = 0; first < nx; first += kBlock)
    {
        fillColumns(columns, grid, frequency, static_cast<int>(first));
        for (int k = 0; k < nz; ++k)
        {
            const float z = frequency * coordinate(grid, 2, k);
            for (int j = 0; j < ny; ++j)
            {
                const float y = frequency * coordinate(grid, 1, j);
                const Places yz = placesOf(_mm_setr_ps(0.0F, y, z, 0.0F));
                noiseRowHere(values, columns, yz);
                const size_t row = (static_cast<size_t>(k) * ny + j) * nx + static_cast<size_t>(first);
                for (int i = 0; i < columns.count; ++i)
                {
                    add(row + i, values, i);
                }
            }
        }
    }
}

// Calls octave(amplitude, frequency) for the second and all further octaves of a turbulence.
template<class Octave>
INLINE void overOctaves(float amplitudeFactor, float frequencyFactor, int octaves, const Octave &octave)
{
    float amplitude = amplitudeFactor, frequency = frequencyFactor;
    for (int i = 1; i < octaves; ++i)
    {
        octave(amplitude, frequency);
        amplitude *= amplitudeFactor;
        frequency *= frequencyFactor;
    }
}

} // namespace

int noiseInitialize(void)
{
    return InitRTable() && hashTable ? 1 : 0;
}

void noiseFree(void)
{
    FreeRTable();
    FreeTextureTable();
}

double noise(float x, float y, float z)
{
    float value[1];
    noiseAt(value, x, y, z);
    return value[0];
}

double turbulence(float x, float y, float z, float amplitudeFactor, float frequencyFactor, int octaves)
{
    double sum = noise(x, y, z);
    overOctaves(amplitudeFactor, frequencyFactor, octaves,
                [&](float amplitude, float f) { sum += amplitude * noise(f * x, f * y, f * z); });
    return sum;
}

void noise3D(float result[3], float x, float y, float z)
{
    float value[3];
    noiseAt(value, x, y, z);
    std::copy_n(value, 3, result);
}

void turbulence3D(float result[3], float x, float y, float z, float amplitudeFactor, float frequencyFactor, int octaves)
{
    noise3D(result, x, y, z);
    overOctaves(amplitudeFactor, frequencyFactor, octaves,
                [&](float amplitude, float f)
                {
                    float octave[3];
                    noise3D(octave, f * x, f * y, f * z);
                    for (int c = 0; c < 3; ++c)
                    {
                        result[c] += amplitude * octave[c];
                    }
                });
}

void noiseGrid(double *result, const noiseGridPoints *grid)
{
    overGrid<1>(*grid, 1.0F, [=](size_t point, const RowValues<1> &values, int i) { result[point] = values[0][i]; });
}

void turbulenceGrid(double *result, const noiseGridPoints *grid, float amplitudeFactor, float frequencyFactor,
                    int octaves)
{
    noiseGrid(result, grid);
    overOctaves(amplitudeFactor, frequencyFactor, octaves,
                [&](float amplitude, float frequency)
                {
                    overGrid<1>(*grid, frequency,
                                [=](size_t point, const RowValues<1> &values, int i)
                                { result[point] += amplitude * double{values[0][i]}; });
                });
}

void noise3DGrid(float (*result)[3], const noiseGridPoints *grid)
{
    overGrid<3>(*grid, 1.0F,
                [=](size_t point, const RowValues<3> &values, int i)
                {
                    for (int c = 0; c < 3; ++c)
                    {
                        result[point][c] = values[c][i];
                    }
                });
}

void turbulence3DGrid(float (*result)[3], const noiseGridPoints *grid, float amplitudeFactor, float frequencyFactor,
                      int octaves)
{
    noise3DGrid(result, grid);
    overOctaves(amplitudeFactor, frequencyFactor, octaves,
                [&](float amplitude, float frequency)
                {
                    overGrid<3>(*grid, frequency,
                                [=](size_t point, const RowValues<3> &values, int i)
                                {
                                    for (int c = 0; c < 3; ++c)
                                    {
                                        result[point][c] += amplitude * values[c][i];
                                    }
                                });
                });
}

int noiseCrc16(const void *bytes, int count)
{
    const auto *byte = static_cast<const unsigned char *>(bytes);
    unsigned crc = 0;
    for (int i = 0; i < count; ++i)
    {
        crc = crc >> 8 ^ crctab.entries[(crc ^ byte[i]) & 0xFF];
    }
    return static_cast<int>(crc);
}

int R(float vector[3])
{
    for (int i = 0; i < 3; ++i)
    {
        vector[i] *= 0.12345F;
    }
    return noiseCrc16(vector, 3 * sizeof(float));
}

void VNormalize(float result[3], const float vector[3])
{
    const double x = vector[0], y = vector[1], z = vector[2];
    const double length = std::sqrt(x * x + y * y + z * z);
    if (!(length > 1e-8))
    {
        result[0] = result[1] = 0.0F;
        result[2] = 1.0F;
        return;
    }
    result[0] = static_cast<float>(x / length);
    result[1] = static_cast<float>(y / length);
    result[2] = static_cast<float>(z / length);
}
