#include "kernelfx.h"

#include "../performer/pf.h"
#include "kernelutil.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr char kModule[] = "kernelfx";

vuEffect *effectOf(vunode *node)
{
    return reinterpret_cast<vuEffect *>(node);
}

const char *shown(const char *text)
{
    return text != nullptr ? text : "";
}

// True, and reported, without an effect.
bool isMissing(const vuEffect *fx)
{
    if (fx == nullptr)
    {
        vuMessage("Debug", kModule, __LINE__, "No fx");
    }
    return fx == nullptr;
}

// What an entry point returns, 0 without it.
template<typename... Words>
uintptr_t forward(uintptr_t (*vuEffect::*entry)(vuRootNode *, vuEffect *, Words...), vuRootNode *root, vuEffect *fx,
                  Words... words)
{
    const bool called = !isMissing(fx) && fx->*entry != nullptr;
    return called ? (fx->*entry)(root, fx, words...) : 0;
}

// The plug-in's file.

// Whether all segments that the loader would map are there. What is no object of this target is left for the loader to refuse.
bool isWhole(int file, uint64_t size)
{
    constexpr unsigned char kClass = sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32;
    ElfW(Ehdr) head;
    if (pread(file, &head, sizeof head, 0) != sizeof head || memcmp(head.e_ident, ELFMAG, SELFMAG) != 0 ||
        head.e_ident[EI_CLASS] != kClass || head.e_phentsize != sizeof(ElfW(Phdr)))
    {
        return true;
    }
    for (int i = 0; i < head.e_phnum; ++i)
    {
        ElfW(Phdr) segment;
        const auto place = static_cast<off_t>(head.e_phoff + i * sizeof segment);
        const bool isRead = pread(file, &segment, sizeof segment, place) == sizeof segment;
        const bool isThere = isRead && (segment.p_type != PT_LOAD ||
                                        (segment.p_offset <= size && segment.p_filesz <= size - segment.p_offset));
        if (!isThere)
        {
            return false;
        }
    }
    return true;
}

// Why the loader must not look at a file, null when it may. It waits for what comes out of a pipe; and the end of a file that was cut
// off it maps like the rest, so that the process dies when it looks there.
const char *danger(const char *name)
{
    const bool isSearched = strchr(name, '/') == nullptr; // by the loader, in folders of its own
    const int file = isSearched ? -1 : open(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0)
    {
        return nullptr;
    }
    struct stat status = {};
    const bool isFile = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
    const bool isSafe = isFile && isWhole(file, static_cast<uint64_t>(status.st_size));
    ::close(file);
    return isSafe ? nullptr : isFile ? "the end of the file is missing" : "not a regular file";
}

void *openPlugin(const char *name)
{
    return danger(name) == nullptr ? dlopen(name, RTLD_LAZY) : nullptr;
}

// Set-up.

template<typename Entry>
void lookUp(const vuEffect &fx, Entry &entry, const char *symbol)
{
    entry = reinterpret_cast<Entry>(dlsym(fx.handle, symbol));
    if (entry == nullptr)
    {
        vu_warn("Warning", kModule, __LINE__, "\033[33munable to find function \"%s\" in \"%s\"\033[0m", symbol,
                fx.pluginFile);
    }
}

void lookUpEntryPoints(vuEffect &fx)
{
    lookUp(fx, fx.fxInit, "fxInit");
    lookUp(fx, fx.fxGetData, "fxGetData");
    lookUp(fx, fx.fxSetData, "fxSetData");
    lookUp(fx, fx.fxObtain, "fxObtain");
    lookUp(fx, fx.fxTrigger, "fxTrigger");
    lookUp(fx, fx.fxUpdate, "fxUpdate");
    lookUp(fx, fx.fxFree, "fxFree");
    lookUp(fx, fx.fxInitInst, "fxInitInst");
    lookUp(fx, fx.fxTriggerInst, "fxTriggerInst");
    lookUp(fx, fx.fxGetInstData, "fxGetInstData");
    lookUp(fx, fx.fxSetInstData, "fxSetInstData");
    lookUp(fx, fx.fxStopInst, "fxStopInst");
    lookUp(fx, fx.fxFreeInst, "fxFreeInst");
}

void clearEntryPoints(vuEffect &fx)
{
    fx.fxInit = fx.fxUpdate = fx.fxFree = nullptr;
    fx.fxGetData = fx.fxSetData = nullptr;
    fx.fxObtain = fx.fxTrigger = nullptr;
    fx.fxInitInst = fx.fxFreeInst = nullptr;
    fx.fxGetInstData = fx.fxSetInstData = nullptr;
    fx.fxTriggerInst = nullptr;
    fx.fxStopInst = nullptr;
}

// Leaves the effect as one that was not set up.
void forget(vuEffect &fx)
{
    clearEntryPoints(fx);
    fx.inst = nullptr;
    fx.numInst = 0;
    fx.linkFx = nullptr;
}

