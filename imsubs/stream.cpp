// Placeholder until the stream table lands.
#include "imsubs/imsubs.h"
