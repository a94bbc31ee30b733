#include "LumoImageFilter.h"

extern "C" {
const unsigned char LumoImageFilterVersionString[] = "@(#)PROGRAM:LumoImageFilter  PROJECT:LumoImageFilter-1\n";
const double LumoImageFilterVersionNumber = 1.0;
}
