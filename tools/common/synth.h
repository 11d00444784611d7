// Synthetic calibration targets and specimens with a known misregistration.
//
// A target is a slide of isolated sub-resolution spots imaged in several
// channels through focus; a specimen is a field of filaments and blobs. Each
// channel is displaced by a ground-truth model of the alignment model family
// and focused a whole number of sections away from the reference channel.
// The truth goes out in the alignment parameter file format and as JSON.
//
// Positions are in pixels, x the column and y the row, with pixel centres on
// whole numbers, as the section transform samples them. A model carries a
// reference-frame position to the position in the channel's own image where
// that content sits: a spot at reference position p appears in channel c at
// model_c(p).
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "model/model.h"

namespace synth {

enum class PixelKind { kUnsigned16, kFloat };
enum class Layout { kGrid, kRandom };

// Size and sampling of the stacks written.
struct Geometry {
  int numCols = 1024;
  int numRows = 1024;
  int numZ = 64;
  int numTimes = 1;
  std::vector<float> wavelengths = {435.0f, 528.0f, 608.0f, 683.0f};
  float spacingX = 0.08f;  // micrometres
  float spacingY = 0.08f;
  float spacingZ = 0.125f;
  PixelKind pixels = PixelKind::kUnsigned16;
};

// Point spread function, brightness and camera.
struct Optics {
  double psfSigma = 1.6;         // in-focus lateral sigma in pixels at kSigmaWavelength
  double focusDepth = 0.4;       // micrometres at which the sigma has grown by sqrt(2)
  double spotPhotons = 40000.0;  // mean photons of one spot in one section
  double background = 100.0;     // photons per pixel
  double readNoise = 3.0;        // electrons, Gaussian
  double cameraOffset = 100.0;   // added to every pixel, in counts
};
constexpr double kSigmaWavelength = 528.0;

// Where the spots go. Zero means "chosen from the image size" (see
// autoGridPitch and autoSpotCount).
struct SpotLayout {
  Layout layout = Layout::kGrid;
  double pitch = 0.0;        // grid: spacing in pixels
  int count = 0;             // random: number of spots
  double minSpacing = 40.0;  // random: least distance between spots
  double margin = 40.0;      // random: least distance from the edges
  double jitter = 0.12;      // grid: displacement, a fraction of the pitch
};

// Bounds of the random misregistration of a channel.
struct Bounds {
  double magnification = 0.005;  // |scale - 1|
  double rotation = 0.005;       // radians
  double shift = 10.0;           // pixels, each axis
  int zOffset = 3;               // sections
  double highOrder = 0.5;        // pixels at the field's edge, each second-order term
};

// A channel's model given on the command line: keys cx, cy, mag, magx, magy,
// rot, tx, ty, dz and h0 to h11 (the second-order terms, elements 8 to 19).
// Keys not named take their identity value.
using ChannelOverride = std::map<std::string, double>;

struct Config {
  uint64_t seed = 1;
  Geometry geometry;
  Optics optics;
  SpotLayout layout;
  Bounds bounds;
  int linearFlag = 0;  // 0 radial model, 1 linear model
  bool highOrder = false;
  int reference = 0;
  int focusSection = -1;  // of the reference channel; -1: the middle section
  std::map<int, ChannelOverride> overrides;
};

// A spot of the target in the reference frame.
struct Spot {
  double x;
  double y;
  double photons;
};

// The true misregistration of one channel. `parameters` are in pixels of the
// generated stack, exactly as a correction run applies them after reading the
// parameter file, so the rendered stack and the file agree to the last digit
// the file holds.
struct ChannelTruth {
  double parameters[kNumModelParameters];
  int zOffset;       // sections: the channel's focus minus the reference's
  int appliedShift;  // the section shift a correction run takes from the file
};

struct Truth {
  int linearFlag;
  int reference;
  int focusSection;  // of the reference channel
  std::vector<ChannelTruth> channels;
  // The alignment parameter file of the truth, in the file's physical units:
  // channel rows in channel order without the reference, then the final row.
  std::vector<std::vector<double>> rows;
};

// Checks a configuration; returns an empty string or the reason it is refused.
std::string validateConfig(const Config& config);

// The default grid pitch: as many spots per focus-search region (a quarter of
// the field each way) as keep about kSpotsPerPixel of them in the field.
double autoGridPitch(int extent);
int autoSpotCount(const Geometry& geometry);

// The spots of the target, in the reference frame.
std::vector<Spot> makeSpots(const Config& config);

// The true models and Z offsets: random within the bounds, or as overridden.
Truth makeTruth(const Config& config);

// The position in channel c's image of reference position (x, y), by the
// model that a correction run applies (the second-order terms count on top of
// the linear model only).
CorvanePoint2D mapToChannel(const Truth& truth, int channel, double x, double y);
CorvanePoint2D mapWithParameters(const double* parameters, int linearFlag, double x, double y);

// In-focus lateral sigma of channel c, in pixels, and its growth with defocus.
double psfSigma(const Config& config, int channel);
double defocusedSigma(const Config& config, int channel, double defocusMicrometres);

// A specimen: filament samples and blobs in the reference frame, z in
// sections of the reference channel, with a brightness per channel.
struct SpecimenPoint {
  double x, y, z;
  double radius;  // pixels: 0 for filament samples
  int structure;  // index into Specimen::weights
  double photons;
};
struct Specimen {
  std::vector<SpecimenPoint> points;
  std::vector<std::vector<double>> weights;  // per structure, per channel
};
Specimen makeSpecimen(const Config& config);

// Renders one section with background and noise, as counts. Deterministic in
// (seed, channel, time, section) whatever thread runs it.
void renderTargetSection(const Config& config, const Truth& truth, const std::vector<Spot>& spots,
                         int channel, int time, int section, float* out);
void renderSpecimenSection(const Config& config, const Truth& truth, const Specimen& specimen,
                           int channel, int time, int section, float* out);

// Writes a stack at `path` whose sections `render` fills (channel, time,
// section, out), rendering sections on `threads` threads (0: all cores) and
// writing them in file order. Returns an empty string or the failure.
using SectionRenderer = void (*)(const void* context, int channel, int time, int section,
                                 float* out);
std::string writeStack(const std::string& path, const Config& config, const std::string& title,
                       SectionRenderer render, const void* context, int threads);

// Target and specimen in one call each; empty string or the failure.
std::string writeTarget(const std::string& path, const Config& config, const Truth& truth,
                        const std::vector<Spot>& spots, int threads);
std::string writeSpecimen(const std::string& path, const Config& config, const Truth& truth,
                          const Specimen& specimen, int threads);

// The ground truth as JSON: stack, seed, models, offsets, spot positions in
// the reference frame and in every channel's image.
nlohmann::json truthJson(const Config& config, const Truth& truth, const std::vector<Spot>& spots);

// Parses a channel override "C:key=value,key=value"; false on a bad text.
bool parseChannelOverride(const std::string& text, int* channel, ChannelOverride* values,
                          std::string* error);

}  // namespace synth
