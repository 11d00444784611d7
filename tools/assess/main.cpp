// corvane-assess: measures how well the channels of a spot-target stack line
// up, and how far a recovered alignment parameter file is from the truth.
#include <getopt.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "tools/assess/advise.h"
#include "tools/common/assess.h"
#include "tools/common/cli.h"
#include "tools/common/html_report.h"

namespace {

constexpr char kProgram[] = "corvane-assess";

void printHelp() {
  std::printf(
      "Usage: corvane-assess [options] [STACK]\n"
      "\n"
      "Measures the registration of the channels of a stack of a spot target. In every\n"
      "channel it finds the section of best focus (highest image energy), the spots in it\n"
      "(local maxima 10 noise sigma above the background) and their centres (a least-squares\n"
      "fit of a symmetric Gaussian), pairs them with the reference channel's spots (mutual\n"
      "nearest neighbours) and reports per channel the distance between partners: RMS and\n"
      "95th percentile in pixels and nanometres, the mean shift, and the Z offset of best\n"
      "focus in sections. None of this uses the calibration's own spot code.\n"
      "\n"
      "Options:\n"
      "  --truth FILE        ground truth (truth.json of corvane-synth): adds the true\n"
      "                      misregistration at the paired spots and the localisation error\n"
      "                      of every channel's spots against their true positions (for the\n"
      "                      stack the truth describes, not a corrected one)\n"
      "  --params FILE       recovered alignment parameter file: its model in physical units\n"
      "                      (magnification, rotation, shift in nm, Z offset); with --truth\n"
      "                      also the true model, the RMS and largest difference between its\n"
      "                      mapping and the true one over the whole field, and both Z\n"
      "                      offsets. With --truth, STACK is optional\n"
      "  --before STACK      the stack before correction, STACK being the corrected one: both\n"
      "                      are measured, this one first, and --truth describes this one\n"
      "  --html FILE         also write a self-contained HTML report: per channel the\n"
      "                      displacement of every paired spot over the field (before and\n"
      "                      after correction with --before), magnified as each figure says,\n"
      "                      a histogram of their lengths, the tables above and the model\n"
      "  --reference C       reference channel (the truth's, else 0)\n"
      "  --time T            time point to measure (0)\n"
      "  --max-distance PX   largest distance of a pair (20)\n"
      "  --json              JSON instead of tables\n"
      "  --summary           one line of pooled figures over all non-reference channels:\n"
      "                      rms_px= p95_px= rms_nm= pairs= (and mapping_rms_px= with --params)\n"
      "  --help              this text\n"
      "\n"
      "corvane-assess --advise TARGET [-referenceChannelIndex N] runs the calibration's own\n"
      "focus search and spot detection on a target before calibrating: per channel the blobs\n"
      "kept and erased at each -gridThreshold, the spots the first pass can pair, and the\n"
      "advised 'corvane calibration' command line.\n");
}

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "corvane-assess: %s\n", message.c_str());
  std::exit(1);
}

enum OptionId {
  kTruth = 1000,
  kParams,
  kBefore,
  kHtml,
  kReference,
  kTime,
  kMaxDistance,
  kJson,
  kSummary,
  kHelp
};

const option kOptions[] = {{"truth", required_argument, nullptr, kTruth},
                           {"params", required_argument, nullptr, kParams},
                           {"before", required_argument, nullptr, kBefore},
                           {"html", required_argument, nullptr, kHtml},
                           {"reference", required_argument, nullptr, kReference},
                           {"time", required_argument, nullptr, kTime},
                           {"max-distance", required_argument, nullptr, kMaxDistance},
                           {"json", no_argument, nullptr, kJson},
                           {"summary", no_argument, nullptr, kSummary},
                           {"help", no_argument, nullptr, kHelp},
                           {nullptr, 0, nullptr, 0}};

struct Run {
  std::string stack, truthPath, paramsPath, beforePath, htmlPath;
  assess::Options options;
  bool referenceGiven = false;
  bool json = false;
  bool summary = false;
};

