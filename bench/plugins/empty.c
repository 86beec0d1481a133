/* Does nothing, in every frame. */
#include <tolvin/plugin.h>

TOLVIN_PLUGIN void fxInit(vuRootNode *root, vuEffect *fx)
{
    (void)root, (void)fx;
}

TOLVIN_PLUGIN void fxUpdate(vuRootNode *root, vuEffect *fx)
{
    (void)root, (void)fx;
}
