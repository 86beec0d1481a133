#include "pfmath.h"

#include <cstring>

void pfCopyMat(pfMatrix dst, const pfMatrix src)
{
    memmove(dst, src, sizeof(pfMatrix));
}
