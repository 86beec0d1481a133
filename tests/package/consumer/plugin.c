/* Loads a plug-in, runs it for a second, and leaves nothing behind. */
#include <tolvin/plugin.h>

#include <stdio.h>
#include <string.h>

static vuRootNode root;

int main(int argc, char **argv)
{
    vuEffect *fx = pfMalloc(sizeof *fx, pfGetSharedArena());
    if (argc != 2 || fx == NULL)
        return 2;
    initRootNode(&root);
    effectInit(fx, "beacon");
    fx->num = 1;
    fx->pluginFile = pfMalloc(strlen(argv[1]) + 1, pfGetSharedArena());
    strcpy(fx->pluginFile, argv[1]);
    vunodeAppend(&root.effects, &fx->node);
    const int loaded = effectSetupAll(&root);
    pfGeode *node = (pfGeode *)effectGetData(&root, fx, VU_FX_NODE, 0);
    int on = 0;
    for (root.simSeconds = 0.125; node != NULL && root.simSeconds < 1.0; root.simSeconds += 0.25)
    {
        effectUpdate(&root);
        on += pfGetGSetNumPrims(pfGetGSet(node, 0));
    }
    effectUnloadAll(&root);
    effectFreeAll(&root);
    pfArenaInfo arena;
    pfGetArenaInfo(&arena);
    printf("%d plug-in, on in %d frames of 4, %d blocks left\n", loaded, on, (int)arena.blocksInUse);
    return 0;
}
