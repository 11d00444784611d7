#include "trsolver/trsolver.h"
