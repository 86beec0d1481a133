/*
 * Points that carry their distance from the origin, in double (Point3Dd) and single precision (Point3Df), and arrays of
 * them that grow. Records come from malloc. No pointer may be null where nothing else is said; nothing is reported.
 */
#ifndef TOLVIN_GEOMETRY_POINT3D_H
#define TOLVIN_GEOMETRY_POINT3D_H

#include "../kernel/kernelapi.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct Point3Dd
{
    double x;
    double y;
    double z;
    double length; /* distance from the origin; the functions here keep it right */
} Point3Dd;

typedef struct Point3Df
{
    float x;
    float y;
    float z;
    float length;
} Point3Df;

/* An array owns the points that were added to it. */
typedef struct P3DdArray
{
    int maxPoints;     /* slots */
    int numPoints;     /* points held, from slot 0 on */
    Point3Dd **points; /* slots behind the points mean nothing */
} P3DdArray;

typedef struct P3DfArray
{
    int maxPoints;
    int numPoints;
    Point3Df **points;
} P3DfArray;

/*
 * A new point, the caller's until it is added to an array; released with free. length = sqrt(x^2 + y^2 + z^2), the squares
 * and their sum in double precision. Null when memory runs out.
 */
TOLVIN_API Point3Dd *makePoint3Dd(double x, double y, double z);
TOLVIN_API Point3Df *makePoint3Df(float x, float y, float z);

TOLVIN_API double getPoint3DdX(const Point3Dd *point);
TOLVIN_API double getPoint3DdY(const Point3Dd *point);
TOLVIN_API double getPoint3DdZ(const Point3Dd *point);
TOLVIN_API double getPoint3DdLength(const Point3Dd *point);
TOLVIN_API float getPoint3DfX(const Point3Df *point);
TOLVIN_API float getPoint3DfY(const Point3Df *point);
TOLVIN_API float getPoint3DfZ(const Point3Df *point);
TOLVIN_API float getPoint3DfLength(const Point3Df *point);

/* Set a coordinate, and the length to that of the three coordinates then. */
TOLVIN_API void setPoint3DdX(Point3Dd *point, double x);
TOLVIN_API void setPoint3DdY(Point3Dd *point, double y);
TOLVIN_API void setPoint3DdZ(Point3Dd *point, double z);
TOLVIN_API void setPoint3DfX(Point3Df *point, float x);
TOLVIN_API void setPoint3DfY(Point3Df *point, float y);
TOLVIN_API void setPoint3DfZ(Point3Df *point, float z);

/* Print the coordinates on standard error. */
TOLVIN_API void getPoint3DdCoordinates(const Point3Dd *point);

/* A new array with 20 slots and no points. Null when memory runs out. */
TOLVIN_API P3DdArray *initP3DdArray(void);
TOLVIN_API P3DfArray *initP3DfArray(void);

/*
 * Give the array addSize more slots, null ones; a negative addSize changes nothing. Returns the array, which stays as it was
 * when memory runs out or there would be more than INT_MAX slots.
 */
TOLVIN_API P3DdArray *growP3DdArray(P3DdArray *array, int addSize);
TOLVIN_API P3DfArray *growP3DfArray(P3DfArray *array, int addSize);

/*
 * Append a point, which is the array's from then on; a full array grows by 10 slots before. For want of memory the point
 * is not taken and stays the caller's: numPoints tells. A null single-precision array is ignored.
 */
TOLVIN_API void addPoint3DdtoArray(P3DdArray *array, Point3Dd *point);
TOLVIN_API void addPoint3DftoArray(P3DfArray *array, Point3Df *point);

/* Release an array with its points. */
TOLVIN_API void freeP3DdArray(P3DdArray *array);
TOLVIN_API void freeP3DfArray(P3DfArray *array);

/* Print a line for each point: its number, x, y and z. */
TOLVIN_API void printP3DdArray(FILE *stream, const P3DdArray *array);
TOLVIN_API void printP3DfArray(FILE *stream, const P3DfArray *array);

#ifdef __cplusplus
}
#endif

#endif
