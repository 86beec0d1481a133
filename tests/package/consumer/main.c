/* One entity hears one report and is moved two seconds on. */
#include <tolvin/kernel/tolvin.h>

#include <stdio.h>
#include <string.h>

int main(void)
{
    static vuRootNode root;
    static vuScene scene;
    static vuEntityState last, report;
    initRootNode(&root);
    vunodeInit(&scene.node, "scene");
    vunodeAppend(&root.scenes, &scene.node);

    vuEntity *tank = entityCreate(&scene);
    if (tank == NULL)
        return 1;
    tank->receive = VU_RECEIVE_DIS;
    tank->disId.site = tank->disId.application = tank->disId.entity = 1;
    tank->drState = &last;
    disChangeStatus(&tank->status, VU_STATUS_MOVING);
    entityAppend(&scene, tank);

    root.time.sim.sec = 3600; /* a clock of our own: the full hour, when stamp 0 means "now" */
    root.time.sim.usec = 0;
    setupES(&report);
    report.timestamp = 0;
    report.deadReckoning.algorithm = VU_DR_FPW;
    report.velocity[0] = 10.0f;
    disUpdateEntity(&root, &report);
    root.time.sim.sec += 2;
    updateEntityPositions(&root);
    printf("%d entity at %.1f %.1f %.1f\n", vunodesCount(&scene.entities), tank->position[0], tank->position[1],
           tank->position[2]);

    entityReleaseSharedMem(tank);
    entityRemove(&scene, tank);
    pfFree(tank->smooth);
    pfFree(tank);
    return 0;
}
