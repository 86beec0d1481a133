#include "kernelvunode.h"
