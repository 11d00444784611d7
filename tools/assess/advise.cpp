// The advisor's driver: reads each channel's focus section with the
// calibration's own focus search, sweeps the candidate gridThresholds, picks
// the one that keeps the most usable spots in the worst channel, and prints
// the counts behind the choice and the calibration command line.
#include "tools/assess/advise.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/settings.h"
#include "imsubs/imsubs.h"
#include "spots/spots.h"
#include "tools/common/assess.h"
#include "tools/common/cli.h"

namespace advise {

namespace {

constexpr char kProgram[] = "corvane-assess";
constexpr int kStream = 14;  // apart from the assessment's own stream
constexpr int kFocusDivisions = 4;
constexpr double kDefaultThreshold = 0.995;

// Tried from the strictest down. Below 0.95 the bright share reaches one
// pixel in twenty and blobs of neighbouring spots begin to merge.
constexpr double kThresholds[] = {0.999, 0.998, 0.997, 0.995, 0.993, 0.99,
                                  0.985, 0.98,  0.97,  0.96,  0.95};
constexpr int kNumThresholds = sizeof kThresholds / sizeof kThresholds[0];

// Thresholds whose least usable count comes within this share of the best
// are taken as equal; among them the lowest wins, since larger blobs give
// the spot fit more of each profile.
constexpr double kNearBestShare = 0.98;

// The percentile's level must stand this many noise sigmas over the
// background: lower, the blobs' edges follow the noise, not the spots, and
// the spot fits on the cleaned section wander.
constexpr double kMinLevelOverNoise = 2.0;

// A channel that pairs less than this share of the reference's candidates
// is worth a warning: the rest can only add outliers to the first pass.
constexpr double kLowPairingShare = 0.8;

struct Arguments {
  std::string target;
  int reference = 0;
};

Arguments parseArguments(int argc, char** argv) {
  Arguments args;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--advise=", 0) == 0) {
      args.target = arg.substr(std::strlen("--advise="));
    } else if ((arg == "--advise" || arg == "-referenceChannelIndex") && i + 1 >= argc) {
      cli::usageError(kProgram, arg + " needs a value");
    } else if (arg == "--advise") {
      args.target = argv[++i];
    } else if (arg == "-referenceChannelIndex") {
      const double value = cli::parseNumber(kProgram, argv[++i], "referenceChannelIndex");
      if (value < 0.0 || value != static_cast<int>(value))
        cli::usageError(kProgram, "-referenceChannelIndex: give a channel index from 0");
      args.reference = static_cast<int>(value);
    } else {
      cli::usageError(kProgram, "with --advise, only -referenceChannelIndex N may be given");
    }
  }
  if (args.target.empty()) cli::usageError(kProgram, "--advise needs a target stack");
  return args;
}

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
  std::exit(1);
}

// Every channel's focus section, found and read as calibration does. A read
// that fails after the header was read ends the run with the focus search's
// own messages.
std::vector<Channel> readFocusSections(const std::string& path, const assess::StackInfo& info) {
  if (IMOpen(kStream, path.c_str(), "ro") != 0) fail("cannot open " + path);
  std::vector<float> section(static_cast<std::size_t>(info.numRows) * info.numCols);
  std::vector<Channel> channels(static_cast<std::size_t>(info.numW));
  for (int w = 0; w < info.numW; ++w) {
    Channel& c = channels[w];
    c.wavelength = info.wavelengths[w];
    getFocusImagePerChannel(kStream, w, 0, info.numZ, info.numRows, info.numCols,
                            kFocusDivisions, kFocusDivisions, section.data(), &c.focus);
    c.plane.assign(section.begin(), section.end());
    assess::backgroundAndNoise(section.data(), section.size(), &c.background, &c.noise);
  }
  IMClose(kStream);
  return channels;
}

// Counts of every channel at one threshold, and pairings of the others.
struct Sweep {
  double threshold = 0.0;
  std::vector<BlobCounts> counts;
  std::vector<Pairing> pairings;  // empty entry at the reference
  int leastUsable = 0;
  double lowestLevel = 1e300;  // of levelOverNoise over the channels
};