Run parseCommandLine(int argc, char** argv) {
  Run run;
  int id;
  while ((id = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    switch (id) {
      case kTruth:
        run.truthPath = optarg;
        break;
      case kParams:
        run.paramsPath = optarg;
        break;
      case kBefore:
        run.beforePath = optarg;
        break;
      case kHtml:
        run.htmlPath = optarg;
        break;
      case kReference:
        run.options.reference = static_cast<int>(cli::parseNumber(kProgram, optarg, "reference"));
        run.referenceGiven = true;
        break;
      case kTime:
        run.options.time = static_cast<int>(cli::parseNumber(kProgram, optarg, "time"));
        break;
      case kMaxDistance:
        run.options.maxPairDistance = cli::parseNumber(kProgram, optarg, "max-distance");
        break;
      case kJson:
        run.json = true;
        break;
      case kSummary:
        run.summary = true;
        break;
      case kHelp:
        printHelp();
        std::exit(0);
      default:
        cli::usageError(kProgram, "bad option");
    }
  }
  if (optind < argc) run.stack = argv[optind++];
  if (optind < argc) cli::usageError(kProgram, "give at most one STACK");
  if (run.stack.empty() && run.paramsPath.empty())
    cli::usageError(kProgram, "give a STACK or --params");
  if (!run.paramsPath.empty() && run.truthPath.empty() && run.stack.empty())
    cli::usageError(kProgram, "--params needs --truth or a STACK");
  if ((!run.beforePath.empty() || !run.htmlPath.empty()) && run.stack.empty())
    cli::usageError(kProgram, "--before and --html need a STACK");
  return run;
}

nlohmann::json readTruth(const std::string& path) {
  std::ifstream in(path);
  if (!in) fail("cannot open " + path);
  nlohmann::json j = nlohmann::json::parse(in, nullptr, false);
  if (j.is_discarded() || !j.contains("channels") || !j.contains("stack")) {
    fail(path + " is not a ground truth of corvane-synth");
  }
  return j;
}

double pooledMappingRms(const std::vector<assess::MappingReport>& reports) {
  double sumSq = 0.0;
  int count = 0;
  for (const auto& r : reports) {
    if (!r.found) continue;
    sumSq += r.rmsPx * r.rmsPx;
    ++count;
  }
  return count > 0 ? std::sqrt(sumSq / count) : NAN;
}

// Measures the stack at `path`, or ends the process with the failure.
void measure(const std::string& path, const assess::Options& options, const nlohmann::json* truth,
             assess::StackInfo* info, std::vector<assess::ChannelReport>* reports) {
  std::string error;
  try {
    error = assess::assessStack(path, options, truth, info, reports);
  } catch (const nlohmann::json::exception& e) {
    error = std::string("malformed ground truth: ") + e.what();
  }
  if (!error.empty()) fail(error);
}

}  // namespace

int main(int argc, char** argv) {
  if (advise::requested(argc, argv)) return advise::run(argc, argv);
  Run run = parseCommandLine(argc, argv);
  nlohmann::json truth;
  if (!run.truthPath.empty()) {
    truth = readTruth(run.truthPath);
    if (!run.referenceGiven) run.options.reference = truth.value("reference", 0);
  }
  const nlohmann::json* truthPtr = run.truthPath.empty() ? nullptr : &truth;

  nlohmann::json out;
  std::string text, summary;
  // Everything measured, for the HTML report.
  assess::HtmlReport figures{run.stack, run.beforePath, {}, {}, run.options, {}, {}, {}, {}};
  if (!run.beforePath.empty()) {
    measure(run.beforePath, run.options, truthPtr, &figures.beforeInfo, &figures.before);
    out["before"] =
        assess::reportsJson(run.beforePath, figures.beforeInfo, run.options, figures.before);
    text += assess::formatReports(run.beforePath, figures.beforeInfo, run.options, figures.before);
    text += "\n";
    truthPtr = nullptr;  // the truth describes the stack before correction only
  }
  if (!run.stack.empty()) {
    assess::StackInfo& info = figures.info;
    std::vector<assess::ChannelReport>& reports = figures.after;
    measure(run.stack, run.options, truthPtr, &info, &reports);
    if (!run.beforePath.empty() && figures.before.size() != reports.size()) {
      fail(run.beforePath + " and " + run.stack + " have different channels");
    }
    out["registration"] = assess::reportsJson(run.stack, info, run.options, reports);
    text += assess::formatReports(run.stack, info, run.options, reports);
    const assess::ErrorStats all =
        assess::pooled(reports, run.options.reference, false, info.spacing[0], info.spacing[1]);
    char line[160];
    std::snprintf(line, sizeof line, "rms_px=%.4f p95_px=%.4f rms_nm=%.2f pairs=%d", all.rmsPx,
                  all.p95Px, all.rmsNm, all.count);
    summary += line;
  }
  if (!run.paramsPath.empty()) {
    std::vector<std::vector<double>> rows;
    std::string error = assess::readParameterFile(run.paramsPath, &rows);
    if (!error.empty()) fail(error);
    std::vector<assess::MappingReport>& mappings = figures.mappings;
    try {
      if (!run.truthPath.empty()) error = assess::compareMappings(rows, truth, &mappings);
      const std::vector<float> wavelengths =
          run.truthPath.empty() ? figures.info.wavelengths
                                : truth.at("stack").at("wavelengths").get<std::vector<float>>();
      if (error.empty()) {
        error = assess::modelReports(rows, wavelengths, run.truthPath.empty() ? nullptr : &truth,
                                     &figures.models);
      }
    } catch (const nlohmann::json::exception& e) {
      error = std::string("malformed ground truth: ") + e.what();
    }
    if (!error.empty()) fail(error);
    if (!text.empty()) text += "\n";
    if (!run.truthPath.empty()) {
      out["mapping"] = assess::mappingsJson(mappings);
      text += assess::formatMappings(mappings) + "\n";
      char line[80];
      std::snprintf(line, sizeof line, "%smapping_rms_px=%.4f", summary.empty() ? "" : " ",
                    pooledMappingRms(mappings));
      summary += line;
    }
    out["model"] = assess::modelsJson(figures.models);
    text += assess::formatModels(figures.models);
  }
  if (!run.htmlPath.empty()) {
    const std::string error = assess::writeHtmlReport(run.htmlPath, figures);
    if (!error.empty()) fail(error);
  }

  if (run.summary) {
    std::printf("%s\n", summary.c_str());
  } else if (run.json) {
    std::printf("%s\n", out.dump(2).c_str());
  } else {
    std::printf("%s", text.c_str());
  }
  return 0;
}
