/* A beacon: a point of light at fx->position, on for the first half of every fx->duration seconds. */
#include <math.h>
#include <tolvin/plugin.h>

static pfGeode *node; /* of the first effect that names this file; to serve several, keep one for each, found by fx */
static vuEffect *owner;

TOLVIN_PLUGIN void fxInit(vuRootNode *root, vuEffect *fx)
{
    (void)root;
    if (node != NULL)
        return;
    owner = fx;
    pfGeoSet *light = pfNewGSet(pfGetSharedArena());
    node = pfNewGeode(pfGetSharedArena());
    if (light == NULL || node == NULL || !pfAddGSet(node, light))
    {
        pfDelete(light); /* the arena is full: no light */
        pfDelete(node);
        node = NULL;
        return;
    }
    pfRef(node); /* ours, whatever scene the application puts it into */
    pfNodeTravMask((pfNode *)node, PFTRAV_DRAW, fx->maskDraw, PFTRAV_SELF, PF_SET);
    pfGSetAttr(light, PFGS_COORD3, PFGS_PER_VERTEX, fx->position, NULL); /* follow the record */
    pfGSetAttr(light, PFGS_COLOR4, PFGS_OVERALL, fx->colour, NULL);
    fx->tagbase = VU_FX_TAG('B', 'E', 'A', 'C');
}

TOLVIN_PLUGIN void fxUpdate(vuRootNode *root, vuEffect *fx)
{
    if (node != NULL && fx == owner)
        pfGSetNumPrims(pfGetGSet(node, 0), fmod(root->simSeconds, fx->duration) < fx->duration / 2);
}

TOLVIN_PLUGIN uintptr_t fxGetData(vuRootNode *root, vuEffect *fx, uintptr_t what, uintptr_t where)
{
    (void)root, (void)where;
    return fx == owner && what == VU_FX_NODE ? (uintptr_t)node : 0;
}

TOLVIN_PLUGIN void fxFree(vuRootNode *root, vuEffect *fx)
{
    (void)root;
    if (node == NULL || fx != owner)
        return;
    pfUnref(node);
    pfDelete(node); /* and the light with it */
    node = NULL;
}
