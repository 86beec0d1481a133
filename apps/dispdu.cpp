#include "dispdu.h"
