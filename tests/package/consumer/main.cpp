// One entity in a scene, and the day number of J2000.
#include <tolvin/kernel/tolvin.h>

#include <cstdio>

int main()
{
    vuScene scene{};
    vuEntity *const tank = entityCreate(&scene);
    if (tank == nullptr)
    {
        return 1;
    }
    entityAppend(&scene, tank);
    std::printf("%d entity, day %.1f\n", vunodesCount(&scene.entities), vutimeGetMJD(1.5, 1, 2000));
    vunodeDelete(&scene.entities, &tank->node);
    pfFree(tank->smooth);
    return pfDelete(tank) == 1 ? 0 : 1;
}
