#include "kerneldis.h"
