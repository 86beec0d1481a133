#include "runcommand.h"
