// Assessment of channel registration in a stack of a spot target.
//
// Deliberately independent of the calibration's own spot code: its own focus
// measure (image energy), its own detection (local maxima above a robust
// noise threshold) and its own sub-pixel fit (a small Levenberg-Marquardt fit
// of a symmetric Gaussian), so that it can judge the calibration honestly.
//
// Positions are in pixels, x the column and y the row, pixel centres on whole
// numbers.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "model/model.h"

namespace assess {

inline constexpr double kNmPerMicrometre = 1000.0;

// printf into a string as long as the text needs.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

struct StackInfo {
  int numCols = 0, numRows = 0, numZ = 0, numW = 0, numT = 0;
  float spacing[3] = {1.0f, 1.0f, 1.0f};
  std::vector<float> wavelengths;
};

// A located spot.
struct Spot {
  double x, y;
  double sigma;      // fitted width, pixels
  double amplitude;  // fitted peak above the background
};

// Reads the stack's header; empty string or the failure. Stream `kStream`.
std::string readStackInfo(const std::string& path, StackInfo* info);
// Reads one section as floats into `pixels`; empty string or the failure.
std::string readSection(const std::string& path, const StackInfo& info, int z, int w, int t,
                        std::vector<float>* pixels);

// Focus score of a section: the mean squared deviation from the section's
// mean. Blurring spreads the same light thinner, and the score falls.
double focusScore(const float* pixels, size_t n);
// The best section (highest score, first on a tie) and, by a parabola through
// it and its neighbours, a fractional position.
struct Focus {
  int section;
  double position;
};
Focus bestFocus(const std::vector<double>& scores);

// Background (median) and noise (scaled median absolute deviation).
void backgroundAndNoise(const float* pixels, size_t n, double* background, double* noise);

// Finds and fits the spots of one section: local maxima more than
// kDetectSigmas noise above the background, at least kFitRadius from the
// edges, the brighter of two within kMinSeparation kept, each refined by the
// Gaussian fit. Windows that touch exact zeros (no data after a warp) are left
// out when the background is not zero.
std::vector<Spot> findSpots(const float* pixels, int numCols, int numRows);

// Fits a symmetric 2D Gaussian plus background to the window of radius
// kFitRadius around pixel (px, py). Returns false when the fit fails or runs
// away (centre more than kMaxShift from the start, width out of range).
bool fitSpot(const float* pixels, int numCols, int numRows, int px, int py, double background,
             Spot* spot);

// Mutual nearest neighbours within maxDistance: pairs of indices (a, b).
std::vector<std::pair<int, int>> pairSpots(const std::vector<Spot>& a, const std::vector<Spot>& b,
                                           double maxDistance);

// Distances of registration, with both axes' spacings for nanometres.
struct ErrorStats {
  int count = 0;
  double rmsPx = 0.0, p95Px = 0.0, rmsNm = 0.0, p95Nm = 0.0;
  double meanDx = 0.0, meanDy = 0.0;
};
// From displacement vectors (dx, dy) in pixels; spacings in micrometres.
ErrorStats errorStats(const std::vector<CorvanePoint2D>& displacements, double spacingX,
                      double spacingY);

// One channel's registration against the reference.
struct ChannelReport {
  int index;
  float wavelength;
  Focus focus;
  double zOffset;  // focus position minus the reference's, sections
  int spots;
  int pairs;
  ErrorStats error;
  // With a ground truth: the true misregistration at the paired reference
  // spots, and how far this channel's spots lie from their true positions.
  bool haveTruth = false;
  ErrorStats truthError;
  ErrorStats localisation;
  int trueZOffset = 0;
  int trueSpots = 0;  // true spots inside the section, for the detection rate
  // The vectors behind the figures: channel spot minus reference spot, and
  // true displacement at the same reference spots; `positions` holds those
  // reference spots, entry by entry.
  std::vector<CorvanePoint2D> positions;
  std::vector<CorvanePoint2D> displacements;
  std::vector<CorvanePoint2D> trueDisplacements;
};

struct Options {
  int reference = 0;
  int time = 0;
  double maxPairDistance = 20.0;
};

// Measures every channel of the stack at `path`; `truth` may be null. Empty
// string or the failure.
std::string assessStack(const std::string& path, const Options& options,
                        const nlohmann::json* truth, StackInfo* info,
                        std::vector<ChannelReport>* reports);

// Difference of a recovered parameter file from the truth, per channel.
struct MappingReport {
  int index;
  float wavelength;
  bool found;    // the file has a row for the channel's wavelength
  double rmsPx;  // RMS over the field of |recovered(p) - true(p)|
  double maxPx;
  double rmsNm;
  int trueShift;       // sections
  int recoveredShift;  // sections, as a correction would take them
};

// Reads a parameter file as numbers, 27 to a row; empty string or the
// failure. Its own reader, so it never ends the process.
std::string readParameterFile(const std::string& path, std::vector<std::vector<double>>* rows);

// The row a correction run would take for `wavelength`: the first whose key
// (the truncated wavelength) matches, the final row included; -1 when none.
int parameterRowFor(const std::vector<std::vector<double>>& rows, float wavelength);

// Compares the mappings of `rows` (as read) with the truth's over the field
// of the truth's stack, on a grid of step kMappingGridStep pixels.
std::string compareMappings(const std::vector<std::vector<double>>& rows,
                            const nlohmann::json& truth, std::vector<MappingReport>* reports);

// Human-readable tables and the JSON record.
std::string formatReports(const std::string& path, const StackInfo& info, const Options& options,
                          const std::vector<ChannelReport>& reports);
std::string formatMappings(const std::vector<MappingReport>& reports);
nlohmann::json reportsJson(const std::string& path, const StackInfo& info, const Options& options,
                           const std::vector<ChannelReport>& reports);
nlohmann::json mappingsJson(const std::vector<MappingReport>& reports);

// Pooled figures over all non-reference channels, for one-line summaries:
// measured displacements, or with `truth` the true ones.
ErrorStats pooled(const std::vector<ChannelReport>& reports, int reference, bool truth,
                  double spacingX, double spacingY);

constexpr int kFitRadius = 6;
constexpr double kDetectSigmas = 10.0;
constexpr double kMinSeparation = 6.0;
constexpr double kMaxShift = 2.0;
constexpr double kMappingGridStep = 4.0;
constexpr double kLocalisationMatch = 3.0;

}  // namespace assess
