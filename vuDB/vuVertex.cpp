#include "vuVertex.h"

#include "../kernel/kernelutil.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include <sys/mman.h>

namespace
{

constexpr char kModule[] = "vuDB/vuVertex";

// Sizes of new arrays and lists, and by how much they grow.
constexpr int kSlots = 100, kMoreSlots = 100, kEntries = 10, kMoreEntries = 30;

void report(int line, const char *text, const char *level = "Error")
{
    vuMessage(level, kModule, line, "\033[31m%s\033[0m", text);
}

// The first touch of a page costs more than all that is done in it, so that large blocks take large pages if they can.
void preferHugePages(void *block, size_t bytes)
{
    constexpr uintptr_t page = 4096;
    if (bytes >= size_t{4} << 20)
    {
        const uintptr_t start = (reinterpret_cast<uintptr_t>(block) + page - 1) / page * page;
        const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) / page * page;
        madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);
    }
}

// A copy of a block with addSize more entries, in which only the first, used, ones are not empty; null, with a report,
// where there is no room for it.
template<class Entry>
Entry *enlarged(const Entry *entries, int used, int size, int64_t addSize, Entry empty, const char *function)
{
    const int64_t wanted = size + addSize;
    const size_t count = static_cast<size_t>(std::max<int64_t>(wanted, 1));
    auto *larger = static_cast<Entry *>(wanted <= INT_MAX ? calloc(count, sizeof(Entry)) : nullptr);
    if (larger == nullptr)
    {
        vuMessage("Error", kModule, __LINE__, "\033[31m%s(): no room for %lld entries\033[0m", function,
                  static_cast<long long>(wanted));
        return nullptr;
    }
    preferHugePages(larger, count * sizeof(Entry));
    std::fill(std::copy_n(entries, used, larger), larger + count, empty);
    return larger;
}

void growSlots(VertexArray *array, int64_t addSize)
{
    Vertex **slots = enlarged<Vertex *>(array->vertices, array->numVertices, array->maxVertices, addSize, nullptr,
                                        "growVertexArray");
    if (slots != nullptr)
    {
        free(array->vertices);
        array->vertices = slots;
        array->maxVertices += static_cast<int>(addSize);
    }
}

float coordinate(const Vertex *vertex, float Vertex::*which)
{
    if (vertex == nullptr)
    {
        report(__LINE__, "getVertexPoint(): vertex == NULL");
        return 0;
    }
    return vertex->*which;
}

bool equal(const Vertex &v1, const Vertex &v2)
{
    return v1.x == v2.x && v1.y == v2.y && v1.z == v2.z;
}

// The slot of the first vertex that equals this one; the number of slots in use if none does.
int find(const VertexArray &array, const Vertex &vertex, bool reportHoles)
{
    int slot = 0;
    for (; slot < array.numVertices; ++slot)
    {
        const Vertex *held = array.vertices[slot];
        if (held != nullptr ? equal(*held, vertex) : reportHoles && sameCoords(held, &vertex) != 0)
        {
            break;
        }
    }
    return slot;
}

// Find a vertex or append it; -1 for want of memory.
int addVertex(VertexArray *array, Vertex *vertex, bool reportHoles)
{
    const int slot = find(*array, *vertex, reportHoles);
    if (slot == array->numVertices)
    {
        if (slot >= array->maxVertices)
        {
            growSlots(array, kMoreSlots);
        }
        if (slot >= array->maxVertices)
        {
            return -1;
        }
        array->vertices[slot] = vertex;
        ++array->numVertices;
    }
    return slot;
}

void reportNullVertex()
{
    report(__LINE__, "addVerticesToArray(): vertex == NULL");
}

// Many vertices at once, through a hash table of the coordinates that the array has and those that it is going to have.
// Vertices go through in blocks, so that what one needs from memory, its coordinates and its place in the table, is requested
// while others are worked on.

constexpr size_t kBlock = 64;

// A table costs more than it saves for fewer vertices than this.
constexpr int kTableFrom = 12;

