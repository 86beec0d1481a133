#include "kernelxform.h"

#include "kerneldis.h"
#include "kerneldisdr.h"
#include "kernelentity.h"
#include "kernelgeneric.h"
#include "kernelutil.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <string_view>
#include <type_traits>

namespace
{

constexpr char kModule[] = "kernelxform";

constexpr auto kDriveAccel = static_cast<float>(20000.0 / 3.0);
constexpr auto kDriveTopSpeed = static_cast<float>(100.0 / 3.6); // 100 km/h
constexpr float kFlyAccel = 20000.0F;
constexpr float kFlyTopSpeed = 250.0F; // 900 km/h

constexpr uint8_t kProtocolDis1995 = 5;
constexpr uint8_t kPduEntityState = 1;
constexpr uint8_t kFamilyEntityInformation = 1;
constexpr uint8_t kCharacterSetAscii = 1;
constexpr std::string_view kMarking = "xform      ";

// SISO enumeration: platform, air, Germany, fighter/air defence.
constexpr vuEntityType kFighter = {
    .kind = 1, .domain = 2, .country = 78, .category = 1, .subcategory = 0, .specific = 0, .extra = 0};

constexpr double kPi = 3.14159265358979323846;
constexpr double kSteepestPitch = 50 * kPi / 180;
constexpr double kSteepestRoll = kPi / 4;
constexpr double kSecondsPerHour = 3600.0;

// The ground.

using Point = std::array<double, 3>;

Point pointOf(const float p[3])
{
    return {p[0], p[1], p[2]};
}

Point middleOf(const Point &a, const Point &b)
{
    return {(a[0] + b[0]) * 0.5, (a[1] + b[1]) * 0.5, (a[2] + b[2]) * 0.5};
}

double slope(const Point &from, const Point &to)
{
    const double x = to[0] - from[0], y = to[1] - from[1], z = to[2] - from[2];
    return std::atan2(z, std::sqrt(x * x + y * y));
}

void leanOnGround(vuEntityState &es, const float groundPoints[3][3])
{
    const Point p0 = pointOf(groundPoints[0]), p1 = pointOf(groundPoints[1]), p2 = pointOf(groundPoints[2]);
    const auto pitch = static_cast<float>(slope(p2, middleOf(p0, p1)));
    if (std::fabs(pitch) < kSteepestPitch)
    {
        es.orientation[1] = pitch;
    }
    const double roll = slope(p0, p1);
    if (std::fabs(roll) < kSteepestRoll)
    {
        es.orientation[2] = static_cast<float>(roll);
    }
}

bool followsTerrain(const vuEntity &entity)
{
    return (entity.entityFlags & VU_ENTITY_FOLLOW_TERRAIN) != 0;
}

void followTerrain(vuEntity &entity)
{
    if (!followsTerrain(entity))
    {
        return;
    }
    if (entity.motionKind == VU_MOTION_DRIVE)
    {
        leanOnGround(entity.xform.es, entity.groundPoints);
    }
    entity.xform.es.location[2] = entity.groundHeight;
}

bool isDriven(const vuEntity &entity)
{
    return entity.motionKind == VU_MOTION_DRIVE || entity.motionKind == VU_MOTION_FLY;
}

// The mouse. Each of the two drivers reports on lines of its own, and makes something else of the buttons.

struct Driver
{
    int noEntityLine;
    int noChannelLine;
    int otherKindLine;
    const char *otherKindLevel;
    void (*press)(vuEntity &entity, unsigned button, double turn, double seconds);
};

bool canDrive(const Driver &driver, const vuEntity *entity, const vuChannel *channel)
{
    if (entity == nullptr)
    {
        vuMessage("Warning", kModule, driver.noEntityLine, "\033[31mNo ENTITY\033[0m");
        return false;
    }
    if (channel == nullptr)
    {
        vuMessage("Warning", kModule, driver.noChannelLine, "\033[31mNo CHANNEL\033[0m");
        return false;
    }
    if (!isDriven(*entity))
    {
        vuMessage(driver.otherKindLevel, kModule, driver.otherKindLine, "active Entity neither DRIVE nor FLY");
        return false;
    }
    return true;
}

// None when the mouse is not the channel's.
unsigned buttonsHeld(vuChannel &channel)
{
    pfuGetMouse(&channel.mouse);
    if (channel.mouseInput == 0 || pfuMouseInChan(&channel.mouse, channel.channel) == 0)
    {
        return 0;
    }
    return channel.mouse.flags & (PFUMOUSE_LEFT | PFUMOUSE_MIDDLE | PFUMOUSE_RIGHT);
}

// Radians of this frame, positive to the right.
double turnOf(const vuChannel &channel)
{
    const double width = channel.width;
    const double fromMiddle = std::clamp((2.0 * channel.mouse.x - width) / width, -1.0, 1.0);
    return fromMiddle * 0.1 * kPi / 16;
}

// 0 for straight on.
int32_t directionOf(double turn)
{
    return turn > 0 ? VU_TURN_CLOCKWISE : turn < 0 ? VU_TURN_COUNTERCLOCKWISE : 0;
}

void steer(vuEntity &entity, double turn)
{
    float &psi = entity.xform.es.orientation[0];
    psi = static_cast<float>(psi - turn);
}

void accelerate(xform &model, double seconds)
{
    model.speed = static_cast<float>(std::min<double>(model.speed + model.accel * seconds, model.topSpeed));
}

void decelerate(xform &model, double seconds)
{
    model.speed = static_cast<float>(std::max<double>(model.speed - model.accel * seconds, -model.topSpeed));
}

void pressFree(vuEntity &entity, unsigned button, double turn, double seconds)
{
    const bool locked = entity.moveLock != 0;
    if (button != PFUMOUSE_MIDDLE)
    {
        steer(entity, turn);
        if (!locked)
        {
            (button == PFUMOUSE_LEFT ? accelerate : decelerate)(entity.xform, seconds);
        }
    }
    else if (const int32_t direction = directionOf(turn); direction != 0 && !locked)
    {
        steer(entity, turn);
        entity.turnDirection = direction;
    }
}

// Direction of the last turn that was asked for with the middle button, of whatever entity, refused or not.
int32_t actDirectionChange = 0;

void pressRestricted(vuEntity &entity, unsigned button, double turn, double seconds)
{
    if (button == PFUMOUSE_MIDDLE)
    {
        const int32_t direction = directionOf(turn);
        actDirectionChange = direction != 0 ? direction : actDirectionChange;
        if (entity.turnDirection != actDirectionChange)
        {
            steer(entity, turn);
        }
    }
    else if (button == PFUMOUSE_LEFT && entity.moveBlock != VU_BLOCK_FORWARD)
    {
        accelerate(entity.xform, seconds);
    }
    else if (button == PFUMOUSE_RIGHT && entity.moveBlock != VU_BLOCK_REVERSE)
    {
        decelerate(entity.xform, seconds);
    }
}

constexpr Driver kFree = {470, 475, 480, "Warning", pressFree};
constexpr Driver kRestricted = {704, 709, 714, "Info", pressRestricted};

void wrapHeading(float &psi)
{
    if (psi > kPi)
    {
        psi = static_cast<float>(psi - 2 * kPi);
    }
    else if (psi < -kPi)
    {
        psi = static_cast<float>(psi + 2 * kPi);
    }
}

// Dead reckoning takes the state as received at this moment.
void stamp(vuEntity &entity, double now)
{
    entity.recvTime = now;
    entity.pduTime = std::fmod(now, kSecondsPerHour);
    entity.timeOffset = 0.0;
}

void moveOn(vuEntity &entity, double seconds)
{
    vuEntityState &es = entity.xform.es;
    const double speed = entity.xform.speed, psi = es.orientation[0];
    es.velocity[0] = static_cast<float>(-speed * std::sin(psi));
    es.velocity[1] = static_cast<float>(speed * std::cos(psi));
    for (int i = 0; i < 2; ++i)
    {
        es.location[i] = entity.position[i] + es.velocity[i] * seconds;
    }
}

void drive(const Driver &driver, const vuRootNode *root, vuEntity *entity, vuChannel *channel)
{
    if (!canDrive(driver, entity, channel))
    {
        return;
    }
    followTerrain(*entity);
    const unsigned buttons = buttonsHeld(*channel);
    if (buttons == 0)
    {
        return;
    }
    const bool stops = !std::has_single_bit(buttons);
    if (stops)
    {
        stopXForm(entity);
    }
    else
    {
        driver.press(*entity, buttons, turnOf(*channel), root->frameDelta);
    }
    wrapHeading(entity->xform.es.orientation[0]);
    stamp(*entity, root->simSeconds);
    if (!stops)
    {
        moveOn(*entity, root->frameDelta);
    }
}

// Collision with the terrain.

constexpr float kDown[3] = {0.0F, 0.0F, -1.0F};
constexpr float kDownLength = 150000.0F;
constexpr int kGroundProbes = std::extent_v<decltype(vuEntity::groundPoints)>;

constexpr float hpos[3] = {0.0F, 0.0F, 0.0F}; // an entity's origin in its own coordinates

bool isTested(const vuEntity &entity)
{
    return entity.nodes[1] != nullptr && (followsTerrain(entity) || entity.collideCount[1] > 0) && isDriven(entity);
}

// Make segment 0 start at a point in coordinates of a node.
void aim(pfSegSet &set, const float pos[3], const pfMatrix toWorld, const float dir[3], float length)
{
    pfXformPt3(set.segs[0].pos, pos, toWorld);
    std::copy_n(dir, 3, set.segs[0].dir);
    set.segs[0].length = length;
}

// Where segment 0 first hits the scene, in world coordinates; false, and point as it was, when it does not.
bool findHit(pfNode *scene, pfSegSet &set, pfVec3 point)
{
    pfHit **hits[PFIS_MAX_SEGS];
    if (pfNodeIsectSegs(scene, &set, hits) <= 0)
    {
        return false;
    }
    pfVec3 local;
    pfMatrix toWorld;
    pfQueryHit(hits[0][0], PFQHIT_POINT, local);
    pfQueryHit(hits[0][0], PFQHIT_XFORM, toWorld);
    pfXformPt3(point, local, toWorld);
    return true;
}

void putOnGround(vuEntity &entity)
{
    entity.position[2] = entity.groundHeight;
    entity.xform.es.location[2] = entity.groundHeight;
}

void findGround(vuEntity &entity, pfNode *scene, pfSegSet &set, const pfMatrix toWorld)
{
    aim(set, hpos, toWorld, kDown, kDownLength);
    pfVec3 ground;
    if (!findHit(scene, set, ground))
    {
        return;
    }
    entity.groundDistance = pfDistancePt3(set.segs[0].pos, ground);
    entity.groundHeight = ground[2];
    if (entity.groundHeight < entity.groundDistance)
    {
        putOnGround(entity);
    }
}

void findGroundPoints(vuEntity &entity, pfNode *scene, pfSegSet &set, const pfMatrix toWorld)
{
    for (int k = 0; k < kGroundProbes; ++k)
    {
        const vuProbe &probe = entity.probes[k];
        aim(set, probe.pos, toWorld, probe.dir, probe.length);
        if (!findHit(scene, set, entity.groundPoints[k]))
        {
            std::copy_n(set.segs[0].pos, 3, entity.groundPoints[k]);
        }
        else if (entity.groundHeight > entity.groundDistance)
        {
            putOnGround(entity);
        }
    }
}

void collide(vuEntity &entity, pfNode *scene, pfSegSet &set)
{
    pfNode *node = entity.nodes[1];
    pfMatrix toWorld = {};
    pfGetDCSMat(reinterpret_cast<pfDCS *>(node), toWorld);
    pfNodeTravMask(node, PFTRAV_ISECT, 0, PFTRAV_SELF, PF_SET); // else it would find its own geometry
    findGround(entity, scene, set, toWorld);
    if (entity.motionKind == VU_MOTION_DRIVE)
    {
        findGroundPoints(entity, scene, set, toWorld);
    }
    pfNodeTravMask(node, PFTRAV_ISECT, entity.word18, PFTRAV_SELF, PF_SET);
}

// Entities and nodes lie far from each other in memory. Those behind an entity are requested while it is tested: the
// second entity, and the node of the first, whose record was requested one entity before.

void fetchEntity(const vuEntity *entity)
{
    const void *const lines[] = {
        &entity->node,      &entity->nodes[1],        &entity->xform.es.location[2], entity->collideCount,
        &entity->probes[2], &entity->groundPoints[0], &entity->groundPoints[2][2]};
    for (const void *line : lines)
    {
        __builtin_prefetch(line);
    }
}

void fetchNode(const pfNode *node)
{
    for (int offset = 0; offset < 192; offset += 64) // what every node has, and a matrix
    {
        __builtin_prefetch(reinterpret_cast<const char *>(node) + offset);
    }
}

void fetchBehind(const vunode *entity)
{
    if (const vunode *next = entity->next; next != nullptr)
    {
        if (const pfNode *node = reinterpret_cast<const vuEntity *>(next)->nodes[1]; node != nullptr)
        {
            fetchNode(node);
        }
        if (next->next != nullptr)
        {
            fetchEntity(reinterpret_cast<const vuEntity *>(next->next));
        }
    }
}

} // namespace

