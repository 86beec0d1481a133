#include "kernelvutime.h"