void allocateInstances(vuEffect &fx)
{
    const auto count = static_cast<size_t>(std::max(fx.num, 0));
    const bool possible = fx.num >= 0 && count <= PTRDIFF_MAX / sizeof(vuEffectInst);
    void *room = possible ? pfMalloc(count * sizeof(vuEffectInst), pfGetSharedArena()) : nullptr;
    fx.inst = static_cast<vuEffectInst *>(room);
    fx.numInst = room != nullptr ? fx.num : 0;
    if (fx.numInst != fx.num)
    {
        vu_warn("Warning", kModule, __LINE__, "\033[33mno room for %d instances of FX \"%s\"\033[0m", fx.num,
                shown(fx.node.name));
    }
}

void initInstances(vuRootNode *root, vuEffect &fx)
{
    for (int32_t i = 0; i < fx.numInst; ++i)
    {
        effectInitInstance(&fx.inst[i]);
        if (fx.fxInitInst != nullptr)
        {
            fprintf(stderr, "[%d] ", i);
            fx.fxInitInst(root, &fx, &fx.inst[i]);
        }
    }
}

void connect(vuRootNode *root, vuEffect &fx)
{
    if (fx.linkFxName == nullptr)
    {
        return;
    }
    vuEffect *const link = effectSearchNamed(root, fx.linkFxName);
    if (link == nullptr)
    {
        vu_warn("Warning", kModule, __LINE__, "\033[33munable to find link FX \"%s\"\033[0m", fx.linkFxName);
    }
    else if (link == &fx)
    {
        vu_warn("Warning", kModule, __LINE__, "\033[33mlink FX \"%s\" must not connect to itself\033[0m",
                fx.linkFxName);
    }
    else
    {
        fx.linkFx = link;
    }
}

// The end.

void letRelease(vuRootNode *root, vuEffect &fx)
{
    // Without fxInit the words of instances are what happened to be in the arena.
    for (int32_t i = 0; fx.fxInit != nullptr && fx.fxFreeInst != nullptr && i < fx.numInst; ++i)
    {
        fx.fxFreeInst(root, &fx, &fx.inst[i]);
    }
    if (fx.fxFree != nullptr)
    {
        fx.fxFree(root, &fx);
    }
}

void close(vuEffect &fx)
{
    if (fx.handle != nullptr)
    {
        dlclose(fx.handle);
        fx.handle = nullptr;
    }
}

void unload(vuEffect &fx)
{
    close(fx);
    pfFree(fx.inst);
    forget(fx);
}

void printEffect(const vuEffect &fx, FILE *stream)
{
    fprintf(stream, "EFFECT \"%s\" {\n", shown(fx.node.name));
    if (fx.pluginFile != nullptr)
    {
        fprintf(stream, "  \"%s\"\n", fx.pluginFile);
        fprintf(stream, "  COLOUR      %g %g %g %g\n", fx.colour[0], fx.colour[1], fx.colour[2], fx.colour[3]);
        fprintf(stream, "  NUM         %d\n", fx.num);
        fprintf(stream, "  DURATION    %g\n", fx.duration);
        if (fx.fade > 0.0)
        {
            fprintf(stream, "  FADE        %g\n", fx.fade);
        }
        if (fx.maskDraw != 0xFFFFFFFF)
        {
            fprintf(stream, "  MASK_DRAW   0x%08x\n", fx.maskDraw);
        }
        fprintf(stream, "  PARAMETER   \"%s\"\n", shown(fx.parameter));
        if (fx.entityNode != nullptr)
        {
            fprintf(stream, "  ENTITYNODE  \"%s\"\n", fx.entityNode);
        }
        fprintf(stream, "  POSITION    %g %g %g\n", fx.position[0], fx.position[1], fx.position[2]);
        fprintf(stream, "  DIRECTION   %g %g %g\n", fx.direction[0], fx.direction[1], fx.direction[2]);
        if (fx.linkFxName != nullptr)
        {
            fprintf(stream, "  LINKFX   \"%s\"\n", fx.linkFxName);
        }
    }
    fputs("}\n", stream);
}

} // namespace

void effectInit(vuEffect *fx, const char *name)
{
    const uint32_t untouched = fx->reserved0;
    *fx = {};
    fx->reserved0 = untouched;
    vunodeInit(&fx->node, name);
    fx->node.type = VU_NODE_EFFECT;
    fx->maskDraw = 0xFFFFFFFF;
    std::ranges::fill(fx->colour, 1.0F);
    fx->duration = 1.0;
    fx->num = 16;
}

void effectInitInstance(vuEffectInst *inst)
{
    *inst = {};
}