void setupDR(vuDeadReckoning *dr)
{
    *dr = {};
    dr->algorithm = VU_DR_RVW;
}

void setupES(vuEntityState *es)
{
    *es = {};
    es->protocolVersion = kProtocolDis1995;
    es->exerciseId = 1;
    es->pduType = kPduEntityState;
    es->protocolFamily = kFamilyEntityInformation;
    es->timestamp = disMakeRelTime();
    es->length = sizeof *es;
    es->entityId = {.site = 1, .application = 1, .entity = 1};
    es->entityType = kFighter;
    es->altEntityType = kFighter;
    setupDR(&es->deadReckoning);
    es->marking.characterSet = kCharacterSetAscii;
    static_assert(kMarking.size() == sizeof es->marking.text);
    std::ranges::copy(kMarking, es->marking.text);
}

void initXForm(xform *model)
{
    *model = {};
    model->accel = kDriveAccel;
    model->topSpeed = kDriveTopSpeed;
    setupES(&model->es);
}

void resetXForm(vuEntity *entity)
{
    if (entity == nullptr)
    {
        vuMessage("Warning", kModule, 247, "\033[31mNo ENTITY\033[0m");
        return;
    }
    xform &model = entity->xform;
    model.speed = 0.0F;
    switch (entity->motionKind)
    {
    case VU_MOTION_DRIVE:
        model.kind = VU_XFORM_DRIVE;
        model.accel = kDriveAccel;
        model.topSpeed = kDriveTopSpeed;
        break;
    case VU_MOTION_FLY:
        model.kind = VU_XFORM_FLY;
        model.accel = kFlyAccel;
        model.topSpeed = kFlyTopSpeed;
        break;
    default:
        model.kind = VU_XFORM_NONE;
    }
    entity->drState = &model.es;
    disChangeStatus(&entity->status, VU_STATUS_MOVING);
}

