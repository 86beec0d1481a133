#include "kernelentity.h"

#include "kernelgeneric.h"
#include "kernelutil.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace
{

constexpr char kModule[] = "kernelentity";
constexpr int kShmMode = 0666;
// The same word serves as the flags of shmat, where it must ask for nothing but a plain read-write mapping.
static_assert((kShmMode & (SHM_RDONLY | SHM_RND | SHM_REMAP | SHM_EXEC)) == 0);

constexpr uint16_t kDefaultFlags = 128;
constexpr uint16_t kSmoothLength = 16;
constexpr vuProbe kDownProbe = {.pos = {0.0F, 0.0F, 0.0F}, .dir = {0.0F, 0.0F, -1.0F}, .length = 5.0F};

uint32_t etid = 0;

// shmat reports failure by an address with all bits set.
void *const kAttachFailed = reinterpret_cast<void *>(UINTPTR_MAX);

vuEntity *entityOf(vunode *node)
{
    return reinterpret_cast<vuEntity *>(node);
}

size_t variablesSize(const vuEntity *entity)
{
    const vuDefinition *definition = entity->definition;
    return definition != nullptr && definition->layout != nullptr ? definition->layout->size : 0;
}

bool hasFileName(const vuEntity *entity, const char *fileName)
{
    const vuDefinition *definition = entity->definition;
    return definition != nullptr && definition->fileName != nullptr && strcmp(definition->fileName, fileName) == 0;
}

vuSmooth *newSmooth()
{
    auto *buffer = static_cast<vuSmooth *>(pfMalloc(sizeof(vuSmooth), pfGetSharedArena()));
    if (buffer != nullptr)
    {
        smoothInit(buffer);
    }
    return buffer;
}

void reportReception(vuRootNode *root, const vuEntity *entity)
{
    if ((entity->receive & VU_RECEIVE_DIS) != 0)
    {
        vuMessage("Notice", kModule, 728, "receive DIS");
        root->receiveFlags |= VU_RECEPTION_NEEDED;
    }
    if ((entity->receive & VU_RECEIVE_UDP) != 0)
    {
        vuMessage("Notice", kModule, 732, "receive UDP");
        root->receiveFlags |= VU_RECEPTION_NEEDED;
    }
}

// Fills shmId and shmCreated; shmCreated keeps its value when the segment can be neither found nor created.
void getSegment(vuEntity *entity, size_t size)
{
    // Without IPC_CREAT only an existing segment is found. A private key has none: it always makes a new one.
    entity->shmId = entity->shmKey == IPC_PRIVATE ? -1 : shmget(entity->shmKey, size, IPC_EXCL | kShmMode);
    if (entity->shmId >= 0)
    {
        entity->shmCreated = 0;
        return;
    }
    entity->shmId = shmget(entity->shmKey, size, IPC_CREAT | kShmMode);
    if (entity->shmId >= 0)
    {
        entity->shmCreated = 1;
    }
}

int reportAttachFailed(vuEntity *entity)
{
    vuMessage("Error", kModule, 152, "ShmemServer:  Unable to attach to the shared memory.");
    entity->vars = nullptr;
    return 0;
}

} // namespace

vuEntity *entityCreate(vuScene *scene)
{
    if (scene == nullptr)
    {
        vuMessage("Error", kModule, 616, "\033[31mCreate Entity: no Scene!\033[0m");
        return nullptr;
    }
    auto *entity = static_cast<vuEntity *>(pfMalloc(sizeof(vuEntity), pfGetSharedArena()));
    if (entity == nullptr)
    {
        vuMessage("Error", kModule, 631, "\033[31mentityCreate(): et = pfMalloc() failed!\033[0m");
        return nullptr;
    }
    entityInit(entity, nullptr);
    return entity;
}

