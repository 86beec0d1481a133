/* A beacon: a point of light at fx->position, on for the first half of every fx->duration seconds. */
#include <math.h>
#include <tolvin/plugin.h>

static pfGeode *node; /* of the one effect that this plug-in is meant for; several need one each, found by fx */

TOLVIN_PLUGIN void fxInit(vuRootNode *root, vuEffect *fx)
{
    (void)root;
    pfGeoSet *light = pfNewGSet(pfGetSharedArena());
    node = pfNewGeode(pfGetSharedArena());
    if (light == NULL || node == NULL || !pfAddGSet(node, light))
    {
        pfFree(light); /* the arena is full: no light */
        pfFree(node);
        node = NULL;
        return;
    }
    pfRef(node); /* ours, whatever scene the application puts it into */
    pfGSetAttr(light, PFGS_COORD3, PFGS_PER_VERTEX, fx->position, NULL);
    pfGSetAttr(light, PFGS_COLOR4, PFGS_OVERALL, fx->colour, NULL);
    fx->tagbase = VU_FX_TAG('B', 'E', 'A', 'C');
}

TOLVIN_PLUGIN void fxUpdate(vuRootNode *root, vuEffect *fx)
{
    if (node != NULL)
        pfGSetNumPrims(pfGetGSet(node, 0), fmod(root->simSeconds, fx->duration) < fx->duration / 2);
}

TOLVIN_PLUGIN uintptr_t fxGetData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t where)
{
    (void)root, (void)fx, (void)where;
    return what == VU_FX_NODE ? (uintptr_t)node : 0;
}

TOLVIN_PLUGIN void fxFree(vuRootNode *root, vuEffect *fx)
{
    (void)root, (void)fx;
    pfUnref(node);
    pfDelete(node); /* and the light with it */
    node = NULL;
}
