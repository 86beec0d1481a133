#include "kernelutil.h"
