#include "pfumouse.h"

#include <mutex>

#include <pthread.h>

namespace
{

// A fork waits while another thread uses the mouse: the child gets a whole record, and no mutex that nobody in it would
// unlock.
std::mutex guard;
pfuMouse current = {};
[[maybe_unused]] const int forkHandlers =
    pthread_atfork([] { guard.lock(); }, [] { guard.unlock(); }, [] { guard.unlock(); });

} // namespace

void pfuSetMouse(const pfuMouse *mouse)
{
    const std::lock_guard lock(guard);
    current = *mouse;
}

void pfuGetMouse(pfuMouse *mouse)
{
    const std::lock_guard lock(guard);
    *mouse = current;
}

int pfuMouseInChan(pfuMouse *mouse, pfChannel *channel)
{
    const bool over = pfChanContainsPixel(channel, mouse->x, mouse->y) != 0;
    return over && mouse->inWindow != 0 ? 1 : 0;
}