void entityInit(vuEntity *entity, const char *name)
{
    vunodeInit(&entity->node, name);
    entity->node.type = VU_NODE_ENTITY;
    entity->id = etid++;

    entity->motionKind = VU_MOTION_NONE;
    entity->entityFlags = kDefaultFlags;
    entity->word18 = UINT32_MAX;
    entity->definition = nullptr;
    std::ranges::for_each(entity->lists, [](vulist &list) { vulistInit(&list); });
    entity->receive = 0;
    entity->vars = nullptr;
    entity->groundDistance = 0.0F;
    std::ranges::fill(entity->nodes, nullptr);
    std::ranges::fill(entity->vecB0, 0);
    std::ranges::fill(entity->vecE0, 1.0F);
    std::ranges::fill(entity->word16C, 0);
    entity->shmCreated = 0;
    entity->shmId = -1;
    entity->shmKey = 0;
    std::ranges::fill(entity->word188, 0);
    entity->word19C = -1;
    entity->moveLock = 0;
    entity->turnDirection = 0;
    entity->moveBlock = 0;
    initXForm(&entity->xform);
    entity->drState = nullptr;
    entity->recvTime = 0.0;
    entity->timeOffset = 0.0;
    entity->randomValue = rand();
    entity->word394 = 0;
    std::ranges::fill(entity->collideCount, 0);
    std::ranges::fill(entity->probes, kDownProbe);
    entity->smooth = newSmooth();
}

void entityAppend(vuScene *scene, vuEntity *entity)
{
    if (scene == nullptr || entity == nullptr)
    {
        vuMessage("Error", kModule, 467, "\033[31mNo scene or entity\033[0m");
        return;
    }
    vunodeAppend(&scene->entities, &entity->node);
}

void entityRemove(vuScene *scene, vuEntity *entity)
{
    if (scene == nullptr || entity == nullptr)
    {
        vuMessage("Error", kModule, 517, "\033[31mNo scene or entity\033[0m");
        return;
    }
    vunodeRemove(&scene->entities, &entity->node);
}

vuEntity *entityFindNamed(vuScene *scene, const char *name)
{
    vunode *node = vunodeListFindNamed(&scene->entities, name);
    if (node == nullptr)
    {
        vuMessage("Warning", kModule, 571, "Entity with name \"%s\" not found!", name);
    }
    return entityOf(node);
}

vuEntity *entityFindFilename(vuScene *scene, const char *fileName)
{
    vunode *node = scene->entities.first;
    while (node != nullptr && !hasFileName(entityOf(node), fileName))
    {
        node = node->next;
    }
    return entityOf(node);
}

void entityAllocVars(vuRootNode *root, vuEntity *entity)
{
    reportReception(root, entity);
    const size_t size = variablesSize(entity);
    if (size == 0)
    {
        return;
    }
    if (entity->shmKey < VU_SHM_FIRST_KEY)
    {
        entity->vars = pfMalloc(size, pfGetSharedArena());
    }
    else
    {
        entityAttachToSharedMemory(entity);
    }
}

int entityAttachToSharedMemory(vuEntity *entity)
{
    if (entity->shmId >= 0)
    {
        return 0;
    }
    const size_t size = variablesSize(entity);
    if (size == 0)
    {
        return entity->vars == kAttachFailed ? reportAttachFailed(entity) : 1;
    }
    getSegment(entity, size);
    if (entity->shmId < 0)
    {
        vuMessage("Error", kModule, 126, "ShmemServer:  Unable to get/create to the shared memory.");
        return 0;
    }
    // On failure shmId stays, so that entityReleaseSharedMem removes a segment created here.
    entity->vars = shmat(entity->shmId, nullptr, kShmMode);
    return entity->vars == kAttachFailed ? reportAttachFailed(entity) : 1;
}

void entityReleaseSharedMem(vuEntity *entity)
{
    if (entity->vars != nullptr)
    {
        if (entity->shmId == -1)
        {
            pfFree(entity->vars);
        }
        else
        {
            shmdt(entity->vars);
        }
    }
    if (entity->shmCreated != 0 && entity->shmId != -1)
    {
        shmctl(entity->shmId, IPC_RMID, nullptr);
    }
    entity->shmId = -1;
    entity->vars = nullptr;
}

void smoothInit(vuSmooth *buffer)
{
    *buffer = {};
    buffer->length = kSmoothLength;
}
