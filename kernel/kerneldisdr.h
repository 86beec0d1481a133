/*
 * Dead reckoning and entity update (IEEE 1278.1).
 *
 * The kernel keeps the last report of every entity and, every frame, extrapolates position and orientation from it with
 * the algorithm that the report names:
 *
 *   algorithm      rotation  position                    orientation
 *   2 FPW          no        first order, world          from the report
 *   3 RPW          yes       first order, world          extrapolated
 *   4 RVW          yes       second order, world         extrapolated
 *   5 FVW          no        second order, world         from the report
 *   6 FPB, 9 FVB   yes       integrated body velocity    from the report
 *   7 RPB, 8 RVB   yes       integrated body velocity    extrapolated
 *   any other      no        the report's location       from the report
 *
 * The body-coordinate algorithms do not use the acceleration. A report with algorithm 3, 4 or 6 to 9 whose angular
 * velocity is negligible (at most 0.00001 rad/s) is changed to algorithm 2 when it is first extrapolated.
 *
 * The current time is the root node's simulation clock, root->time.sim, which the application advances. The age of a
 * report is: now - recvTime - timeOffset. An application whose stamps do not come from this clock has to condition
 * them before it hands a report over.
 */
#ifndef TOLVIN_KERNEL_KERNELDISDR_H
#define TOLVIN_KERNEL_KERNELDISDR_H

#include "kernelapi.h"
#include "kernelentity.h"
#include "kernelgeneric.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Take over a report: find the first entity of the root node's scenes that receives DIS and whose disId equals
 * state->entityId, note its times of report and reception, copy the report into its drState, and prepare the matrices
 * when the algorithm rotates. The caller's record is not changed; it may be that drState itself. Without such an entity
 * nothing happens; a matching entity without drState is left unchanged. One walk over all entities per call: for many
 * reports a frame use disUpdateEntities. Neither argument may be null.
 */
TOLVIN_API void disUpdateEntity(vuRootNode *root, const vuEntityState *state);

/*
 * Addition: take over count reports, with exactly the results of disUpdateEntity for each of them in order, in one walk
 * over the lists plus constant work per report. states may be null when count is 0, and holds no record that a drState
 * points to. Falls back to the plain loop when the process heap has no room for its look-up table, so the results are
 * the same.
 */
TOLVIN_API void disUpdateEntities(vuRootNode *root, const vuEntityState *states, size_t count);

/*
 * Dead-reckon every entity in status VU_STATUS_MOVING that has a drState and either receives DIS or is the root node's
 * ownEntity. Results go to position and orientation of the entity, each written once, in no fixed order. They are
 * those of disDeadRecon to the last bit. Entities must have distinct drState records.
 */
TOLVIN_API void updateEntityPositions(vuRootNode *root);

/*
 * Extrapolate one entity from state to the current time, whatever its status. Reads the entity's times and matrices,
 * writes position, orientation and drR1, and may change state's algorithm to 2 (see above). The reported orientation
 * stays where the pitch is vertical (its cosine at most 0.000001) or the matrices give none. No argument may be null.
 */
TOLVIN_API void disDeadRecon(vuRootNode *root, vuEntity *entity, vuEntityState *state);

/*
 * Prepare drMatrix, omegaSkew (but for its diagonal), omegaOuter, omega and, for algorithms 6 to 9, drInverse of the
 * entity from the orientation and angular velocity of state. Neither argument may be null.
 */
TOLVIN_API void disCalcDRMatrices(vuEntity *entity, const vuEntityState *state);

/*
 * First entity of the scene, in list order, whose DIS identity equals id, whether it receives DIS or not; null when
 * there is none. Neither argument may be null.
 */
TOLVIN_API vuEntity *entityFindDIS(vuScene *scene, const vuEntityId *id);

/*
 * First DIS entity number, from the scene's disNextEntity on (wrapping from 65535 to 0), that no entity of the scene
 * uses together with the scene's site and application. disNextEntity moves behind it. With all 65536 numbers in use
 * returns disNextEntity, which then is not free.
 */
TOLVIN_API uint16_t disGetNewEntityId(vuScene *scene);

/*
 * Change a status: statusPair[1] (the previous status) takes statusPair[0], which takes status. statusPair is &status of
 * an entity, followed by its prevStatus; null is ignored.
 */
TOLVIN_API void disChangeStatus(uint16_t *statusPair, uint16_t status);

#ifdef __cplusplus
}
#endif

#endif