int effectSetup(vuRootNode *root, vuEffect *fx)
{
    if (fx == nullptr)
    {
        vuMessage("Debug", kModule, __LINE__, "No effect");
        return 0;
    }
    if (fx->pluginFile == nullptr)
    {
        return 0;
    }
    fx->handle = openPlugin(fx->pluginFile);
    if (fx->handle == nullptr)
    {
        forget(*fx); // of a set-up before
        vu_warn("Warning", kModule, __LINE__, "\033[31munable open plugin \"%s\"\033[0m", fx->pluginFile);
        return 0;
    }
    fx->linkFx = nullptr; // of a set-up before
    lookUpEntryPoints(*fx);
    allocateInstances(*fx);
    if (fx->fxInit == nullptr)
    {
        return 1;
    }
    fx->fxInit(root, fx);
    vu_warn("Info", kModule, __LINE__, "FX tagbase: 0x%x", fx->tagbase);
    initInstances(root, *fx);
    connect(root, *fx);
    return 1;
}

int effectSetupAll(vuRootNode *root)
{
    int loaded = 0;
    for (vunode *node = root->effects.first; node != nullptr; node = node->next)
    {
        loaded += effectSetup(root, effectOf(node));
    }
    return loaded;
}

void effectUpdate(vuRootNode *root)
{
    for (vunode *node = root->effects.first; node != nullptr; node = node->next)
    {
        vuEffect *const fx = effectOf(node);
        if (fx->fxUpdate != nullptr)
        {
            fx->fxUpdate(root, fx);
        }
    }
}

vuEffect *effectSearchNamed(vuRootNode *root, const char *name)
{
    return name != nullptr ? effectOf(vunodeListFindNamed(&root->effects, name)) : nullptr;
}

uintptr_t effectObtain(vuRootNode *root, vuEffect *fx, uintptr_t word)
{
    return forward(&vuEffect::fxObtain, root, fx, word);
}

uintptr_t effectTrigger(vuRootNode *root, vuEffect *fx, uintptr_t word)
{
    if (fx != nullptr)
    {
        vu_warn("Info", kModule, __LINE__, "FX trigger \"%s\"", shown(fx->node.name));
    }
    return forward(&vuEffect::fxTrigger, root, fx, word);
}

void effectTriggerInst(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1)
{
    if (!isMissing(fx) && fx->fxTriggerInst != nullptr)
    {
        fx->fxTriggerInst(root, fx, word0, word1);
    }
}

uintptr_t effectGetData(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1)
{
    return forward(&vuEffect::fxGetData, root, fx, word0, word1);
}

uintptr_t effectSetData(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1)
{
    return forward(&vuEffect::fxSetData, root, fx, word0, word1);
}

uintptr_t effectGetInstData(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1, uintptr_t word2)
{
    return forward(&vuEffect::fxGetInstData, root, fx, word0, word1, word2);
}

uintptr_t effectSetInstData(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1, uintptr_t word2)
{
    return forward(&vuEffect::fxSetInstData, root, fx, word0, word1, word2);
}

uintptr_t effectStopInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst)
{
    if (inst == nullptr)
    {
        vu_warn("Debug", kModule, __LINE__, "NULL Instance");
        return 0;
    }
    if (fx != nullptr && fx->fxStopInst == nullptr)
    {
        vu_warn("Warning", kModule, __LINE__, "\033[33mfxStopInst() undefined in plugin \"%s\"\033[0m",
                shown(fx->pluginFile));
    }
    return forward(&vuEffect::fxStopInst, root, fx, inst);
}

void effectFreeAll(vuRootNode *root)
{
    while (root->effects.first != nullptr)
    {
        vuEffect *const fx = effectOf(root->effects.first);
        vunodeRemove(&root->effects, &fx->node);
        close(*fx);
        void *const blocks[] = {fx->pluginFile, fx->node.name, fx->parameter, fx->entityNode, fx->linkFxName, fx->inst};
        std::ranges::for_each(blocks, pfFree);
        pfFree(fx);
    }
}

void effectPrintList(vuRootNode *root, FILE *stream)
{
    for (vunode *node = root->effects.first; node != nullptr; node = node->next)
    {
        printEffect(*effectOf(node), stream);
    }
}

void effectUnload(vuRootNode *root, vuEffect *fx)
{
    if (fx != nullptr && fx->handle != nullptr)
    {
        letRelease(root, *fx);
        unload(*fx);
    }
}

void effectUnloadAll(vuRootNode *root)
{
    for (vunode *node = root->effects.first; node != nullptr; node = node->next)
    {
        if (effectOf(node)->handle != nullptr)
        {
            letRelease(root, *effectOf(node));
        }
    }
    for (vunode *node = root->effects.first; node != nullptr; node = node->next)
    {
        if (effectOf(node)->handle != nullptr)
        {
            unload(*effectOf(node));
        }
    }
}

int effectCanOpen(const char *pluginFile, char *reason, size_t bytes)
{
    const char *why = danger(pluginFile);
    void *const handle = why == nullptr ? dlopen(pluginFile, RTLD_LAZY) : nullptr;
    if (why == nullptr && handle == nullptr)
    {
        why = dlerror();
    }
    if (reason != nullptr && bytes > 0)
    {
        snprintf(reason, bytes, "%s", shown(why));
    }
    if (handle != nullptr)
    {
        dlclose(handle);
    }
    return handle != nullptr;
}
