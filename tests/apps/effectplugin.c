/* A plug-in that tells the test what is asked of it. With a number as parameter, all words that it gives are wrong ones. */
#include "apps/effectplugin.h"

#include <stdio.h>
#include <tolvin/plugin.h>

static void tell(vuRootNode *root, vuEffect *fx, const char *what, const double *p)
{
    char line[200];
    snprintf(line, sizeof line, "%s %s %.1f %.1f %.1f\n", fx->node.name, what, p ? p[0] : 0, p ? p[1] : 0,
             p ? p[2] : 0);
    ((EffectTest *)root)->tell(line);
}

#ifdef PARTIAL
TOLVIN_PLUGIN void fxUpdate(vuRootNode *root, vuEffect *fx)
{
    tell(root, fx, "update", NULL);
}
#else
/* Within an instance, past the last one, a block that is no node, memory of this plug-in, three of nobody, what all is below, the ground. */
static uintptr_t wrongOr(vuRootNode *root, vuEffect *fx, uintptr_t word)
{
    static _Alignas(16) char chars[64];
    const uintptr_t inst = (uintptr_t)fx->inst;
    pfGroup *const top = ((EffectTest *)root)->top;
    const uintptr_t wrong[] = {inst + 4,   inst + 52 * fx->num, (uintptr_t)fx,  (uintptr_t)(chars + 48),      1,
                               0xdead0000, ~(uintptr_t)15,      (uintptr_t)top, (uintptr_t)pfGetChild(top, 0)};
    return fx->parameter != NULL ? wrong[fx->parameter[0] - '0'] : word;
}

static uintptr_t begin(vuRootNode *root, vuEffect *fx, const char *what, uintptr_t event)
{
    int i = 0;
    tell(root, fx, what, event != 0 ? ((const vuFxEvent *)event)->position : NULL);
    while (i < fx->numInst && fx->inst[i].words[0] != 0)
        ++i;
    if (i == fx->numInst)
        return wrongOr(root, fx, 0);
    fx->inst[i].words[0] = 1;
    return wrongOr(root, fx, (uintptr_t)&fx->inst[i]);
}

TOLVIN_PLUGIN void fxInit(vuRootNode *root, vuEffect *fx)
{
    tell(root, fx, "init", NULL);
}

TOLVIN_PLUGIN uintptr_t fxTrigger(vuRootNode *root, vuEffect *fx, uintptr_t event)
{
    return begin(root, fx, "trigger", event);
}

TOLVIN_PLUGIN uintptr_t fxObtain(vuRootNode *root, vuEffect *fx, uintptr_t event)
{
    return begin(root, fx, "obtain", event);
}

TOLVIN_PLUGIN uintptr_t fxStopInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst)
{
    tell(root, fx, "stop", NULL);
    inst->words[0] = 0;
    return 1;
}

TOLVIN_PLUGIN uintptr_t fxSetInstData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t inst, uintptr_t value)
{
    if (what == VU_FX_INST_POSITION && ((vuEffectInst *)inst)->words[0] == 1)
        tell(root, fx, "move", (const double *)value);
    return 1;
}

TOLVIN_PLUGIN uintptr_t fxGetData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t where)
{
    (void)where;
    return what == VU_FX_NODE        ? wrongOr(root, fx, (uintptr_t)((EffectTest *)root)->node)
           : what == VU_FX_PARTICLES ? 7
                                     : 0;
}

TOLVIN_PLUGIN void fxFree(vuRootNode *root, vuEffect *fx)
{
    tell(root, fx, "free", NULL);
}
#endif
