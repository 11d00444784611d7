// The ground-truth misregistration of the synthetic stacks: random or given
// models per channel, their trip through the parameter file's text, the
// mapping they define, and the JSON record of all of it.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "tools/common/random.h"
#include "tools/common/synth.h"

namespace synth {

namespace {

// Stream names of the random generators, so that each piece draws alone.
constexpr uint64_t kModelStream = 1;

// The parameter file prints every value with this conversion and reads it
// back in single precision.
constexpr const char* kFileFormat = "%14.8f";

const std::set<std::string>& knownKeys() {
  static const std::set<std::string> keys = {"cx", "cy", "mag", "magx", "magy", "rot", "tx",
                                             "ty", "dz", "h0",  "h1",   "h2",   "h3",  "h4",
                                             "h5", "h6", "h7",  "h8",   "h9",   "h10", "h11"};
  return keys;
}

double valueOr(const ChannelOverride& values, const char* key, double fallback) {
  auto it = values.find(key);
  return it == values.end() ? fallback : it->second;
}

// Identity of the model family, about the middle of the section.
ChannelTruth identity(const Config& config) {
  ChannelTruth truth{};
  truth.parameters[0] = std::floor(config.geometry.numCols * 0.5);
  truth.parameters[1] = std::floor(config.geometry.numRows * 0.5);
  truth.parameters[2] = 1.0;
  truth.parameters[3] = config.linearFlag != 0 ? 1.0 : 0.0;
  return truth;
}

// Scale, rotation and translation in the slots of the model family. The
// linear model takes a rotated anisotropic scale: x' = R(rot) diag(mx, my) x.
void setSimilarity(const Config& config, ChannelTruth& truth, double mx, double my, double rot,
                   double tx, double ty) {
  double* p = truth.parameters;
  if (config.linearFlag == 0) {
    p[2] = mx;
    p[3] = rot;
    p[4] = tx;
    p[5] = ty;
    return;
  }
  p[2] = std::cos(rot) * mx;
  p[4] = -std::sin(rot) * my;
  p[5] = std::sin(rot) * mx;
  p[3] = std::cos(rot) * my;
  p[6] = tx;
  p[7] = ty;
}

// The six second-order terms (v^2, u v, u^2 for x and for y) in the slots of
// the polynomial; the constant and first-order terms would repeat the base
// model and stay 0.
constexpr int kQuadraticSlots[] = {10, 12, 13, 16, 18, 19};

ChannelTruth randomChannel(const Config& config, int channel) {
  Random rng(mixKey(config.seed, kModelStream, static_cast<uint64_t>(channel)));
  const Bounds& b = config.bounds;
  ChannelTruth truth = identity(config);
  const double mx = 1.0 + rng.symmetric(b.magnification);
  const double my = config.linearFlag != 0 ? 1.0 + rng.symmetric(b.magnification) : mx;
  const double rot = rng.symmetric(b.rotation);
  const double tx = rng.symmetric(b.shift);
  const double ty = rng.symmetric(b.shift);
  setSimilarity(config, truth, mx, my, rot, tx, ty);
  truth.zOffset = static_cast<int>(std::floor(rng.uniform() * (2 * b.zOffset + 1))) - b.zOffset;
  if (config.highOrder) {
    // A term of size `highOrder` pixels at the half-width of the field.
    const double half = 0.5 * std::max(config.geometry.numCols, config.geometry.numRows);
    for (int slot : kQuadraticSlots) {
      truth.parameters[slot] = rng.symmetric(b.highOrder / (half * half));
    }
  }
  return truth;
}

ChannelTruth givenChannel(const Config& config, const ChannelOverride& values) {
  ChannelTruth truth = identity(config);
  const double mag = valueOr(values, "mag", 1.0);
  setSimilarity(config, truth, valueOr(values, "magx", mag), valueOr(values, "magy", mag),
                valueOr(values, "rot", 0.0), valueOr(values, "tx", 0.0),
                valueOr(values, "ty", 0.0));
  truth.parameters[0] = valueOr(values, "cx", truth.parameters[0]);
  truth.parameters[1] = valueOr(values, "cy", truth.parameters[1]);
  truth.zOffset = static_cast<int>(std::lround(valueOr(values, "dz", 0.0)));
  for (int k = 0; k < 12; ++k) {
    const std::string key = "h" + std::to_string(k);
    truth.parameters[8 + k] = valueOr(values, key.c_str(), 0.0);
  }
  return truth;
}

// Channel rows in the file's physical units, then the final row.
std::vector<std::vector<double>> physicalRows(const Config& config, const Truth& truth) {
  const Geometry& g = config.geometry;
  const double dx = g.spacingX, dy = g.spacingY, dz = g.spacingZ;
  std::vector<std::vector<double>> rows;
  for (int c = 0; c < static_cast<int>(truth.channels.size()); ++c) {
    if (c == truth.reference) continue;
    const ChannelTruth& ct = truth.channels[c];
    std::vector<double> row(kNumRowSlots, 0.0);
    row[kSlotWavelength] = g.wavelengths[c];
    row[kSlotLinearFlag] = truth.linearFlag;
    row[kSlotZOffset] = ct.zOffset * dz;
    for (int k = 0; k < kNumModelParameters; ++k) row[kSlotFirstParameter + k] = ct.parameters[k];
    row[kSlotCentreX] *= dx;
    row[kSlotCentreY] *= dy;
    if (truth.linearFlag != 0) {
      row[kSlotLinearTranslationX] *= dx;
      row[kSlotLinearTranslationY] *= dy;
    } else {
      row[kSlotRadialTranslationX] *= dx;
      row[kSlotRadialTranslationY] *= dy;
    }
    rows.push_back(row);
  }
  std::vector<double> last(kNumRowSlots, 0.0);
  last[kSlotWavelength] = g.wavelengths[truth.reference];
  last[kSlotLinearFlag] = truth.linearFlag;
  last[kSlotStackColumns] = g.numCols;
  last[kSlotStackRows] = g.numRows;
  last[kSlotStackSpacingX] = g.spacingX;
  last[kSlotStackSpacingY] = g.spacingY;
  last[kSlotStackSpacingZ] = g.spacingZ;
  rows.push_back(last);
  return rows;
}

// What a value becomes after printing into the file and scanning it back.
double throughFileText(double value) {
  char text[64];
  std::snprintf(text, sizeof text, kFileFormat, value);
  return static_cast<double>(std::strtof(text, nullptr));
}

}  // namespace

std::string validateConfig(const Config& config) {
  const Geometry& g = config.geometry;
  const int numW = static_cast<int>(g.wavelengths.size());
  if (g.numCols < 64 || g.numRows < 64) return "the image must be at least 64 x 64 pixels";
  if (g.numZ < 1 || g.numTimes < 1) return "sections and time points must be at least 1";
  if (numW < 1) return "at least one channel is needed";
  std::set<int> keys;
  for (float w : g.wavelengths) {
    if (!(w >= 1.0f)) return "wavelengths must be at least 1 nm";
    if (!keys.insert(static_cast<int>(w)).second) {
      return "wavelengths must differ in their whole nanometres: a correction finds rows by them";
    }
  }
  if (!(g.spacingX > 0.0f && g.spacingY > 0.0f && g.spacingZ > 0.0f)) {
    return "spacings must be positive";
  }
  if (config.reference < 0 || config.reference >= numW) return "reference channel out of range";
  const Optics& o = config.optics;
  if (!(o.psfSigma > 0.0 && o.focusDepth > 0.0 && o.spotPhotons >= 0.0 && o.background >= 0.0 &&
        o.readNoise >= 0.0)) {
    return "optics values must be positive (background, noise and photons may be 0)";
  }
  if (config.highOrder && config.linearFlag == 0) {
    return "second-order terms need the linear model: a correction applies them on top of the "
           "linear model only";
  }
  const int focus = config.focusSection >= 0 ? config.focusSection : g.numZ / 2;
  if (focus >= g.numZ) return "focus section out of range";
  int reach = config.bounds.zOffset;
  for (const auto& [channel, values] : config.overrides) {
    if (channel < 0 || channel >= numW) return "--channel names a channel that does not exist";
    if (channel == config.reference) return "the reference channel has no model of its own";
    for (const auto& [key, value] : values) {
      if (!knownKeys().count(key)) return "unknown model key '" + key + "'";
      if (config.linearFlag == 0 && (key == "magx" || key == "magy")) {
        return "magx and magy need the linear model";
      }
      if (key[0] == 'h' && !config.highOrder) return "h0 to h11 need --high-order";
      if (key == "dz" && value != std::floor(value)) return "dz is a whole number of sections";
    }
    reach = std::max(reach, std::abs(static_cast<int>(std::lround(valueOr(values, "dz", 0.0)))));
  }
  if (numW > 1 && (focus - reach < 0 || focus + reach >= g.numZ)) {
    return "Z offsets of up to " + std::to_string(reach) +
           " sections do not fit around focus section " + std::to_string(focus) + " of " +
           std::to_string(g.numZ) + ": use more sections or a smaller --max-z-offset";
  }
  return "";
}

Truth makeTruth(const Config& config) {
  const int numW = static_cast<int>(config.geometry.wavelengths.size());
  Truth truth;
  truth.linearFlag = config.linearFlag;
  truth.reference = config.reference;
  truth.focusSection = config.focusSection >= 0 ? config.focusSection : config.geometry.numZ / 2;
  for (int c = 0; c < numW; ++c) {
    auto given = config.overrides.find(c);
    if (c == config.reference) {
      truth.channels.push_back(identity(config));
    } else if (given != config.overrides.end()) {
      truth.channels.push_back(givenChannel(config, given->second));
    } else {
      truth.channels.push_back(randomChannel(config, c));
    }
  }

  // Send the models through the file's text and its conversion into pixels,
  // and keep what comes out: that is what a correction run will apply.
  truth.rows = physicalRows(config, truth);
  std::vector<std::vector<double>> applied = truth.rows;
  for (auto& row : applied) {
    for (double& value : row) value = throughFileText(value);
  }
  const Geometry& g = config.geometry;
  convertAlignmentParameterToPixels(applied, g.numRows, g.numCols, g.spacingX, g.spacingY,
                                    g.spacingZ);
  size_t next = 0;
  for (int c = 0; c < numW; ++c) {
    ChannelTruth& ct = truth.channels[c];
    if (c == config.reference) {
      ct.appliedShift = 0;
      continue;
    }
    const std::vector<double>& row = applied[next++];
    for (int k = 0; k < kNumModelParameters; ++k) ct.parameters[k] = row[kSlotFirstParameter + k];
    ct.appliedShift = static_cast<int>(row[kSlotZOffset]);  // truncated, as a correction does
  }
  return truth;
}

CorvanePoint2D mapWithParameters(const double* parameters, int linearFlag, double x, double y) {
  if (linearFlag == 0) return radialPoint(parameters, x, y);
  return highOrderPoint(parameters, linearPoint(parameters, x, y));
}

CorvanePoint2D mapToChannel(const Truth& truth, int channel, double x, double y) {
  return mapWithParameters(truth.channels[channel].parameters, truth.linearFlag, x, y);
}

bool parseChannelOverride(const std::string& text, int* channel, ChannelOverride* values,
                          std::string* error) {
  const size_t colon = text.find(':');
  char* end = nullptr;
  const long index = std::strtol(text.c_str(), &end, 10);
  if (colon == std::string::npos || end != text.c_str() + colon || colon == 0) {
    *error = "expected C:key=value,... in '" + text + "'";
    return false;
  }
  *channel = static_cast<int>(index);
  size_t start = colon + 1;
  while (start < text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    const std::string item = text.substr(start, comma - start);
    const size_t eq = item.find('=');
    if (eq == std::string::npos || eq == 0) {
      *error = "expected key=value, got '" + item + "'";
      return false;
    }
    const std::string key = item.substr(0, eq);
    const std::string number = item.substr(eq + 1);
    const double value = std::strtod(number.c_str(), &end);
    if (number.empty() || *end != '\0' || !std::isfinite(value)) {
      *error = "bad number in '" + item + "'";
      return false;
    }
    if (!knownKeys().count(key)) {
      *error = "unknown model key '" + key + "'";
      return false;
    }
    (*values)[key] = value;
    start = comma + 1;
  }
  return true;
}

nlohmann::json truthJson(const Config& config, const Truth& truth, const std::vector<Spot>& spots) {
  const Geometry& g = config.geometry;
  nlohmann::json j;
  j["generator"] = "corvane-synth";
  j["seed"] = config.seed;
  j["stack"] = {{"columns", g.numCols},
                {"rows", g.numRows},
                {"sections", g.numZ},
                {"times", g.numTimes},
                {"channels", g.wavelengths.size()},
                {"wavelengths", g.wavelengths},
                {"spacing", {g.spacingX, g.spacingY, g.spacingZ}},
                {"pixelType", g.pixels == PixelKind::kFloat ? "float" : "uint16"}};
  j["model"] = truth.linearFlag != 0 ? "linear" : "radial";
  j["linearFlag"] = truth.linearFlag;
  j["highOrder"] = config.highOrder;
  j["reference"] = truth.reference;
  j["referenceFocusSection"] = truth.focusSection;
  j["optics"] = {{"psfSigmaAt528nm", config.optics.psfSigma},
                 {"focusDepthMicrometres", config.optics.focusDepth},
                 {"spotPhotons", config.optics.spotPhotons},
                 {"backgroundPhotons", config.optics.background},
                 {"readNoise", config.optics.readNoise},
                 {"cameraOffset", config.optics.cameraOffset}};
  nlohmann::json reference = nlohmann::json::array();
  for (const Spot& s : spots) reference.push_back({{"x", s.x}, {"y", s.y}, {"photons", s.photons}});
  j["spots"] = reference;
  nlohmann::json channels = nlohmann::json::array();
  for (int c = 0; c < static_cast<int>(truth.channels.size()); ++c) {
    const ChannelTruth& ct = truth.channels[c];
    nlohmann::json positions = nlohmann::json::array();
    for (const Spot& s : spots) {
      const CorvanePoint2D q = mapToChannel(truth, c, s.x, s.y);
      positions.push_back({q.x, q.y});
    }
    channels.push_back(
        {{"index", c},
         {"wavelength", g.wavelengths[c]},
         {"parameters", std::vector<double>(ct.parameters, ct.parameters + kNumModelParameters)},
         {"zOffset", ct.zOffset},
         {"appliedSectionShift", ct.appliedShift},
         {"focusSection", truth.focusSection + ct.zOffset},
         {"psfSigma", psfSigma(config, c)},
         {"spots", positions}});
  }
  j["channels"] = channels;
  return j;
}

}  // namespace synth
