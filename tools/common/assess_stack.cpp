// Assessment of a whole stack: read the header, find each channel's best
// focus section, locate its spots, pair them with the reference channel's,
// and, given the ground truth, compare with the true misregistration.
#include <cmath>

#include "imsubs/imsubs.h"
#include "tools/common/assess.h"
#include "tools/common/synth.h"

namespace assess {

namespace {

constexpr int kStream = 12;

std::string failure(const char* call, int code) {
  return std::string(call) + " failed: " + IMRtErrText(static_cast<unsigned>(code));
}

// Header of the stack open on kStream.
std::string readOpenInfo(StackInfo* info) {
  int code, sequence;
  if ((code = IMRtXY(kStream, &info->numCols, &info->numRows)) != 0) return failure("IMRtXY", code);
  if ((code = IMRtZWT(kStream, &info->numZ, &info->numW, &info->numT, &sequence)) != 0) {
    return failure("IMRtZWT", code);
  }
  if ((code = IMRtDel2(kStream, &info->spacing[0], &info->spacing[1], &info->spacing[2])) != 0) {
    return failure("IMRtDel2", code);
  }
  info->wavelengths.assign(static_cast<size_t>(info->numW), 0.0f);
  for (int w = 0; w < info->numW; ++w) {
    if ((code = IMRtWav2(kStream, w, &info->wavelengths[w])) != 0) return failure("IMRtWav2", code);
  }
  return "";
}

std::string openStack(const std::string& path, StackInfo* info) {
  const int code = IMOpen(kStream, path.c_str(), "ro");
  if (code != 0) return "cannot open " + path + ": " + IMRtErrText(static_cast<unsigned>(code));
  std::string error = readOpenInfo(info);
  if (!error.empty()) IMClose(kStream);
  return error;
}

std::string readOpenSection(const StackInfo& info, int z, int w, int t,
                            std::vector<float>* pixels) {
  pixels->resize(static_cast<size_t>(info.numCols) * info.numRows);
  int code;
  if ((code = IMPosnZWT(kStream, z, w, t)) != 0) return failure("IMPosnZWT", code);
  if ((code = IMRdSec(kStream, pixels->data())) != 0) return failure("IMRdSec", code);
  return "";
}

// Best focus and spots of channel w at time t.
std::string measureChannel(const StackInfo& info, int w, int t, Focus* focus,
                           std::vector<Spot>* spots) {
  std::vector<float> pixels;
  std::vector<double> scores;
  for (int z = 0; z < info.numZ; ++z) {
    std::string error = readOpenSection(info, z, w, t, &pixels);
    if (!error.empty()) return error;
    scores.push_back(focusScore(pixels.data(), pixels.size()));
  }
  *focus = bestFocus(scores);
  std::string error = readOpenSection(info, focus->section, w, t, &pixels);
  if (!error.empty()) return error;
  *spots = findSpots(pixels.data(), info.numCols, info.numRows);
  return "";
}

// The truth's view of channel c: the true displacement at the paired
// reference spots, and this channel's spots against their true positions.
void compareWithTruth(const nlohmann::json& truth, const StackInfo& info,
                      const std::vector<Spot>& reference, const std::vector<Spot>& spots,
                      const std::vector<std::pair<int, int>>& pairs, ChannelReport* report) {
  const nlohmann::json& channel = truth.at("channels").at(report->index);
  const std::vector<double> p = channel.at("parameters").get<std::vector<double>>();
  const int linearFlag = truth.at("linearFlag").get<int>();
  for (const auto& [a, b] : pairs) {
    const CorvanePoint2D q =
        synth::mapWithParameters(p.data(), linearFlag, reference[a].x, reference[a].y);
    report->trueDisplacements.push_back({q.x - reference[a].x, q.y - reference[a].y});
  }
  std::vector<CorvanePoint2D> misses;
  int inside = 0;
  std::vector<Spot> truePositions;
  for (const auto& xy : channel.at("spots")) {
    const double x = xy.at(0).get<double>(), y = xy.at(1).get<double>();
    if (x >= 0.0 && y >= 0.0 && x <= info.numCols - 1 && y <= info.numRows - 1) ++inside;
    truePositions.push_back({x, y, 0.0, 0.0});
  }
  for (const auto& [found, trueIndex] : pairSpots(spots, truePositions, kLocalisationMatch)) {
    misses.push_back(
        {spots[found].x - truePositions[trueIndex].x, spots[found].y - truePositions[trueIndex].y});
  }
  report->haveTruth = true;
  report->trueSpots = inside;
  report->trueZOffset = channel.at("zOffset").get<int>();
  report->truthError = errorStats(report->trueDisplacements, info.spacing[0], info.spacing[1]);
  report->localisation = errorStats(misses, info.spacing[0], info.spacing[1]);
}

bool truthFitsStack(const nlohmann::json& truth, const StackInfo& info) {
  const nlohmann::json& stack = truth.at("stack");
  return stack.at("columns").get<int>() == info.numCols &&
         stack.at("rows").get<int>() == info.numRows &&
         truth.at("channels").size() == static_cast<size_t>(info.numW);
}

}  // namespace

std::string readStackInfo(const std::string& path, StackInfo* info) {
  std::string error = openStack(path, info);
  if (error.empty()) IMClose(kStream);
  return error;
}

std::string readSection(const std::string& path, const StackInfo& info, int z, int w, int t,
                        std::vector<float>* pixels) {
  StackInfo opened;
  std::string error = openStack(path, &opened);
  if (!error.empty()) return error;
  error = readOpenSection(info, z, w, t, pixels);
  IMClose(kStream);
  return error;
}

std::string assessStack(const std::string& path, const Options& options,
                        const nlohmann::json* truth, StackInfo* info,
                        std::vector<ChannelReport>* reports) {
  std::string error = openStack(path, info);
  if (!error.empty()) return error;
  if (options.reference < 0 || options.reference >= info->numW) {
    IMClose(kStream);
    return "reference channel " + std::to_string(options.reference) + " is not in the stack";
  }
  if (options.time < 0 || options.time >= info->numT) {
    IMClose(kStream);
    return "time point " + std::to_string(options.time) + " is not in the stack";
  }
  std::vector<Focus> focus(static_cast<size_t>(info->numW));
  std::vector<std::vector<Spot>> spots(static_cast<size_t>(info->numW));
  for (int w = 0; w < info->numW && error.empty(); ++w) {
    error = measureChannel(*info, w, options.time, &focus[w], &spots[w]);
  }
  IMClose(kStream);
  if (!error.empty()) return error;
  if (truth != nullptr && !truthFitsStack(*truth, *info)) {
    return "the ground truth describes a stack of another size or channel count";
  }

  const std::vector<Spot>& reference = spots[options.reference];
  reports->clear();
  for (int w = 0; w < info->numW; ++w) {
    ChannelReport r;
    r.index = w;
    r.wavelength = info->wavelengths[w];
    r.focus = focus[w];
    r.zOffset = focus[w].position - focus[options.reference].position;
    r.spots = static_cast<int>(spots[w].size());
    const auto pairs = pairSpots(reference, spots[w], options.maxPairDistance);
    r.pairs = static_cast<int>(pairs.size());
    for (const auto& [a, b] : pairs) {
      r.positions.push_back({reference[a].x, reference[a].y});
      r.displacements.push_back({spots[w][b].x - reference[a].x, spots[w][b].y - reference[a].y});
    }
    r.error = errorStats(r.displacements, info->spacing[0], info->spacing[1]);
    if (truth != nullptr) compareWithTruth(*truth, *info, reference, spots[w], pairs, &r);
    reports->push_back(std::move(r));
  }
  return "";
}

ErrorStats pooled(const std::vector<ChannelReport>& reports, int reference, bool truth,
                  double spacingX, double spacingY) {
  std::vector<CorvanePoint2D> all;
  for (const ChannelReport& r : reports) {
    if (r.index == reference) continue;
    const auto& v = truth ? r.trueDisplacements : r.displacements;
    all.insert(all.end(), v.begin(), v.end());
  }
  return errorStats(all, spacingX, spacingY);
}

}  // namespace assess
