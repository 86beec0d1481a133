#include "geodesy.h"
