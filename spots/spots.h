// Spot measurement: focus search, spot detection, sub-pixel Gaussian fit and
// pairing of spots between two focus sections.
#pragma once
