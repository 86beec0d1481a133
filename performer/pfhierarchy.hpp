// Where the triangles of a GeoSet are, for segments to find them: a wide hierarchy of boxes over blocks of triangles, and
// beside it a grid in x and y for vertical segments. Private to the platform layer.
//
// Single precision far from the origin is the trap here. Corners are single, so a difference of two of them, or of one
// and a segment's start, is right in double precision: triangles are tested in that. Boxes are only ever too large.
#pragma once

#include "pfmath.h"

#include <cstdint>
#include <span>
#include <vector>

struct pfTriangle
{
    pfVec3 corners[3];
    uint32_t prim; // number of the primitive that it belongs to
};

// A segment in coordinates of the triangles: origin + t direction, t from least to most. Vertical when the first two
// components of the direction are 0.
struct pfLocalSegment
{
    double origin[3];
    double direction[3];
    double least;
    double most;
};

struct pfTriangleHit
{
    double t;
    double weights[2]; // of the second and the third corner, from 0 to 1; that of the first is the rest
    pfTriangle triangle;
};

// One block of memory, without pointers out of it or into it, so that all processes that share it may use it.
struct pfHierarchy;

// Build the hierarchy of triangles, in any order, with finite corners and an area; null when there is no room in the arena
// or for the work (on the heap). Released with pfFree.
pfHierarchy *pfBuildHierarchy(std::span<const pfTriangle> triangles, void *arena);

// The nearest hit, with t from least to most; of several at the same distance the one of the lowest primitive.
bool pfNearestHit(const pfHierarchy &hierarchy, const pfLocalSegment &segment, pfTriangleHit &hit);

// Append all hits, in no fixed order. Throws std::bad_alloc.
void pfAllHits(const pfHierarchy &hierarchy, const pfLocalSegment &segment, std::vector<pfTriangleHit> &hits);

// The test of one triangle, as the hierarchy has it: its inside is closed, and neighbours that share an edge leave no gap,
// because both get the same numbers for it. Without t's limits.
bool pfHitTriangle(const pfTriangle &triangle, const pfLocalSegment &segment, pfTriangleHit &hit);
