// Reports whose rotation the kernel neglects.
#pragma once

#include <tolvin/kernel/kerneldisstate.h>

namespace tolvin
{

// The kernel changes a report of algorithm 3, 4 or 6 to 9 with an angular velocity of at most 0.00001 rad/s to
// algorithm 2: it then leaves out the acceleration, and reads a body velocity as a world velocity. Turn such a report
// into the one in world coordinates that means the same motion: 4 becomes 5 (FVW); 6 and 7 become 2 (FPW), 8 and 9
// become 5 with the acceleration. Other reports are left as they are. Call it before the report is handed over.
void conditionRotation(vuEntityState &report);

} // namespace tolvin
