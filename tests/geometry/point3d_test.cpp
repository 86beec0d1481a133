#include <tolvin/geometry/point3d.h>

#include "support/capture.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstring>

// The module is linked into this program, and refused memory when no allocations are left.
static int allocationsLeft = INT_MAX;

extern "C" {
void *__real_calloc(size_t, size_t);

void *__wrap_calloc(size_t count, size_t bytes)
{
    return allocationsLeft-- > 0 ? __real_calloc(count, bytes) : nullptr;
}
void *__wrap_malloc(size_t bytes)
{
    void *const block = __wrap_calloc(1, bytes);
    return block != nullptr ? memset(block, 0xAA, bytes) : nullptr;
}
}

template<class Point, class Set, class Get>
static void testLength(Point *point, const Set &set, const Get &get)
{
    EXPECT_EQ(point->length, 5);
    const int changes[][3] = {{2, 12, 13}, {0, 6, 14}, {1, -12, 18}, {2, -4, 14}}; // coordinate, value, length
    for (const auto &[coordinate, value, length] : changes)
    {
        set[coordinate](point, static_cast<float>(value));
        EXPECT_TRUE(get[coordinate](point) == value && get[3](point) == length) << value;
    }
    set[2](point, 0x1p100F);
    EXPECT_EQ(get[3](point), 0x1p100F);
    free(point);
}

TEST(Points, LengthFollowsTheCoordinates)
{
    testLength(makePoint3Dd(3, 4, 0), std::array{setPoint3DdX, setPoint3DdY, setPoint3DdZ},
               std::array{getPoint3DdX, getPoint3DdY, getPoint3DdZ, getPoint3DdLength});
    testLength(makePoint3Df(3, 4, 0), std::array{setPoint3DfX, setPoint3DfY, setPoint3DfZ},
               std::array{getPoint3DfX, getPoint3DfY, getPoint3DfZ, getPoint3DfLength});
    const Point3Dd point = {3, -0.25, 1e6, 0};
    EXPECT_EQ(capturedStderr([&] { getPoint3DdCoordinates(&point); }),
              "Pointcoords: X: 3.000000 Y:-0.250000 Z:1000000.000000\n");
}

template<class Array, class Point, class Real>
static void testArray(Array *(*init)(), Array *(*grow)(Array *, int), void (*add)(Array *, Point *),
                      void (*print)(FILE *, const Array *), void (*release)(Array *), Point *(*make)(Real, Real, Real))
{
    for (int granted : {0, 1, INT_MAX})
    {
        allocationsLeft = granted;
        EXPECT_TRUE(granted > 1 || (init() == nullptr && make(1, 2, 3) == nullptr));
    }
    Array *const array = init();
    for (int i = 0; i < 31; ++i)
    {
        Point *const point = make(static_cast<Real>(i), 1, -0.5F);
        allocationsLeft = 0;
        add(array, point);
        allocationsLeft = INT_MAX;
        if (i == 20 || i == 30)
        {
            EXPECT_TRUE(array->numPoints == i && array->maxPoints == i);
            add(array, point);
        }
    }
    for (int size : {-5, INT_MIN, INT_MAX - 39, 0})
    {
        const auto *const slots = array->points;
        EXPECT_TRUE(grow(array, size) == array && array->maxPoints == 40 && (array->points == slots) == (size != 0));
    }
    EXPECT_TRUE(array->numPoints == 31 && array->points[31] == nullptr && array->points[39] == nullptr);
    const std::string printed = capturedStderr([&] { print(stderr, array); });
    EXPECT_EQ(printed.substr(0, 31), "0: 0.000000 1.000000 -0.500000\n");
    EXPECT_EQ(printed.substr(printed.find("\n29")),
              "\n29: 29.000000 1.000000 -0.500000\n30: 30.000000 1.000000 -0.500000\n");
    release(array);
}

TEST(Points, ArraysGrowAndOwnWhatIsAdded)
{
    testArray(initP3DdArray, growP3DdArray, addPoint3DdtoArray, printP3DdArray, freeP3DdArray, makePoint3Dd);
    testArray(initP3DfArray, growP3DfArray, addPoint3DftoArray, printP3DfArray, freeP3DfArray, makePoint3Df);
    addPoint3DftoArray(nullptr, nullptr);
}
