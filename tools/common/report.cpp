// Presentation of the assessment: aligned text tables for people, JSON for
// programs.
#include <cstdarg>
#include <cstdio>

#include "tools/common/assess.h"

namespace assess {

namespace {

nlohmann::json statsJson(const ErrorStats& s) {
  return {{"count", s.count}, {"rmsPx", s.rmsPx},     {"p95Px", s.p95Px},    {"rmsNm", s.rmsNm},
          {"p95Nm", s.p95Nm}, {"meanDxPx", s.meanDx}, {"meanDyPx", s.meanDy}};
}

}  // namespace

std::string format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, fmt, measure);
  va_end(measure);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, fmt, args);
  va_end(args);
  return text;
}

std::string formatReports(const std::string& path, const StackInfo& info, const Options& options,
                          const std::vector<ChannelReport>& reports) {
  const double nm = 1000.0;
  std::string out = format(
      "Stack %s: %d x %d pixels, %d sections, %d channels, %d time point%s; spacing %.1f x %.1f "
      "x %.1f nm\n",
      path.c_str(), info.numCols, info.numRows, info.numZ, info.numW, info.numT,
      info.numT == 1 ? "" : "s", info.spacing[0] * nm, info.spacing[1] * nm, info.spacing[2] * nm);
  const ChannelReport& ref = reports[options.reference];
  out += format("Reference channel %d (%d nm): best focus section %d (%.2f), %d spots, time %d\n\n",
                ref.index, static_cast<int>(ref.wavelength), ref.focus.section, ref.focus.position,
                ref.spots, options.time);
  out +=
      "channel  wave  focus     dz  spots  pairs   rms px   p95 px   rms nm   p95 nm  mean dx  "
      "mean dy\n";
  for (const ChannelReport& r : reports) {
    if (r.index == options.reference) continue;
    out += format("%7d  %4d  %5d  %+5.2f  %5d  %5d  %7.3f  %7.3f  %7.1f  %7.1f  %+7.3f  %+7.3f\n",
                  r.index, static_cast<int>(r.wavelength), r.focus.section, r.zOffset, r.spots,
                  r.pairs, r.error.rmsPx, r.error.p95Px, r.error.rmsNm, r.error.p95Nm,
                  r.error.meanDx, r.error.meanDy);
  }
  const ErrorStats all =
      pooled(reports, options.reference, false, info.spacing[0], info.spacing[1]);
  out += format("    all                       %5d  %7.3f  %7.3f  %7.1f  %7.1f\n", all.count,
                all.rmsPx, all.p95Px, all.rmsNm, all.p95Nm);
  if (reports.empty() || !reports.front().haveTruth) return out;

  out +=
      "\nAgainst the ground truth (true misregistration at the paired spots; localisation of\n"
      "each channel's spots against their true positions):\n";
  out += "channel  true dz  true rms px  true p95 px  found/true  loc rms px  loc p95 px\n";
  for (const ChannelReport& r : reports) {
    out += format("%7d  %+7d  %11.3f  %11.3f  %4d/%-5d  %10.4f  %10.4f\n", r.index, r.trueZOffset,
                  r.truthError.rmsPx, r.truthError.p95Px, r.localisation.count, r.trueSpots,
                  r.localisation.rmsPx, r.localisation.p95Px);
  }
  const ErrorStats trueAll =
      pooled(reports, options.reference, true, info.spacing[0], info.spacing[1]);
  out += format("    all           %11.3f  %11.3f\n", trueAll.rmsPx, trueAll.p95Px);
  return out;
}

std::string formatMappings(const std::vector<MappingReport>& reports) {
  std::string out = "Recovered mapping against the true one, over the whole field:\n";
  out += "channel  wave   rms px   max px   rms nm  true dz  recovered dz\n";
  for (const MappingReport& r : reports) {
    if (!r.found) {
      out +=
          format("%7d  %4d  no row for this wavelength\n", r.index, static_cast<int>(r.wavelength));
      continue;
    }
    out += format("%7d  %4d  %7.4f  %7.4f  %7.2f  %+7d  %+12d\n", r.index,
                  static_cast<int>(r.wavelength), r.rmsPx, r.maxPx, r.rmsNm, r.trueShift,
                  r.recoveredShift);
  }
  return out;
}

nlohmann::json reportsJson(const std::string& path, const StackInfo& info, const Options& options,
                           const std::vector<ChannelReport>& reports) {
  nlohmann::json j;
  j["stack"] = {{"path", path},
                {"columns", info.numCols},
                {"rows", info.numRows},
                {"sections", info.numZ},
                {"channels", info.numW},
                {"times", info.numT},
                {"spacing", {info.spacing[0], info.spacing[1], info.spacing[2]}}};
  j["reference"] = options.reference;
  j["time"] = options.time;
  nlohmann::json channels = nlohmann::json::array();
  for (const ChannelReport& r : reports) {
    nlohmann::json c = {{"index", r.index},
                        {"wavelength", r.wavelength},
                        {"focusSection", r.focus.section},
                        {"focusPosition", r.focus.position},
                        {"zOffset", r.zOffset},
                        {"spots", r.spots},
                        {"pairs", r.pairs},
                        {"error", statsJson(r.error)}};
    if (r.haveTruth) {
      c["truth"] = {{"zOffset", r.trueZOffset},
                    {"error", statsJson(r.truthError)},
                    {"trueSpots", r.trueSpots},
                    {"localisation", statsJson(r.localisation)}};
    }
    channels.push_back(c);
  }
  j["channels"] = channels;
  j["all"] = statsJson(pooled(reports, options.reference, false, info.spacing[0], info.spacing[1]));
  if (!reports.empty() && reports.front().haveTruth) {
    j["allTruth"] =
        statsJson(pooled(reports, options.reference, true, info.spacing[0], info.spacing[1]));
  }
  return j;
}

nlohmann::json mappingsJson(const std::vector<MappingReport>& reports) {
  nlohmann::json a = nlohmann::json::array();
  for (const MappingReport& r : reports) {
    a.push_back({{"index", r.index},
                 {"wavelength", r.wavelength},
                 {"found", r.found},
                 {"rmsPx", r.rmsPx},
                 {"maxPx", r.maxPx},
                 {"rmsNm", r.rmsNm},
                 {"trueZOffset", r.trueShift},
                 {"recoveredZOffset", r.recoveredShift}});
  }
  return a;
}

}  // namespace assess
