#include "reportclock.h"