// Coordinates as bits, the same for equal numbers.
struct Key
{
    uint32_t x;
    uint32_t y;
    uint32_t z;
};

bool operator==(const Key &a, const Key &b)
{
    return a.x == b.x && a.y == b.y && a.z == b.z;
}

// Stands for what equals nothing: holes, null pointers, coordinates that are no numbers. No number has these bits.
constexpr Key kNone = {UINT32_MAX, 0, 0};

bool isNone(const Key &key)
{
    return key.x == kNone.x;
}

// By comparison, as that settles -0, and denormal numbers where the processor is set to take them for 0.
uint32_t bitsOf(float number)
{
    return number == 0 ? 0 : std::bit_cast<uint32_t>(number);
}

Key keyOf(const Vertex *vertex)
{
    if (vertex == nullptr || std::isunordered(vertex->x, vertex->y) || std::isnan(vertex->z))
    {
        return kNone;
    }
    return {bitsOf(vertex->x), bitsOf(vertex->y), bitsOf(vertex->z)};
}

// Products carry upwards only, so the upper half is the hash, and goes back into the lower one in between.
uint32_t hashOf(const Key &key, uint64_t seed)
{
    const uint64_t xy = ((key.x | uint64_t{key.y} << 32) ^ seed) * 0x9E3779B97F4A7C15;
    return static_cast<uint32_t>(((xy ^ xy >> 32) + key.z) * 0xD6E8FEB86659FD93 >> 32);
}

class VertexTable
{
public:
    explicit VertexTable(const VertexArray &array)
        : array_(array),
          before_(static_cast<size_t>(array.numVertices)),
          size_(before_)
    {
    }
    VertexTable(const VertexTable &) = delete;
    VertexTable &operator=(const VertexTable &) = delete;
    ~VertexTable()
    {
        free(places_);
        free(firsts_);
    }

    // Take vertices, give their indices; returns for how many there was memory.
    int take(Vertex *const *vertices, int count, int *indices);

    // Slots in use with the vertices that were taken.
    int size() const
    {
        return static_cast<int>(size_);
    }

    // Which of the vertices has got this slot, one behind those of the array.
    int firstOf(int slot) const
    {
        return firsts_[static_cast<size_t>(slot) - before_];
    }

private:
    struct Place
    {
        Key key;
        uint32_t number; // slot + 1; 0 where nothing is
    };

    struct Block
    {
        Key keys[kBlock];
        uint32_t homes[kBlock];
    };

    static constexpr size_t kMostSlots = std::min<size_t>(INT_MAX, PTRDIFF_MAX / sizeof(Place) / 2);

    const VertexArray &array_;
    // Another one in each process, so that nobody can make up coordinates that all collide.
    const uint64_t seed_ = reinterpret_cast<uintptr_t>(&array_) * 0xC2B2AE3D27D4EB4F;
    size_t before_;
    size_t size_;
    size_t capacity_ = 0;
    int *firsts_ = nullptr;

    // Open addressing, linear probing, three quarters full at most, ordered by hash but for collisions.
    Place *places_ = nullptr;
    size_t numPlaces_ = 0;

    uint32_t homeOf(const Key &key) const
    {
        return static_cast<uint32_t>(uint64_t{hashOf(key, seed_)} * numPlaces_ >> 32);
    }

    bool reserve(size_t capacity);
    void takeArray();
    void fetch(Block &block, Vertex *const *vertices, size_t count, size_t ahead) const;
    size_t slotOf(const Key &key, size_t home, size_t slot);
};

