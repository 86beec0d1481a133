#include "reportrotation.h"
