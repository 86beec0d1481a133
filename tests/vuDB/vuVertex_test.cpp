// This program has the module's source in it, and its allocations are wrapped by the linker.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <random>

#include <tolvin/vuDB/vuVertex.h>

#include "support/capture.h"

// How many allocations succeed before the others fail, and how many blocks are in use.
static int succeeding = INT_MAX, inUse;

static bool allocate()
{
    const bool succeeds = succeeding > 0;
    succeeding -= succeeds;
    inUse += succeeds;
    return succeeds;
}

extern "C" {
void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void __real_free(void *);

void *__wrap_malloc(size_t bytes)
{
    return allocate() ? __real_malloc(bytes) : nullptr;
}
void *__wrap_calloc(size_t count, size_t bytes)
{
    return allocate() ? __real_calloc(count, bytes) : nullptr;
}
void __wrap_free(void *block)
{
    inUse -= block != nullptr;
    __real_free(block);
}
}

// What action reports, and how often on end, without module, line and colour; "?" where these are wrong. Of its allocations,
// so many succeed.
static std::string reports(const std::function<void()> &action, int allocations = INT_MAX)
{
    succeeding = allocations;
    std::istringstream lines(capturedStderr(action));
    succeeding = INT_MAX;
    std::string result, last;
    int times = 0;
    for (std::string line; std::getline(lines, line);)
    {
        int number = 0, start = 0;
        sscanf(line.c_str(), "vuDB/vuVertex:%d %n", &number, &start);
        const size_t red = line.find("\033[31m"), end = line.find("\033[0m");
        const bool right = number > 0 && red < end && end == line.size() - 4;
        line = right ? line.substr(start, red - start) + line.substr(red + 5, end - red - 5) : "?" + line;
        result.resize(line == last ? result.rfind('\n', result.size() - 2) + 1 : result.size());
        times = line == last ? times + 1 : 1;
        result += std::to_string(times) + " " + line + "\n";
        last = line;
    }
    return result;
}

TEST(Vertices, MergeGrowAndLeaveHoles)
{
    VertexArray *a = createVertexArray();
    Vertex *same = createVertex(1, 2, 3), *deleted = createVertex(-0.0F, 5, 6);
    EXPECT_EQ(addVertexToArray(a, createVertex(1, 2, 3)), 0);
    EXPECT_EQ(addVertexToArray(a, deleted), 1);
    EXPECT_EQ(addVertexToArray(a, same), 0);
    const Vertex zero = {0, 5, 6}, x = {9, 2, 3}, y = {1, 9, 3}, z = {1, 2, 9}, nan = {NAN, 0, 0};
    EXPECT_TRUE(sameCoords(&zero, deleted) == 1 && sameCoords(&nan, &nan) == 0);
    EXPECT_FALSE(sameCoords(&x, same) || sameCoords(&y, same) || sameCoords(&z, same));
    deleteVertexFromArray(a, 1);
    EXPECT_TRUE(a->numVertices == 2 && getIndexedVertex(a, 1) == nullptr && getIndexedVertex(a, 2) == nullptr);
    EXPECT_EQ(reports([&] { addVertexToArray(a, deleted); }), "1 Error: sameCoords(): v1 == NULL || v2 == NULL\n");
    EXPECT_TRUE(a->numVertices == 3 && getIndexedVertex(a, 2) == deleted);

    vuIndexList *list = vuCreateIndexList();
    vuAddIndexToList(list, 7);
    vuAddIndexToList(list, 9);
    char text[200] = {};
    FILE *file = fmemopen(text, sizeof text, "w");
    EXPECT_EQ(reports([&] { printVertexArray(file, a); }), "3 Error: getVertexPoint(): vertex == NULL\n");
    vuPrintIndexList(file, list);
    fclose(file);
    EXPECT_STREQ(text, "0: 1.000000 2.000000 3.000000\n1: 0.000000 0.000000 0.000000\n2: -0.000000 5.000000 6.000000\n"
                       "0. Index:7\n1. Index:9\n");

    a->vertices[1] = same;
    for (int i = 3; i < 101; ++i)
    {
        EXPECT_EQ(a->maxVertices, 100);
        EXPECT_EQ(addVertexToArray(a, createVertex(0, 0, static_cast<float>(i))), i);
    }
    EXPECT_TRUE(a->maxVertices == 200 && a->numVertices == 101 && a->vertices[199] == nullptr);
    EXPECT_TRUE(growVertexArray(a, 0) == a && a->maxVertices == 200 && a->vertices[100]->z == 100);
    for (int i = 2; i < 41; ++i)
    {
        vuAddIndexToList(list, i % 3 == 0 ? 5 : i);
        EXPECT_EQ(list->maxIndices, i < 10 ? 10 : i < 40 ? 40 : 70);
    }
    EXPECT_TRUE(list->numIndices == 41 && vuGetIndexFromList(list, 1) == 9 && vuGetIndexFromList(list, 39) == 5);
    EXPECT_TRUE(vuGetIndexFromList(list, 40) == 40 && vuGetIndexFromList(list, 41) == -1 && list->indices[69] == -1);
    EXPECT_TRUE(vuGetIndexFromList(list, -1) == -1 && vuGrowIndexList(list, 5) == list && list->maxIndices == 75);
    freeVertexArray(a);
    vuFreeIndexList(list);
    vuFreeIndexList(nullptr);
    EXPECT_EQ(inUse, 0);
}