Sweep measureAt(double threshold, const std::vector<Channel>& channels, int reference,
                int numRows, int numCols) {
  gridThreshold = threshold;  // the spot library reads the global
  Sweep sweep;
  sweep.threshold = threshold;
  sweep.leastUsable = -1;
  for (std::size_t c = 0; c < channels.size(); ++c) {
    sweep.counts.push_back(countBlobs(channels[c], numRows, numCols));
    sweep.lowestLevel = std::min(sweep.lowestLevel, sweep.counts.back().levelOverNoise);
    if (static_cast<int>(c) == reference) {
      sweep.pairings.emplace_back();
      continue;
    }
    sweep.pairings.push_back(
        pairCandidates(channels[reference].plane, channels[c].plane, numRows, numCols));
    const int usable = sweep.pairings.back().usable;
    if (sweep.leastUsable < 0 || usable < sweep.leastUsable) sweep.leastUsable = usable;
  }
  if (sweep.leastUsable < 0) sweep.leastUsable = 0;
  return sweep;
}

// The lowest threshold whose least usable count is near the best one, among
// those whose level stands clear of the noise in every channel (all of them
// when none does).
int chooseThreshold(const std::vector<Sweep>& sweeps) {
  const bool anyClear = std::any_of(sweeps.begin(), sweeps.end(), [](const Sweep& s) {
    return s.lowestLevel >= kMinLevelOverNoise && s.leastUsable > 0;
  });
  auto eligible = [&](const Sweep& s) { return !anyClear || s.lowestLevel >= kMinLevelOverNoise; };
  int best = 0;
  for (const Sweep& s : sweeps)
    if (eligible(s)) best = std::max(best, s.leastUsable);
  int chosen = 0;
  for (int k = 0; k < static_cast<int>(sweeps.size()); ++k) {
    if (eligible(sweeps[k]) && sweeps[k].leastUsable >= kNearBestShare * best) chosen = k;
  }
  return chosen;
}

void printSweep(const std::vector<Sweep>& sweeps, const std::vector<Channel>& channels,
                int reference, int chosen) {
  std::printf(
      "Usable spots per -gridThreshold: reference candidates whose capture window (%d px each\n"
      "way) holds that spot alone in both images, as the first pass of calibration fits them.\n",
      kSpotSearchHalfWidth);
  std::printf("threshold  candidates");
  for (std::size_t c = 0; c < channels.size(); ++c)
    if (static_cast<int>(c) != reference) std::printf("  %4.0f nm", channels[c].wavelength);
  std::printf("   least  level/noise\n");
  for (int k = 0; k < static_cast<int>(sweeps.size()); ++k) {
    const Sweep& s = sweeps[k];
    std::printf("%9.3f  %10d", s.threshold, s.pairings[reference == 0 ? 1 : 0].candidates);
    for (std::size_t c = 0; c < channels.size(); ++c)
      if (static_cast<int>(c) != reference) std::printf("  %7d", s.pairings[c].usable);
    std::printf("  %6d  %11.1f%s\n", s.leastUsable, s.lowestLevel, k == chosen ? "   <- advised" : "");
  }
}

void printCounts(const Sweep& s, const std::vector<Channel>& channels, const char* label) {
  std::printf("\nAt -gridThreshold %.3f (%s): blobs of the focus section under the cleaning rules\n",
              s.threshold, label);
  std::printf(
      "channel  wave  focus   kept  too small  too large  in border  empty regions"
      "  peak over mean: median  lowest  level/noise\n");
  for (std::size_t c = 0; c < channels.size(); ++c) {
    const BlobCounts& b = s.counts[c];
    std::printf("%7zu  %4.0f  %5d  %5d  %9d  %9d  %9d  %13d  %22.1f  %6.1f  %11.1f\n", c,
                channels[c].wavelength, channels[c].focus, b.kept, b.tooSmall, b.tooLarge,
                b.inBorder, b.emptyRegions, b.medianPeakOverMean, b.lowestPeakOverMean,
                b.levelOverNoise);
  }
}

