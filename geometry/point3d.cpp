#include "point3d.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>

namespace
{

constexpr int kFirstSlots = 20;
constexpr int kMoreSlots = 10;

// In double precision the squares of single-precision coordinates are exact, and none is out of range.
template<class Point>
void updateLength(Point *point)
{
    const double x = point->x, y = point->y, z = point->z;
    point->length = static_cast<decltype(point->length)>(std::sqrt(x * x + y * y + z * z));
}

template<class Point, class Real>
Point *makePoint(Real x, Real y, Real z)
{
    auto *const point = static_cast<Point *>(malloc(sizeof(Point)));
    if (point != nullptr)
    {
        *point = {x, y, z, 0};
        updateLength(point);
    }
    return point;
}

template<class Point, class Real>
void setCoordinate(Point *point, Real Point::*coordinate, Real value)
{
    point->*coordinate = value;
    updateLength(point);
}

template<class Array>
Array *makeArray()
{
    auto *const array = static_cast<Array *>(malloc(sizeof(Array)));
    void *const slots = malloc(kFirstSlots * sizeof(void *));
    if (array == nullptr || slots == nullptr)
    {
        free(array);
        free(slots);
        return nullptr;
    }
    *array = {kFirstSlots, 0, static_cast<decltype(array->points)>(slots)};
    return array;
}

template<class Array>
void growArray(Array *array, int addSize)
{
    if (addSize < 0 || addSize > INT_MAX - array->maxPoints)
    {
        return;
    }
    const int maxPoints = array->maxPoints + addSize;
    auto *const slots =
        static_cast<decltype(array->points)>(calloc(static_cast<size_t>(maxPoints), sizeof(*array->points)));
    if (slots == nullptr)
    {
        return;
    }
    std::copy_n(array->points, array->maxPoints, slots);
    free(array->points);
    array->points = slots;
    array->maxPoints = maxPoints;
}

template<class Array, class Point>
void addPoint(Array *array, Point *point)
{
    if (array->numPoints >= array->maxPoints)
    {
        growArray(array, kMoreSlots);
    }
    if (array->numPoints < array->maxPoints)
    {
        array->points[array->numPoints++] = point;
    }
}

template<class Array>
void freeArray(Array *array)
{
    std::for_each_n(array->points, array->numPoints, free);
    free(array->points);
    free(array);
}

template<class Array>
void printArray(FILE *stream, const Array *array)
{
    for (int i = 0; i < array->numPoints; ++i)
    {
        const auto *const point = array->points[i];
        fprintf(stream, "%d: %f %f %f\n", i, double{point->x}, double{point->y}, double{point->z});
    }
}

} // namespace

Point3Dd *makePoint3Dd(double x, double y, double z)
{
    return makePoint<Point3Dd>(x, y, z);
}

Point3Df *makePoint3Df(float x, float y, float z)
{
    return makePoint<Point3Df>(x, y, z);
}

double getPoint3DdX(const Point3Dd *point)
{
    return point->x;
}

double getPoint3DdY(const Point3Dd *point)
{
    return point->y;
}

double getPoint3DdZ(const Point3Dd *point)
{
    return point->z;
}

double getPoint3DdLength(const Point3Dd *point)
{
    return point->length;
}

float getPoint3DfX(const Point3Df *point)
{
    return point->x;
}

float getPoint3DfY(const Point3Df *point)
{
    return point->y;
}

float getPoint3DfZ(const Point3Df *point)
{
    return point->z;
}

float getPoint3DfLength(const Point3Df *point)
{
    return point->length;
}

void setPoint3DdX(Point3Dd *point, double x)
{
    setCoordinate(point, &Point3Dd::x, x);
}

void setPoint3DdY(Point3Dd *point, double y)
{
    setCoordinate(point, &Point3Dd::y, y);
}

void setPoint3DdZ(Point3Dd *point, double z)
{
    setCoordinate(point, &Point3Dd::z, z);
}

void setPoint3DfX(Point3Df *point, float x)
{
    setCoordinate(point, &Point3Df::x, x);
}

void setPoint3DfY(Point3Df *point, float y)
{
    setCoordinate(point, &Point3Df::y, y);
}

void setPoint3DfZ(Point3Df *point, float z)
{
    setCoordinate(point, &Point3Df::z, z);
}

void getPoint3DdCoordinates(const Point3Dd *point)
{
    fprintf(stderr, "Pointcoords: X: %f Y:%f Z:%f\n", point->x, point->y, point->z);
}

P3DdArray *initP3DdArray(void)
{
    return makeArray<P3DdArray>();
}

P3DfArray *initP3DfArray(void)
{
    return makeArray<P3DfArray>();
}

P3DdArray *growP3DdArray(P3DdArray *array, int addSize)
{
    growArray(array, addSize);
    return array;
}

P3DfArray *growP3DfArray(P3DfArray *array, int addSize)
{
    growArray(array, addSize);
    return array;
}

void addPoint3DdtoArray(P3DdArray *array, Point3Dd *point)
{
    addPoint(array, point);
}

void addPoint3DftoArray(P3DfArray *array, Point3Df *point)
{
    if (array != nullptr)
    {
        addPoint(array, point);
    }
}

void freeP3DdArray(P3DdArray *array)
{
    freeArray(array);
}

void freeP3DfArray(P3DfArray *array)
{
    freeArray(array);
}

void printP3DdArray(FILE *stream, const P3DdArray *array)
{
    printArray(stream, array);
}

void printP3DfArray(FILE *stream, const P3DfArray *array)
{
    printArray(stream, array);
}
