#include "pfmemory.h"
