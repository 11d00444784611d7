// The correction driver: from a stack and a parameter file to the corrected stack.
#include "correction/correction.h"

void performCorrection(char*, char*, char*) {}
