#include "sendcommand.h"
