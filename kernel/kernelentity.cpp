#include "kernelentity.h"