// Room for so many slots. False, with a report, when there is no memory.
bool VertexTable::reserve(size_t capacity)
{
    const size_t numPlaces = capacity + capacity / 3;
    auto *firsts = static_cast<int *>(capacity <= kMostSlots ? malloc((capacity - before_) * sizeof(int)) : nullptr);
    auto *places = static_cast<Place *>(firsts != nullptr ? calloc(numPlaces, sizeof(Place)) : nullptr);
    if (places == nullptr)
    {
        free(firsts);
        report(__LINE__, "addVerticesToArray(): malloc of hash table failed!");
        return false;
    }
    preferHugePages(firsts, (capacity - before_) * sizeof(int));
    preferHugePages(places, numPlaces * sizeof(Place));
    std::swap(firsts_, firsts);
    std::swap(places_, places);
    std::copy_n(firsts, size_ - before_, firsts_);
    const size_t numFormer = std::exchange(numPlaces_, numPlaces);
    capacity_ = capacity;
    for (size_t i = 0; i < numFormer; ++i)
    {
        if (places[i].number != 0)
        {
            slotOf(places[i].key, homeOf(places[i].key), places[i].number - 1);
        }
    }
    free(firsts);
    free(places);
    return true;
}

// The keys of a block and where they belong; behind it, there are at least `ahead` more vertices.
void VertexTable::fetch(Block &block, Vertex *const *vertices, size_t count, size_t ahead) const
{
    for (size_t i = 0; i < count; ++i)
    {
        if (i < ahead)
        {
            __builtin_prefetch(vertices[count + i]);
        }
        block.keys[i] = keyOf(vertices[i]);
        block.homes[i] = homeOf(block.keys[i]);
        __builtin_prefetch(&places_[block.homes[i]]);
    }
}

// The slot of a key; if it is not known yet, this one, which is noted.
size_t VertexTable::slotOf(const Key &key, size_t place, size_t slot)
{
    if (isNone(key))
    {
        return slot;
    }
    while (places_[place].number != 0)
    {
        if (places_[place].key == key)
        {
            return places_[place].number - 1;
        }
        place = place + 1 < numPlaces_ ? place + 1 : 0;
    }
    places_[place] = {key, static_cast<uint32_t>(slot + 1)};
    return slot;
}

void VertexTable::takeArray()
{
    Block block;
    for (size_t done = 0, number = 0; done < before_; done += number)
    {
        number = std::min(kBlock, before_ - done);
        fetch(block, array_.vertices + done, number, std::min(kBlock, before_ - done - number));
        for (size_t i = 0; i < number; ++i)
        {
            slotOf(block.keys[i], block.homes[i], done + i);
        }
    }
}

int VertexTable::take(Vertex *const *vertices, int count, int *indices)
{
    // Most meshes have each vertex four times and more.
    const auto total = static_cast<size_t>(count);
    if (!reserve(before_ + std::min(total, total / 4 + kBlock)))
    {
        return 0;
    }
    takeArray();
    Block block;
    for (size_t done = 0, number = 0; done < total; done += number)
    {
        number = std::min(kBlock, total - done);
        if (size_ + number > capacity_ && !reserve(before_ + total))
        {
            return static_cast<int>(done);
        }
        fetch(block, vertices + done, number, std::min(kBlock, total - done - number));
        for (size_t i = 0; i < number; ++i)
        {
            size_t slot = slotOf(block.keys[i], block.homes[i], size_);
            if (vertices[done + i] == nullptr)
            {
                reportNullVertex();
                slot = static_cast<size_t>(-1);
            }
            else if (slot == size_)
            {
                firsts_[size_++ - before_] = static_cast<int>(done + i);
            }
            if (indices != nullptr)
            {
                indices[done + i] = static_cast<int>(slot);
            }
        }
    }
    return count;
}

// Both return the number of vertices before the first for which there is no memory.

int addByTable(VertexArray *array, Vertex *const *vertices, int count, int *indices)
{
    VertexTable table(*array);
    int done = table.take(vertices, count, indices), end = table.size();
    const int64_t missing = int64_t{end} - array->maxVertices;
    if (missing > 0)
    {
        growSlots(array, (missing + kMoreSlots - 1) / kMoreSlots * kMoreSlots);
    }
    if (end > array->maxVertices)
    {
        end = array->maxVertices;
        done = table.firstOf(end);
    }
    for (int &slot = array->numVertices; slot < end; ++slot)
    {
        array->vertices[slot] = vertices[table.firstOf(slot)];
    }
    return done;
}