// The model flags the pairs call for, pooled over the channels: the most
// general family any channel needs.
ModelAdvice printModel(const Sweep& s, const std::vector<Channel>& channels, int reference,
                       int numRows, int numCols) {
  static const char* const kNames[] = {"cannot tell (too few pairs)", "radial", "linear",
                                       "linear + high order"};
  std::printf("\nModel: largest change at the pairs from radial to linear, linear to second order\n");
  ModelAdvice advice = ModelAdvice::kUnknown;
  for (std::size_t c = 0; c < channels.size(); ++c) {
    if (static_cast<int>(c) == reference) continue;
    double gain[2];
    const ModelAdvice m = chooseModel(s.pairings[c].centres, numRows, numCols, gain);
    std::printf("%7zu  %4.0f  %.3f px  %.3f px  -> %s\n", c, channels[c].wavelength, gain[0],
                gain[1], kNames[static_cast<int>(m)]);
    if (static_cast<int>(m) > static_cast<int>(advice)) advice = m;
  }
  return advice;
}

void printWarnings(const Sweep& s, const std::vector<Channel>& channels, int reference) {
  const int candidates = s.pairings[reference == 0 ? 1 : 0].candidates;
  for (std::size_t c = 0; c < channels.size(); ++c) {
    if (static_cast<int>(c) == reference) continue;
    if (s.pairings[c].usable < kLowPairingShare * candidates) {
      std::printf("WARNING: channel %zu (%.0f nm) pairs %d of %d candidates; the rest are fitted "
                  "to whatever their window holds\n",
                  c, channels[c].wavelength, s.pairings[c].usable, candidates);
    }
    if (s.counts[c].emptyRegions > 0) {
      std::printf("WARNING: channel %zu (%.0f nm) has %d focus regions without a spot; their "
                  "focus votes follow the noise\n",
                  c, channels[c].wavelength, s.counts[c].emptyRegions);
    }
  }
}

std::string outputPathFor(const std::string& target) {
  const std::size_t slash = target.rfind('/');
  return slash == std::string::npos ? "alignment.txt" : target.substr(0, slash + 1) + "alignment.txt";
}

void printCommand(const Arguments& args, double threshold, ModelAdvice model) {
  std::string line = "corvane calibration " + args.target + " " + outputPathFor(args.target);
  if (args.reference != 0) line += " -referenceChannelIndex " + std::to_string(args.reference);
  if (model == ModelAdvice::kLinear || model == ModelAdvice::kLinearHighOrder)
    line += " -doLinearModelFitting";
  if (model == ModelAdvice::kLinearHighOrder) line += " -doHighOrderModelFitting";
  char value[32];
  std::snprintf(value, sizeof value, "%g", threshold);
  line += std::string(" -gridThreshold ") + value;
  std::printf("\nAdvised command:\n%s\n", line.c_str());
}

}  // namespace

bool requested(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--advise") == 0 || std::strncmp(argv[i], "--advise=", 9) == 0)
      return true;
  }
  return false;
}

int run(int argc, char** argv) {
  const Arguments args = parseArguments(argc, argv);
  assess::StackInfo info;
  const std::string error = assess::readStackInfo(args.target, &info);
  if (!error.empty()) fail(error);
  if (info.numW < 2) fail(args.target + " has one channel: there is nothing to calibrate");
  if (args.reference >= info.numW) fail("-referenceChannelIndex: the stack has no such channel");

  const std::vector<Channel> channels = readFocusSections(args.target, info);
  std::printf("Advice for calibrating %s\n%d x %d pixels, %d sections, %d channels; reference "
              "channel %d (%.0f nm)\n\n",
              args.target.c_str(), info.numCols, info.numRows, info.numZ, info.numW,
              args.reference, channels[args.reference].wavelength);
  std::vector<Sweep> sweeps;
  int defaultIndex = 0;
  for (int k = 0; k < kNumThresholds; ++k) {
    if (kThresholds[k] == kDefaultThreshold) defaultIndex = k;
    sweeps.push_back(measureAt(kThresholds[k], channels, args.reference, info.numRows,
                               info.numCols));
  }
  const int chosen = chooseThreshold(sweeps);
  printSweep(sweeps, channels, args.reference, chosen);
  printCounts(sweeps[defaultIndex], channels, "the default");
  if (chosen != defaultIndex) printCounts(sweeps[chosen], channels, "advised");
  const ModelAdvice model =
      printModel(sweeps[chosen], channels, args.reference, info.numRows, info.numCols);
  printWarnings(sweeps[chosen], channels, args.reference);
  printCommand(args, sweeps[chosen].threshold, model);
  return 0;
}

}  // namespace advise
