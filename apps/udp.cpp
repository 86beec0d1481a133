#include "udp.h"
