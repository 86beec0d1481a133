#include "kernelxform.h"
