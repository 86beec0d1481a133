#include "kerneldisdr.h"