int addOneByOne(VertexArray *array, Vertex *const *vertices, int count, int *indices)
{
    for (int i = 0; i < count; ++i)
    {
        int slot = -1;
        if (vertices[i] == nullptr)
        {
            reportNullVertex();
        }
        else if ((slot = addVertex(array, vertices[i], false)) < 0)
        {
            return i;
        }
        if (indices != nullptr)
        {
            indices[i] = slot;
        }
    }
    return count;
}

} // namespace

Vertex *createVertex(float x, float y, float z)
{
    auto *vertex = static_cast<Vertex *>(malloc(sizeof(Vertex)));
    if (vertex != nullptr)
    {
        *vertex = {x, y, z};
    }
    return vertex;
}

float getVertexPoint3DfX(const Vertex *vertex)
{
    return coordinate(vertex, &Vertex::x);
}

float getVertexPoint3DfY(const Vertex *vertex)
{
    return coordinate(vertex, &Vertex::y);
}

float getVertexPoint3DfZ(const Vertex *vertex)
{
    return coordinate(vertex, &Vertex::z);
}

VertexArray *createVertexArray(void)
{
    auto *array = static_cast<VertexArray *>(malloc(sizeof(VertexArray)));
    auto *slots = static_cast<Vertex **>(calloc(kSlots, sizeof(Vertex *)));
    if (array == nullptr || slots == nullptr)
    {
        report(__LINE__, "createVertexArray(): malloc of array failed!");
        free(array);
        free(slots);
        return nullptr;
    }
    *array = {kSlots, 0, slots};
    return array;
}

VertexArray *growVertexArray(VertexArray *array, int addSize)
{
    if (array == nullptr)
    {
        report(__LINE__, "growVertexArray(): varray == NULL");
    }
    else if (addSize < 0)
    {
        report(__LINE__, "growVertexArray(): addSize < 0", "Warning");
    }
    else
    {
        growSlots(array, addSize);
    }
    return array;
}

void freeVertexArray(VertexArray *array)
{
    if (array == nullptr)
    {
        report(__LINE__, "freeVertexArray(): varray == NULL");
        return;
    }
    for (int slot = 0; slot < array->maxVertices; ++slot)
    {
        free(array->vertices[slot]);
    }
    free(array->vertices);
    free(array);
}

int sameCoords(const Vertex *v1, const Vertex *v2)
{
    if (v1 == nullptr || v2 == nullptr)
    {
        report(__LINE__, "sameCoords(): v1 == NULL || v2 == NULL");
        return 0;
    }
    return equal(*v1, *v2) ? 1 : 0;
}

int addVertexToArray(VertexArray *array, Vertex *vertex)
{
    if (array == nullptr || vertex == nullptr)
    {
        report(__LINE__, "addVertexToArray():varray == NULL || vertex == NULL");
        return -1;
    }
    return addVertex(array, vertex, true);
}

int addVerticesToArray(VertexArray *array, Vertex *const *vertices, int count, int *indices)
{
    if (array == nullptr || (vertices == nullptr && count > 0))
    {
        report(__LINE__, "addVerticesToArray(): varray == NULL || vertices == NULL");
        return -1;
    }
    if (count <= 0)
    {
        return 0;
    }
    const int before = array->numVertices;
    const int done = (count < kTableFrom ? addOneByOne : addByTable)(array, vertices, count, indices);
    if (indices != nullptr)
    {
        std::fill(indices + done, indices + count, -1);
    }
    return array->numVertices - before;
}

Vertex *getIndexedVertex(const VertexArray *array, int index)
{
    if (array == nullptr)
    {
        report(__LINE__, "getIndexedVertex(): varray == NULL");
        return nullptr;
    }
    if (index < 0 || index > array->numVertices)
    {
        report(__LINE__, "getIndexedVertex(): Index < 0 or Index > varray->numVertices");
        return nullptr;
    }
    return index < array->numVertices ? array->vertices[index] : nullptr;
}

