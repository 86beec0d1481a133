#include "kernelxform.h"

#include "kerneldis.h"

#include <algorithm>
#include <string_view>

namespace
{

constexpr auto kDriveAccel = static_cast<float>(20000.0 / 3.0);
constexpr auto kDriveTopSpeed = static_cast<float>(100.0 / 3.6); // 100 km/h

constexpr uint8_t kProtocolDis1995 = 5;
constexpr uint8_t kPduEntityState = 1;
constexpr uint8_t kFamilyEntityInformation = 1;
constexpr uint8_t kCharacterSetAscii = 1;
constexpr std::string_view kMarking = "xform      ";

// SISO enumeration: platform, air, Germany, fighter/air defence.
constexpr vuEntityType kFighter = {
    .kind = 1, .domain = 2, .country = 78, .category = 1, .subcategory = 0, .specific = 0, .extra = 0};

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
