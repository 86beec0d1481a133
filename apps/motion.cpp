#include "motion.h"
