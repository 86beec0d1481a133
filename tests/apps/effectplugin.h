/* What effectplugin.c finds behind the root node. */
#include <tolvin/kernel/tolvin.h>

typedef struct EffectTest
{
    vuRootNode root;
    void (*tell)(const char *line);
    pfGroup *node, *top;
} EffectTest;