void deleteVertexFromArray(VertexArray *array, int index)
{
    if (array == nullptr)
    {
        report(__LINE__, "deleteVertexFromArray(): varray == NULL");
    }
    else if (index < 0 || index >= array->maxVertices)
    {
        vuMessage("Error", kModule, __LINE__, "\033[31mdeleteVertexFromArray(): Index out of range: (%d > %d)\033[0m",
                  index, array->maxVertices);
    }
    else
    {
        array->vertices[index] = nullptr;
    }
}

void printVertexArray(FILE *file, const VertexArray *array)
{
    if (file == nullptr || array == nullptr)
    {
        report(__LINE__, "printVertexArray(): file == NULL || varray == NULL");
        return;
    }
    for (int i = 0; i < array->numVertices; ++i)
    {
        const Vertex *vertex = getIndexedVertex(array, i);
        fprintf(file, "%d: ", i);
        fprintf(file, "%f ", static_cast<double>(getVertexPoint3DfX(vertex)));
        fprintf(file, "%f ", static_cast<double>(getVertexPoint3DfY(vertex)));
        fprintf(file, "%f\n", static_cast<double>(getVertexPoint3DfZ(vertex)));
    }
}

vuIndexList *vuCreateIndexList(void)
{
    auto *list = static_cast<vuIndexList *>(malloc(sizeof(vuIndexList)));
    auto *indices = static_cast<int *>(malloc(kEntries * sizeof(int)));
    if (list == nullptr || indices == nullptr)
    {
        free(list);
        free(indices);
        return nullptr;
    }
    std::fill_n(indices, kEntries, -1);
    *list = {kEntries, 0, indices};
    return list;
}

void vuFreeIndexList(vuIndexList *list)
{
    if (list != nullptr)
    {
        free(list->indices);
        free(list);
    }
}

vuIndexList *vuGrowIndexList(vuIndexList *list, int addSize)
{
    if (list == nullptr)
    {
        report(__LINE__, "vuGrowIndexList(): vlist == NULL");
        return nullptr;
    }
    if (addSize < 0)
    {
        report(__LINE__, "vuGrowIndexList(): addSize < 0", "Warning");
        return list;
    }
    int *indices = enlarged(list->indices, list->maxIndices, list->maxIndices, addSize, -1, "vuGrowIndexList");
    if (indices != nullptr)
    {
        free(list->indices);
        list->indices = indices;
        list->maxIndices += addSize;
    }
    return list;
}

void vuAddIndexToList(vuIndexList *list, int index)
{
    if (list == nullptr)
    {
        report(__LINE__, "vuAddIndexToList(): vlist == NULL");
        return;
    }
    if (list->numIndices >= list->maxIndices)
    {
        vuGrowIndexList(list, kMoreEntries);
    }
    if (list->numIndices < list->maxIndices)
    {
        list->indices[list->numIndices++] = index;
    }
}

int vuGetIndexFromList(const vuIndexList *list, int i)
{
    if (list == nullptr)
    {
        report(__LINE__, "vuGetIndexFromList(): vlist == NULL");
        return -1;
    }
    if (i > list->numIndices)
    {
        vuMessage("Error", kModule, __LINE__, "\033[31mvuGetIndexFromList(): Index out of range! (%d > %d)\033[0m", i,
                  list->numIndices);
        return -1;
    }
    return i >= 0 && i < list->numIndices ? list->indices[i] : -1;
}

void vuPrintIndexList(FILE *stream, const vuIndexList *list)
{
    if (list == nullptr)
    {
        report(__LINE__, "vuPrintList(): vlist == NULL");
        return;
    }
    const int count = stream != nullptr ? list->numIndices : 0;
    for (int i = 0; i < count; ++i)
    {
        fprintf(stream, "%d. Index:%d\n", i, list->indices[i]);
    }
}
