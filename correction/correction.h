// Section correction: resampling of one section through a channel's model, and
// the correction driver that writes the corrected stack.
#pragma once

// Reads the alignment parameter file, then resamples every section of every
// channel of the input stack into the output stack.
void performCorrection(char* pathParameterFile, char* pathInput, char* pathOutput);
