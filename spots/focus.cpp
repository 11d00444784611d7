#include "spots/spots.h"