void stopXForm(vuEntity *entity)
{
    if (entity == nullptr)
    {
        vuMessage("Warning", kModule, 185, "\033[31mNo ENTITY\033[0m");
        return;
    }
    vuEntityState &es = entity->xform.es;
    entity->xform.speed = 0.0F;
    std::ranges::fill(es.velocity, 0.0F);
    std::ranges::copy(entity->position, es.location);
    std::ranges::copy(entity->orientation, es.orientation);
    disCalcDRMatrices(entity, &es);
}

void doXForm(vuRootNode *root, vuEntity *entity, vuChannel *channel)
{
    drive(kFree, root, entity, channel);
}

void doXFormI_COLLIDE(vuRootNode *root, vuEntity *entity, vuChannel *channel)
{
    drive(kRestricted, root, entity, channel);
}

void checkCollisions(vuRootNode *root)
{
    pfSegSet set = {};
    set.mode = PFTRAV_IS_PRIM | PFTRAV_IS_NORM | PFTRAV_IS_NEAREST;
    set.activeMask = 1;
    for (vunode *s = root->scenes.first; s != nullptr; s = s->next)
    {
        auto &scene = *reinterpret_cast<vuScene *>(s);
        set.isectMask = scene.collideWord;
        for (vunode *e = scene.entities.first; e != nullptr; e = e->next)
        {
            fetchBehind(e);
            auto &entity = *reinterpret_cast<vuEntity *>(e);
            if (isTested(entity))
            {
                collide(entity, scene.sceneNode, set);
            }
        }
    }
}