TEST(Vertices, MisuseChangesNothing)
{
    Vertex v = {}, *slots[3] = {&v, &v, &v};
    int entries[2] = {4, 5};
    VertexArray a = {3, 1, slots}, most = {INT_MAX - 50, 0, nullptr};
    vuIndexList list = {2, 1, entries}, longest = {INT_MAX - 5, 0, nullptr};
    const auto misuse = [&]
    {
        EXPECT_EQ(getVertexPoint3DfX(nullptr) + getVertexPoint3DfY(nullptr) + getVertexPoint3DfZ(nullptr), 0);
        EXPECT_TRUE(growVertexArray(nullptr, -1) == nullptr && growVertexArray(&a, -1) == &a);
        growVertexArray(&most, 100);
        freeVertexArray(nullptr);
        EXPECT_TRUE(sameCoords(nullptr, &v) == 0 && sameCoords(&v, nullptr) == 0);
        EXPECT_TRUE(addVertexToArray(nullptr, &v) == -1 && addVertexToArray(&a, nullptr) == -1);
        EXPECT_EQ(addVerticesToArray(nullptr, slots, 0, nullptr) + addVerticesToArray(&a, nullptr, 1, nullptr), -2);
        EXPECT_EQ(addVerticesToArray(&a, nullptr, 0, nullptr) + addVerticesToArray(&a, slots, -1, nullptr), 0);
        EXPECT_EQ(getIndexedVertex(nullptr, 0), nullptr);
        EXPECT_TRUE(getIndexedVertex(&a, -1) == nullptr && getIndexedVertex(&a, 2) == nullptr);
        deleteVertexFromArray(nullptr, 0);
        deleteVertexFromArray(&a, -1);
        deleteVertexFromArray(&a, 3);
        printVertexArray(nullptr, &a);
        printVertexArray(stdout, nullptr);
        EXPECT_TRUE(vuGrowIndexList(nullptr, -1) == nullptr && vuGrowIndexList(&list, -1) == &list);
        vuGrowIndexList(&longest, 6);
        vuAddIndexToList(nullptr, 1);
        EXPECT_TRUE(vuGetIndexFromList(nullptr, 0) == -1 && vuGetIndexFromList(&list, 2) == -1);
        vuPrintIndexList(stdout, nullptr);
    };
    const std::string expected = "3 Error: getVertexPoint(): vertex == NULL\n"
                                 "1 Error: growVertexArray(): varray == NULL\n"
                                 "1 Warning: growVertexArray(): addSize < 0\n"
                                 "1 Error: growVertexArray(): no room for 2147483697 entries\n"
                                 "1 Error: freeVertexArray(): varray == NULL\n"
                                 "2 Error: sameCoords(): v1 == NULL || v2 == NULL\n"
                                 "2 Error: addVertexToArray():varray == NULL || vertex == NULL\n"
                                 "2 Error: addVerticesToArray(): varray == NULL || vertices == NULL\n"
                                 "1 Error: getIndexedVertex(): varray == NULL\n"
                                 "2 Error: getIndexedVertex(): Index < 0 or Index > varray->numVertices\n"
                                 "1 Error: deleteVertexFromArray(): varray == NULL\n"
                                 "1 Error: deleteVertexFromArray(): Index out of range: (-1 > 3)\n"
                                 "1 Error: deleteVertexFromArray(): Index out of range: (3 > 3)\n"
                                 "2 Error: printVertexArray(): file == NULL || varray == NULL\n"
                                 "1 Error: vuGrowIndexList(): vlist == NULL\n"
                                 "1 Warning: vuGrowIndexList(): addSize < 0\n"
                                 "1 Error: vuGrowIndexList(): no room for 2147483648 entries\n"
                                 "1 Error: vuAddIndexToList(): vlist == NULL\n"
                                 "1 Error: vuGetIndexFromList(): vlist == NULL\n"
                                 "1 Error: vuGetIndexFromList(): Index out of range! (2 > 1)\n"
                                 "1 Error: vuPrintList(): vlist == NULL\n";
    EXPECT_EQ(reports(misuse), expected);
    EXPECT_TRUE(a.maxVertices == 3 && a.numVertices == 1 && a.vertices == slots && list.maxIndices == 2);
    EXPECT_TRUE(most.maxVertices == INT_MAX - 50 && longest.maxIndices == INT_MAX - 5);

    v.x = NAN;
    a.numVertices = a.maxVertices;
    list.numIndices = list.maxIndices;
    const auto withoutMemory = [&]
    {
        EXPECT_EQ(addVertexToArray(&a, &v), -1);
        vuAddIndexToList(&list, 6);
        EXPECT_TRUE(createVertexArray() == nullptr && vuCreateIndexList() == nullptr && !createVertex(1, 2, 3));
    };
    const std::string noArray = "1 Error: createVertexArray(): malloc of array failed!\n";
    EXPECT_EQ(reports(withoutMemory, 0), "1 Error: growVertexArray(): no room for 103 entries\n"
                                         "1 Error: vuGrowIndexList(): no room for 32 entries\n" +
                                             noArray);
    EXPECT_TRUE(a.numVertices == 3 && list.numIndices == 2);
    EXPECT_EQ(reports([] { createVertexArray(); }, 1) + reports([] { vuCreateIndexList(); }, 1), noArray);
    EXPECT_EQ(inUse, 0);
}

