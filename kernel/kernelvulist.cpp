#include "kernelvulist.h"
