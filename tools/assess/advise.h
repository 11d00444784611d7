// Advice before calibrating: applies the calibration's own focus search and
// spot detection to every channel of a target stack, reports what they keep
// and lose at each candidate gridThreshold, and recommends the calibration
// command line that keeps the most usable spots.
//
// Unlike the rest of corvane-assess, this part calls the product's spot
// library on purpose: its job is to predict what calibration will see.
#pragma once

#include <vector>

namespace advise {

// True when the command line asks for advice (an argument --advise).
bool requested(int argc, char** argv);

// Runs `corvane-assess --advise TARGET [-referenceChannelIndex N]`: prints
// the advice on standard output and returns the exit status.
int run(int argc, char** argv);

// ---------------------------------------------------------------------------
// Measurements shared by the driver and the printer.
// ---------------------------------------------------------------------------

// What the cleaning of a focus section does to its blobs at one threshold.
struct BlobCounts {
  int kept = 0;      // 16 to 299 pixels: survive the cleaning
  int tooSmall = 0;  // erased as noise
  int tooLarge = 0;  // lifted to the mean as debris
  int inBorder = 0;  // kept, but with their peak in the band no candidate comes from
  int emptyRegions = 0;          // focus-search regions holding no kept blob
  double medianPeakOverMean = 0;  // brightness of the kept blobs' peaks over the image mean
  double lowestPeakOverMean = 0;
  double levelOverNoise = 0;  // the percentile's level over the background, in noise sigmas
};

// One channel's focus section, as calibration reads and widens it.
struct Channel {
  float wavelength = 0.0f;
  int focus = 0;
  std::vector<double> plane;  // numRows x numCols, row-major
  double background = 0.0, noise = 0.0;  // median and robust sigma of the plane
};

// A pair of spot centres, reference and channel, in pixels (x column, y row).
struct CentrePair {
  double refX, refY, x, y;
};

// Candidates of one channel that pass 1 of calibration can pair, and their
// centres, at the gridThreshold in force.
struct Pairing {
  int candidates = 0;  // the reference's spot candidates
  int usable = 0;      // with exactly one spot of each image in the capture window
  std::vector<CentrePair> centres;
};

// Blob counts of the channel's plane under the cleaning rules at the
// gridThreshold in force (the global of the settings).
BlobCounts countBlobs(const Channel& channel, int numRows, int numCols);

// Cleans both planes as calibration does and counts the reference's
// candidates whose capture window holds exactly one spot of each image.
Pairing pairCandidates(const std::vector<double>& reference, const std::vector<double>& channel,
                       int numRows, int numCols);

// Model families that the pairs can tell apart, simplest first.
enum class ModelAdvice { kUnknown, kRadial, kLinear, kLinearHighOrder };

// The simplest model family that explains the pairs' displacements within the
// tolerance; kUnknown with too few pairs. *gainPx receives the largest change
// that each more general family makes at the pairs, for the printout.
ModelAdvice chooseModel(const std::vector<CentrePair>& pairs, int numRows, int numCols,
                        double gainPx[2]);

}  // namespace advise
