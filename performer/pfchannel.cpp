#include "pfchannel.h"

#include "pftype.hpp"

#include <algorithm>
#include <new>

struct pfChannel
{
    pfScene *scene; // a reference, or null
    int size[2];
    float viewport[4]; // left, right, bottom, top
    float fov[2];
    float nearFar[2];
    pfVec3 xyz;
    pfVec3 hpr;
};

namespace
{

void releaseScene(void *object, pfDeletion &deletion)
{
    pfGiveBack(static_cast<pfChannel *>(object)->scene, deletion);
}

constinit pfType channelType = {"pfChannel", nullptr, releaseScene};

bool isGiven(const char *function, const pfChannel *channel)
{
    return pfIsGiven(function, channel, channelType);
}

template<typename T>
void store(T *place, T value)
{
    if (place != nullptr)
    {
        *place = value;
    }
}

void storeVector(pfVec3 place, const pfVec3 value)
{
    if (place != nullptr)
    {
        std::copy_n(value, 3, place);
    }
}

// Whether the middle of a pixel is in a part of a side of the window.
bool contains(int size, float from, float to, int pixel)
{
    const double middle = pixel + 0.5;
    return pixel >= 0 && pixel < size && middle >= static_cast<double>(from) * size &&
           middle < static_cast<double>(to) * size;
}

} // namespace

pfChannel *pfNewChan(void *arena)
{
    void *memory = pfMalloc(sizeof(pfChannel), arena);
    if (memory == nullptr)
    {
        return nullptr;
    }
    pfSetType(memory, channelType);
    return new (memory) pfChannel{.scene = nullptr,
                                  .size = {640, 480},
                                  .viewport = {0.0F, 1.0F, 0.0F, 1.0F},
                                  .fov = {45.0F, 0.0F},
                                  .nearFar = {1.0F, 10000.0F},
                                  .xyz = {},
                                  .hpr = {}};
}

void pfChanWindowSize(pfChannel *channel, int width, int height)
{
    if (isGiven(__func__, channel))
    {
        channel->size[0] = width;
        channel->size[1] = height;
    }
}

void pfGetChanWindowSize(const pfChannel *channel, int *width, int *height)
{
    if (isGiven(__func__, channel))
    {
        store(width, channel->size[0]);
        store(height, channel->size[1]);
    }
}

void pfChanViewport(pfChannel *channel, float left, float right, float bottom, float top)
{
    if (isGiven(__func__, channel))
    {
        const float sides[] = {left, right, bottom, top};
        std::copy_n(sides, 4, channel->viewport);
    }
}

void pfGetChanViewport(const pfChannel *channel, float *left, float *right, float *bottom, float *top)
{
    if (isGiven(__func__, channel))
    {
        store(left, channel->viewport[0]);
        store(right, channel->viewport[1]);
        store(bottom, channel->viewport[2]);
        store(top, channel->viewport[3]);
    }
}

int pfChanContainsPixel(const pfChannel *channel, int x, int y)
{
    if (!isGiven(__func__, channel))
    {
        return 0;
    }
    const auto &[left, right, bottom, top] = channel->viewport;
    return contains(channel->size[0], left, right, x) && contains(channel->size[1], bottom, top, y) ? 1 : 0;
}

void pfChanFOV(pfChannel *channel, float horizontal, float vertical)
{
    if (isGiven(__func__, channel))
    {
        channel->fov[0] = horizontal;
        channel->fov[1] = vertical;
    }
}

void pfGetChanFOV(const pfChannel *channel, float *horizontal, float *vertical)
{
    if (isGiven(__func__, channel))
    {
        store(horizontal, channel->fov[0]);
        store(vertical, channel->fov[1]);
    }
}

void pfChanNearFar(pfChannel *channel, float nearest, float farthest)
{
    if (isGiven(__func__, channel))
    {
        channel->nearFar[0] = nearest;
        channel->nearFar[1] = farthest;
    }
}

void pfGetChanNearFar(const pfChannel *channel, float *nearest, float *farthest)
{
    if (isGiven(__func__, channel))
    {
        store(nearest, channel->nearFar[0]);
        store(farthest, channel->nearFar[1]);
    }
}

void pfChanView(pfChannel *channel, const pfVec3 xyz, const pfVec3 hpr)
{
    if (isGiven(__func__, channel))
    {
        std::copy_n(xyz, 3, channel->xyz);
        std::copy_n(hpr, 3, channel->hpr);
    }
}

void pfGetChanView(const pfChannel *channel, pfVec3 xyz, pfVec3 hpr)
{
    if (isGiven(__func__, channel))
    {
        storeVector(xyz, channel->xyz);
        storeVector(hpr, channel->hpr);
    }
}

void pfChanScene(pfChannel *channel, pfScene *scene)
{
    if (isGiven(__func__, channel) && (scene == nullptr || pfIsGiven(__func__, scene, *pfGetSceneClassType())))
    {
        pfExchange(channel->scene, scene);
    }
}

pfScene *pfGetChanScene(const pfChannel *channel)
{
    return isGiven(__func__, channel) ? channel->scene : nullptr;
}
