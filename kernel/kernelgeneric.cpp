#include "kernelgeneric.h"
