// corvane-synth: writes a synthetic calibration target and specimen with a
// known channel misregistration, and the truth in the alignment parameter file
// format and as JSON.
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "model/model.h"
#include "tools/common/cli.h"
#include "tools/common/synth.h"

namespace {

constexpr char kProgram[] = "corvane-synth";

void printHelp() {
  std::printf(
      "Usage: corvane-synth [options] OUTPUT_DIR\n"
      "\n"
      "Writes a synthetic calibration target and specimen whose channels are misregistered by\n"
      "a known model, and the truth. Into OUTPUT_DIR (created if needed):\n"
      "  target.qf     isolated spots imaged through focus in every channel\n"
      "  specimen.qf   random filaments and blobs, with the same misregistration\n"
      "  truth.txt     the true alignment parameter file: 'corvane correction' can run on it\n"
      "  truth.json    models, Z offsets, seed and true spot positions per channel\n"
      "The same seed and options give byte-identical files, whatever the thread count.\n"
      "\n"
      "Stack:\n"
      "  --size W[xH]             image size in pixels (1024)\n"
      "  --sections N             Z sections (64)\n"
      "  --times N                time points (1)\n"
      "  --channels N             number of channels (4), wavelengths from the list below\n"
      "  --wavelengths A,B,...    channel wavelengths in nm (435,528,608,683)\n"
      "  --spacing X,Y,Z          pixel spacing in micrometres (0.08,0.08,0.125)\n"
      "  --float                  32-bit float pixels instead of unsigned 16-bit\n"
      "  --what target|specimen|both   which stacks to write (both); the truth always\n"
      "\n"
      "Spots of the target:\n"
      "  --layout grid|random     jittered grid or random with a least spacing (grid)\n"
      "  --pitch PX               grid spacing (auto, about 85 px; see Density)\n"
      "  --spots N                random layout: number of spots (auto: one per 85 x 85 px)\n"
      "  --min-spacing PX         random layout: least distance between spots (40)\n"
      "\n"
      "Optics and camera:\n"
      "  --psf-sigma PX           in-focus lateral sigma at 528 nm, in proportion to the\n"
      "                           wavelength in other channels (1.6)\n"
      "  --focus-depth UM         defocus at which the sigma has grown by sqrt(2) (0.4)\n"
      "  --photons N              mean photons per spot per section (40000; each spot 0.7 to\n"
      "                           1.3 times that)\n"
      "  --background N           photons per pixel (100)\n"
      "  --read-noise E           Gaussian read noise in electrons (3)\n"
      "  --offset N               camera offset in counts (100)\n"
      "  --focus-section N        best focus of the reference channel (the middle section)\n"
      "\n"
      "Misregistration (each channel against the reference):\n"
      "  --seed N                 random seed (1)\n"
      "  --model radial|linear    model family, as calibration defines them (radial)\n"
      "  --high-order             add random second-order terms (needs --model linear,\n"
      "                           the only model a correction applies them to)\n"
      "  --reference C            reference channel index (0)\n"
      "  --max-magnification F    |scale - 1| up to F (0.005)\n"
      "  --max-rotation RAD       rotation up to RAD radians (0.005)\n"
      "  --max-shift PX           translation up to PX pixels on each axis (10)\n"
      "  --max-z-offset N         focus offset up to N whole sections (3)\n"
      "  --max-high-order PX      each second-order term up to PX pixels at the half width\n"
      "                           of the field (0.5)\n"
      "  --channel C:KEY=V,...    channel C's model instead of a random one. Keys: mag,\n"
      "                           rot (radians), tx, ty (pixels), dz (sections), cx, cy\n"
      "                           (centre, pixels); with --model linear also magx, magy;\n"
      "                           with --high-order h0..h11 (elements 8 to 19). Keys not\n"
      "                           given take their identity value. May be repeated.\n"
      "\n"
      "Run:\n"
      "  --threads N              rendering threads (all cores)\n"
      "  --quiet                  print only failures\n"
      "  --help                   this text\n"
      "\n"
      "Density and brightness. Calibration takes as bright the pixels above the 99.5th\n"
      "percentile of a focus section, 0.5 %% of the field, keeps blobs of 16 to 299 of them,\n"
      "and looks for spot candidates 30 pixels or more inside the edges. With one spot per\n"
      "85 x 85 pixels each spot gets about 0.005 x 85 x 85 = 36 bright pixels, with room on\n"
      "both sides for the +-30 %% spread of brightness and the wider red spots. The grid is\n"
      "centred, so the outer spots sit about 42 pixels inside the edges, and neighbours lie\n"
      "far more than twice the 15-pixel capture range of the spot fit apart, so even a\n"
      "15-pixel misregistration pairs each spot with itself. Spots are bright (peak about\n"
      "1500 to 3600 photons on a background of 100) so that the threshold lies far above\n"
      "the noise and no noise pixel reaches it. Every quarter of the field holds spots, so\n"
      "each region of the 4 x 4 focus search sees the PSF sharpen and blur through focus;\n"
      "fields of 320 pixels or more keep that true.\n");
}

int parseInteger(const char* text, const char* option) {
  const double v = cli::parseNumber(kProgram, text, option);
  if (v != std::floor(v) || std::fabs(v) > 1e9) {
    cli::usageError(kProgram,
                    std::string("--") + option + ": '" + text + "' is not a whole number");
  }
  return static_cast<int>(v);
}

std::vector<double> parseList(const char* text, const char* option) {
  std::vector<double> values;
  std::string s(text);
  size_t start = 0;
  while (start <= s.size()) {
    size_t comma = s.find(',', start);
    if (comma == std::string::npos) comma = s.size();
    values.push_back(cli::parseNumber(kProgram, s.substr(start, comma - start).c_str(), option));
    start = comma + 1;
  }
  return values;
}

struct Run {
  synth::Config config;
  std::string outputDir;
  bool writeTarget = true;
  bool writeSpecimen = true;
  int threads = 0;
  bool quiet = false;
};

// Default wavelengths for more channels than the standard four.
std::vector<float> defaultWavelengths(int count) {
  std::vector<float> w = {435.0f, 528.0f, 608.0f, 683.0f};
  while (static_cast<int>(w.size()) < count) w.push_back(w.back() + 75.0f);
  w.resize(static_cast<size_t>(count));
  return w;
}

enum OptionId {
  kSize = 1000,
  kSections,
  kTimes,
  kChannels,
  kWavelengths,
  kSpacing,
  kFloat,
  kWhat,
  kLayout,
  kPitch,
  kSpots,
  kMinSpacing,
  kPsfSigma,
  kFocusDepth,
  kPhotons,
  kBackground,
  kReadNoise,
  kOffset,
  kFocusSection,
  kSeed,
  kModel,
  kHighOrder,
  kReference,
  kMaxMag,
  kMaxRot,
  kMaxShift,
  kMaxZ,
  kMaxHigh,
  kChannel,
  kThreads,
  kQuiet,
  kHelp
};

const option kOptions[] = {{"size", required_argument, nullptr, kSize},
                           {"sections", required_argument, nullptr, kSections},
                           {"times", required_argument, nullptr, kTimes},
                           {"channels", required_argument, nullptr, kChannels},
                           {"wavelengths", required_argument, nullptr, kWavelengths},
                           {"spacing", required_argument, nullptr, kSpacing},
                           {"float", no_argument, nullptr, kFloat},
                           {"what", required_argument, nullptr, kWhat},
                           {"layout", required_argument, nullptr, kLayout},
                           {"pitch", required_argument, nullptr, kPitch},
                           {"spots", required_argument, nullptr, kSpots},
                           {"min-spacing", required_argument, nullptr, kMinSpacing},
                           {"psf-sigma", required_argument, nullptr, kPsfSigma},
                           {"focus-depth", required_argument, nullptr, kFocusDepth},
                           {"photons", required_argument, nullptr, kPhotons},
                           {"background", required_argument, nullptr, kBackground},
                           {"read-noise", required_argument, nullptr, kReadNoise},
                           {"offset", required_argument, nullptr, kOffset},
                           {"focus-section", required_argument, nullptr, kFocusSection},
                           {"seed", required_argument, nullptr, kSeed},
                           {"model", required_argument, nullptr, kModel},
                           {"high-order", no_argument, nullptr, kHighOrder},
                           {"reference", required_argument, nullptr, kReference},
                           {"max-magnification", required_argument, nullptr, kMaxMag},
                           {"max-rotation", required_argument, nullptr, kMaxRot},
                           {"max-shift", required_argument, nullptr, kMaxShift},
                           {"max-z-offset", required_argument, nullptr, kMaxZ},
                           {"max-high-order", required_argument, nullptr, kMaxHigh},
                           {"channel", required_argument, nullptr, kChannel},
                           {"threads", required_argument, nullptr, kThreads},
                           {"quiet", no_argument, nullptr, kQuiet},
                           {"help", no_argument, nullptr, kHelp},
                           {nullptr, 0, nullptr, 0}};

void parseSize(const char* text, synth::Geometry& g) {
  const std::string s(text);
  const size_t x = s.find('x');
  g.numCols = parseInteger(s.substr(0, x).c_str(), "size");
  g.numRows = x == std::string::npos ? g.numCols : parseInteger(s.substr(x + 1).c_str(), "size");
}

// Applies one option; the ones that need no value are flags.
void applyOption(int id, const char* arg, Run& run, int& channels, bool& wavelengthsGiven) {
  synth::Config& c = run.config;
  synth::Geometry& g = c.geometry;
  switch (id) {
    case kSize:
      parseSize(arg, g);
      break;
    case kSections:
      g.numZ = parseInteger(arg, "sections");
      break;
    case kTimes:
      g.numTimes = parseInteger(arg, "times");
      break;
    case kChannels:
      channels = parseInteger(arg, "channels");
      break;
    case kWavelengths: {
      g.wavelengths.clear();
      for (double w : parseList(arg, "wavelengths")) g.wavelengths.push_back(static_cast<float>(w));
      wavelengthsGiven = true;
      break;
    }
    case kSpacing: {
      const std::vector<double> s = parseList(arg, "spacing");
      if (s.size() != 3) cli::usageError(kProgram, "--spacing takes X,Y,Z");
      g.spacingX = static_cast<float>(s[0]);
      g.spacingY = static_cast<float>(s[1]);
      g.spacingZ = static_cast<float>(s[2]);
      break;
    }
    case kFloat:
      g.pixels = synth::PixelKind::kFloat;
      break;
    case kWhat: {
      const std::string w(arg);
      if (w != "target" && w != "specimen" && w != "both")
        cli::usageError(kProgram, "--what: target, specimen or both");
      run.writeTarget = w != "specimen";
      run.writeSpecimen = w != "target";
      break;
    }
    case kLayout: {
      const std::string l(arg);
      if (l != "grid" && l != "random") cli::usageError(kProgram, "--layout: grid or random");
      c.layout.layout = l == "grid" ? synth::Layout::kGrid : synth::Layout::kRandom;
      break;
    }
    case kPitch:
      c.layout.pitch = cli::parseNumber(kProgram, arg, "pitch");
      break;
    case kSpots:
      c.layout.count = parseInteger(arg, "spots");
      break;
    case kMinSpacing:
      c.layout.minSpacing = cli::parseNumber(kProgram, arg, "min-spacing");
      break;
    case kPsfSigma:
      c.optics.psfSigma = cli::parseNumber(kProgram, arg, "psf-sigma");
      break;
    case kFocusDepth:
      c.optics.focusDepth = cli::parseNumber(kProgram, arg, "focus-depth");
      break;
    case kPhotons:
      c.optics.spotPhotons = cli::parseNumber(kProgram, arg, "photons");
      break;
    case kBackground:
      c.optics.background = cli::parseNumber(kProgram, arg, "background");
      break;
    case kReadNoise:
      c.optics.readNoise = cli::parseNumber(kProgram, arg, "read-noise");
      break;
    case kOffset:
      c.optics.cameraOffset = cli::parseNumber(kProgram, arg, "offset");
      break;
    case kFocusSection:
      c.focusSection = parseInteger(arg, "focus-section");
      break;
    case kSeed: {
      char* end = nullptr;
      c.seed = std::strtoull(arg, &end, 10);
      if (end == arg || *end != '\0') cli::usageError(kProgram, "--seed takes a whole number");
      break;
    }
    case kModel: {
      const std::string m(arg);
      if (m != "radial" && m != "linear") cli::usageError(kProgram, "--model: radial or linear");
      c.linearFlag = m == "linear" ? 1 : 0;
      break;
    }
    case kHighOrder:
      c.highOrder = true;
      break;
    case kReference:
      c.reference = parseInteger(arg, "reference");
      break;
    case kMaxMag:
      c.bounds.magnification = cli::parseNumber(kProgram, arg, "max-magnification");
      break;
    case kMaxRot:
      c.bounds.rotation = cli::parseNumber(kProgram, arg, "max-rotation");
      break;
    case kMaxShift:
      c.bounds.shift = cli::parseNumber(kProgram, arg, "max-shift");
      break;
    case kMaxZ:
      c.bounds.zOffset = parseInteger(arg, "max-z-offset");
      break;
    case kMaxHigh:
      c.bounds.highOrder = cli::parseNumber(kProgram, arg, "max-high-order");
      break;
    case kChannel: {
      int index;
      synth::ChannelOverride values;
      std::string error;
      if (!synth::parseChannelOverride(arg, &index, &values, &error))
        cli::usageError(kProgram, "--channel: " + error);
      c.overrides[index] = values;
      break;
    }
    case kThreads:
      run.threads = parseInteger(arg, "threads");
      break;
    case kQuiet:
      run.quiet = true;
      break;
    default:
      cli::usageError(kProgram, "unknown option");
  }
}

Run parseCommandLine(int argc, char** argv) {
  Run run;
  int channels = -1;
  bool wavelengthsGiven = false;
  int id;
  while ((id = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    if (id == kHelp) {
      printHelp();
      std::exit(0);
    }
    if (id == '?') cli::usageError(kProgram, "bad option");
    applyOption(id, optarg, run, channels, wavelengthsGiven);
  }
  if (optind != argc - 1) cli::usageError(kProgram, "give exactly one OUTPUT_DIR");
  run.outputDir = argv[optind];
  if (channels >= 0) {
    if (wavelengthsGiven && channels != static_cast<int>(run.config.geometry.wavelengths.size())) {
      cli::usageError(kProgram, "--channels and --wavelengths disagree");
    }
    if (channels < 1) cli::usageError(kProgram, "--channels must be at least 1");
    if (!wavelengthsGiven) run.config.geometry.wavelengths = defaultWavelengths(channels);
  }
  if (run.threads < 0) cli::usageError(kProgram, "--threads must be 0 or more");
  const std::string error = synth::validateConfig(run.config);
  if (!error.empty()) cli::usageError(kProgram, error);
  return run;
}

// The largest displacement of channel c over the field, from the corners
// and edge midpoints (the models are smooth, so these bound it closely).
double largestDisplacement(const synth::Config& config, const synth::Truth& truth, int c) {
  const double w = config.geometry.numCols - 1.0, h = config.geometry.numRows - 1.0;
  double largest = 0.0;
  for (double fy : {0.0, 0.5, 1.0}) {
    for (double fx : {0.0, 0.5, 1.0}) {
      const CorvanePoint2D q = synth::mapToChannel(truth, c, fx * w, fy * h);
      largest = std::max(largest, std::hypot(q.x - fx * w, q.y - fy * h));
    }
  }
  return largest;
}

void describeTruth(const synth::Config& config, const synth::Truth& truth) {
  std::printf("Misregistration (%s model), reference channel %d, focus section %d:\n",
              truth.linearFlag != 0 ? "linear" : "radial", truth.reference, truth.focusSection);
  for (int c = 0; c < static_cast<int>(truth.channels.size()); ++c) {
    if (c == truth.reference) continue;
    const synth::ChannelTruth& ct = truth.channels[c];
    const double* p = ct.parameters;
    const CorvanePoint2D middle = synth::mapToChannel(truth, c, p[0], p[1]);
    std::printf(
        "  channel %d (%d nm): shift at the centre (%+.3f, %+.3f) px, up to %.2f px over "
        "the field, Z offset %+d sections\n",
        c, static_cast<int>(config.geometry.wavelengths[c]), middle.x - p[0], middle.y - p[1],
        largestDisplacement(config, truth, c), ct.zOffset);
    if (ct.appliedShift != ct.zOffset) {
      std::printf("  warning: the parameter file's Z offset reads back as %+d sections\n",
                  ct.appliedShift);
    }
  }
}

// Writes the truth through the project's own writer, whose progress lines
// belong to calibration runs and are kept off this tool's output.
bool writeTruthFile(const std::string& path, const synth::Truth& truth) {
  FILE* probe = std::fopen(path.c_str(), "w");
  if (probe == nullptr) return false;
  std::fclose(probe);
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  const int devNull = open("/dev/null", O_WRONLY);
  if (saved >= 0 && devNull >= 0) dup2(devNull, STDOUT_FILENO);
  if (devNull >= 0) close(devNull);
  writeAlignmentParameter(path.c_str(), truth.rows);
  std::fflush(stdout);
  if (saved >= 0) {
    dup2(saved, STDOUT_FILENO);
    close(saved);
  }
  return true;
}

bool writeJson(const std::string& path, const nlohmann::json& j) {
  std::ofstream out(path);
  out << j.dump(1) << '\n';
  return static_cast<bool>(out);
}

std::string describeShape(const synth::Geometry& g) {
  char text[200];
  std::snprintf(text, sizeof text,
                "%zu channels x %d sections x %d time point%s of %d x %d %s pixels",
                g.wavelengths.size(), g.numZ, g.numTimes, g.numTimes == 1 ? "" : "s", g.numCols,
                g.numRows, g.pixels == synth::PixelKind::kFloat ? "float" : "16-bit");
  return text;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const Run run = parseCommandLine(argc, argv);
  const synth::Config& config = run.config;
  const synth::Geometry& g = config.geometry;
  mkdir(run.outputDir.c_str(), 0777);  // an existing directory is fine

  const synth::Truth truth = synth::makeTruth(config);
  const std::vector<synth::Spot> spots = synth::makeSpots(config);
  if (!run.quiet) describeTruth(config, truth);

  const std::string dir = run.outputDir + "/";
  if (!writeTruthFile(dir + "truth.txt", truth)) {
    std::fprintf(stderr, "corvane-synth: cannot write %struth.txt\n", dir.c_str());
    return 1;
  }
  if (!writeJson(dir + "truth.json", synth::truthJson(config, truth, spots))) {
    std::fprintf(stderr, "corvane-synth: cannot write %struth.json\n", dir.c_str());
    return 1;
  }

  const std::string shape = describeShape(g);
  if (run.writeTarget) {
    const auto start = std::chrono::steady_clock::now();
    const std::string error =
        synth::writeTarget(dir + "target.qf", config, truth, spots, run.threads);
    if (!error.empty()) {
      std::fprintf(stderr, "corvane-synth: target: %s\n", error.c_str());
      return 1;
    }
    if (!run.quiet) {
      std::printf("target.qf: %s, %zu spots, in %.2f s\n", shape.c_str(), spots.size(),
                  secondsSince(start));
    }
  }
  if (run.writeSpecimen) {
    const auto start = std::chrono::steady_clock::now();
    const synth::Specimen specimen = synth::makeSpecimen(config);
    const std::string error =
        synth::writeSpecimen(dir + "specimen.qf", config, truth, specimen, run.threads);
    if (!error.empty()) {
      std::fprintf(stderr, "corvane-synth: specimen: %s\n", error.c_str());
      return 1;
    }
    if (!run.quiet) {
      std::printf("specimen.qf: %s, %zu structures, in %.2f s\n", shape.c_str(),
                  specimen.weights.size(), secondsSince(start));
    }
  }
  if (!run.quiet) std::printf("truth: %struth.txt, %struth.json\n", dir.c_str(), dir.c_str());
  return 0;
}
