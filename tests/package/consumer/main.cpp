// One entity hears one report and is moved two seconds on.
#include <tolvin/kernel/tolvin.h>

#include <cstdio>
#include <memory>

int main()
{
    const auto root = std::make_unique<vuRootNode>();
    const auto scene = std::make_unique<vuScene>();
    initRootNode(root.get());
    vunodeInit(&scene->node, "scene");
    vunodeAppend(&root->scenes, &scene->node);

    vuEntity *const tank = entityCreate(scene.get());
    if (tank == nullptr)
        return 1;
    vuEntityState last{};
    tank->receive = VU_RECEIVE_DIS;
    tank->disId = {1, 1, 1};
    tank->drState = &last;
    disChangeStatus(&tank->status, VU_STATUS_MOVING);
    entityAppend(scene.get(), tank);

    root->time.sim = {3600, 0}; // a clock of our own: the full hour, when stamp 0 means "now"
    vuEntityState report;
    setupES(&report);
    report.timestamp = 0;
    report.deadReckoning.algorithm = VU_DR_FPW;
    report.velocity[0] = 10.0f;
    disUpdateEntities(root.get(), &report, 1);
    root->time.sim.sec += 2;
    updateEntityPositions(root.get());
    std::printf("%d entity at %.1f %.1f %.1f\n", vunodesCount(&scene->entities), tank->position[0], tank->position[1],
                tank->position[2]);

    vunodeDelete(&scene->entities, &tank->node);
    vunodeDelete(&root->scenes, &scene->node);
    pfFree(tank->smooth);
    pfFree(tank);
}