// Vertices, some of them null; and an array with vertices of the same kind, with holes and with vertices that have become
// equal, once for a loop and once for all at a time. None of the vertices are the arrays' own.
struct Many
{
    std::mt19937 engine{5};
    std::vector<Vertex> pool;
    std::vector<Vertex *> vertices;
    std::vector<int> expected, indices;
    VertexArray loop = {}, bulk = {};

    // Of coordinates, there are 0 some special ones, 1 a few, 2 hardly any twice.
    Many(size_t before, size_t count, int kind) : pool(before + count), expected(count), indices(count, -99)
    {
        const float special[] = {0, -0.0F, 1, NAN, -NAN, INFINITY, 1e-40F, -1e-40F};
        const size_t longAxis = pool.size() / 2 % 3;
        for (size_t i = 0; i < 3 * pool.size(); ++i)
        {
            const auto any = engine() % (kind == 2 ? UINT32_MAX : i % 3 == longAxis ? 99 : 3);
            float Vertex::*const axes[] = {&Vertex::x, &Vertex::y, &Vertex::z};
            pool[i / 3].*axes[i % 3] = kind == 0 ? special[engine() % 8] : static_cast<float>(any);
        }
        for (size_t i = 0; i < count; ++i)
        {
            vertices.push_back(kind == 2 ? &pool[before + i] : engine() % 50 ? &pool[engine() % pool.size()] : nullptr);
        }
        for (size_t i = 0; i < before; ++i)
        {
            addVertexToArray(&loop, &pool[i]);
        }
        for (int i = 0; i < loop.numVertices / 30; ++i)
        {
            deleteVertexFromArray(&loop, static_cast<int>(engine() % before));
            pool[engine() % before] = pool[engine() % before];
        }
        growVertexArray(&bulk, loop.maxVertices);
        std::copy_n(loop.vertices, loop.numVertices, bulk.vertices);
        bulk.numVertices = loop.numVertices;
        const auto add = [this](Vertex *vertex) { return addVertexToArray(&loop, vertex); };
        capturedStderr([&] { std::transform(vertices.begin(), vertices.end(), expected.begin(), add); });
    }
    ~Many()
    {
        free(loop.vertices);
        free(bulk.vertices);
        EXPECT_EQ(inUse, 0);
    }

