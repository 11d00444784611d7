// The calibration driver: from a target stack to the alignment parameter file.
#include "model/model.h"

void performCalibration(char*, char*, int, int, double, int, int) {}
