/* A plug-in that writes down how it is called. With ONLY_UPDATE it has one entry point. */
#include <tolvin/plugin.h>

#include <stdio.h>
#include <string.h>

TOLVIN_PLUGIN char fxLog[4096];
TOLVIN_PLUGIN uintptr_t fxAnswer;

static void note(const char *what, vuRootNode *root, vuEffect *fx, uintptr_t a, uintptr_t b, uintptr_t c)
{
    const size_t used = strlen(fxLog);
    snprintf(fxLog + used, sizeof fxLog - used, "%s %s%s %zx %zx %zx\n", what, fx->node.name, root == NULL ? "?" : "",
             (size_t)a, (size_t)b, (size_t)c);
}

TOLVIN_PLUGIN void fxUpdate(vuRootNode *root, vuEffect *fx)
{
    note("update", root, fx, 0, 0, 0);
}

#ifndef ONLY_UPDATE

static uintptr_t indexOf(const vuEffect *fx, const vuEffectInst *inst)
{
    return (uintptr_t)(inst - fx->inst);
}

TOLVIN_PLUGIN void fxInit(vuRootNode *root, vuEffect *fx)
{
    note("init", root, fx, (uintptr_t)fx->numInst, fx->linkFx != NULL, 0);
    fx->tagbase = VU_FX_TAG('P', 'R', 'O', 'B');
    if (fx->inst != NULL)
        memset(fx->inst, 0xa5, (size_t)fx->numInst * sizeof *fx->inst); /* cleared before fxInitInst sees them */
}

TOLVIN_PLUGIN void fxInitInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst)
{
    uint32_t bits = 0;
    for (int i = 0; i < 13; ++i)
        bits |= inst->words[i];
    note("initInst", root, fx, indexOf(fx, inst), bits, 0);
}

TOLVIN_PLUGIN void fxFreeInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst)
{
    note("freeInst", root, fx, indexOf(fx, inst), 0, 0);
}

TOLVIN_PLUGIN void fxFree(vuRootNode *root, vuEffect *fx)
{
    note("free", root, fx, 0, 0, 0);
}

TOLVIN_PLUGIN uintptr_t fxStopInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst)
{
    note("stopInst", root, fx, indexOf(fx, inst), 0, 0);
    return fxAnswer;
}

#define ANSWER(name, what, parameters, ...)                                                                            \
    TOLVIN_PLUGIN uintptr_t name parameters                                                                            \
    {                                                                                                                  \
        note(what, root, fx, __VA_ARGS__);                                                                             \
        return fxAnswer;                                                                                               \
    }
ANSWER(fxObtain, "obtain", (vuRootNode * root, vuEffect *fx, uintptr_t a), a, 0, 0)
ANSWER(fxTrigger, "trigger", (vuRootNode * root, vuEffect *fx, uintptr_t a), a, 0, 0)
TOLVIN_PLUGIN void fxTriggerInst(vuRootNode *root, vuEffect *fx, uintptr_t a, uintptr_t b)
{
    note("triggerInst", root, fx, a, b, 0);
}
ANSWER(fxGetData, "getData", (vuRootNode * root, vuEffect *fx, uintptr_t a, uintptr_t b), a, b, 0)
ANSWER(fxSetData, "setData", (vuRootNode * root, vuEffect *fx, uintptr_t a, uintptr_t b), a, b, 0)
ANSWER(fxGetInstData, "getInstData", (vuRootNode * root, vuEffect *fx, uintptr_t a, uintptr_t b, uintptr_t c), a, b, c)
ANSWER(fxSetInstData, "setInstData", (vuRootNode * root, vuEffect *fx, uintptr_t a, uintptr_t b, uintptr_t c), a, b, c)

#endif