    int addAtOnce(bool indicesToo)
    {
        const auto count = static_cast<int>(vertices.size());
        return addVerticesToArray(&bulk, vertices.data(), count, indicesToo ? indices.data() : nullptr);
    }
};

TEST(Vertices, AtOnceAsInALoop)
{
    for (int run = 0; run < 240; ++run)
    {
        const size_t before[] = {0, 1, 63, 100, 130, 400}, counts[] = {1, 11, 12, 64, 65, 99, 100, 101, 200, 1100};
        Many many(before[run / 40], counts[run % 10], run / 10 % 4 % 3);
        SCOPED_TRACE(run);
        const bool indicesToo = run % 7 != 0;
        const int had = many.bulk.numVertices;
        const auto nulls = std::count(many.vertices.begin(), many.vertices.end(), nullptr);
        int taken = 0;
        EXPECT_EQ(reports([&] { taken = many.addAtOnce(indicesToo); }),
                  nulls ? std::to_string(nulls) + " Error: addVerticesToArray(): vertex == NULL\n" : "");
        EXPECT_EQ(many.indices == many.expected, indicesToo);
        EXPECT_TRUE(taken == many.loop.numVertices - had && many.bulk.numVertices == many.loop.numVertices);
        EXPECT_EQ(many.bulk.maxVertices, many.loop.maxVertices);
        EXPECT_TRUE(std::equal(many.loop.vertices, many.loop.vertices + many.loop.maxVertices, many.bulk.vertices));
    }
}

// All vertices are new; the array has room for one.
TEST(Vertices, AtOnceWithoutMemory)
{
    for (const size_t count : {4, 1500})
    {
        bool complete = false;
        for (int allocations = 0; !complete; ++allocations)
        {
            SCOPED_TRACE(testing::Message() << count << " with " << allocations);
            Many many(99, count, 2);
            int taken = 0;
            complete = reports([&] { taken = many.addAtOnce(true); }, allocations).empty();
            const auto begin = many.indices.begin(), end = many.indices.end(), missing = std::find(begin, end, -1);
            EXPECT_TRUE((missing == end) == complete && std::count(missing, end, -1) == end - missing);
            EXPECT_TRUE(taken == missing - begin && std::equal(begin, missing, many.expected.begin()));
            EXPECT_EQ(many.bulk.numVertices, 99 + taken);
            EXPECT_LE(many.bulk.numVertices, many.bulk.maxVertices);
            EXPECT_TRUE(std::equal(many.bulk.vertices, many.bulk.vertices + 99 + taken, many.loop.vertices));
        }
    }
}
