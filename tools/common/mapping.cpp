// Comparison of a recovered alignment parameter file with the ground truth:
// both mappings evaluated over the whole field of the calibration stack.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "tools/common/assess.h"
#include "tools/common/synth.h"

namespace assess {

int parameterRowFor(const std::vector<std::vector<double>>& rows, float wavelength) {
  const int key = static_cast<int>(wavelength);
  for (size_t i = 0; i < rows.size(); ++i) {
    if (static_cast<int>(rows[i][kSlotWavelength]) == key) return static_cast<int>(i);
  }
  return -1;
}

std::string readParameterFile(const std::string& path, std::vector<std::vector<double>>* rows) {
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return "cannot open " + path;
  std::vector<double> values;
  char token[128];
  std::string error;
  while (std::fscanf(file, "%127s", token) == 1) {
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(token, &end);
    if (*end != '\0' || end == token) {
      error = path + ": '" + token + "' is not a number";
      break;
    }
    values.push_back(v);
  }
  std::fclose(file);
  if (!error.empty()) return error;
  if (values.empty() || values.size() % kNumRowSlots != 0) {
    return path + ": holds " + std::to_string(values.size()) + " values, not rows of " +
           std::to_string(kNumRowSlots);
  }
  rows->clear();
  for (size_t i = 0; i < values.size(); i += kNumRowSlots) {
    rows->emplace_back(values.begin() + i, values.begin() + i + kNumRowSlots);
  }
  return "";
}

std::string compareMappings(const std::vector<std::vector<double>>& fileRows,
                            const nlohmann::json& truth, std::vector<MappingReport>* reports) {
  const nlohmann::json& stack = truth.at("stack");
  const int numCols = stack.at("columns").get<int>();
  const int numRows = stack.at("rows").get<int>();
  const std::vector<float> spacing = stack.at("spacing").get<std::vector<float>>();
  const int trueLinear = truth.at("linearFlag").get<int>();
  const int reference = truth.at("reference").get<int>();

  // As a correction of the calibration stack would see the file: values in
  // single precision, then converted into pixels.
  std::vector<std::vector<double>> rows = fileRows;
  for (auto& row : rows) {
    for (double& v : row) v = static_cast<float>(v);
  }
  convertAlignmentParameterToPixels(rows, numRows, numCols, spacing[0], spacing[1], spacing[2]);
  const int recoveredLinear = static_cast<int>(rows.back()[kSlotLinearFlag]);
  const int lastRow = static_cast<int>(rows.size()) - 1;

  reports->clear();
  for (const nlohmann::json& channel : truth.at("channels")) {
    MappingReport r{};
    r.index = channel.at("index").get<int>();
    if (r.index == reference) continue;
    r.wavelength = channel.at("wavelength").get<float>();
    r.trueShift = channel.at("zOffset").get<int>();
    const std::vector<double> p = channel.at("parameters").get<std::vector<double>>();
    const int row = parameterRowFor(rows, r.wavelength);
    r.found = row >= 0;
    if (!r.found) {
      reports->push_back(r);
      continue;
    }
    // The final row stands for the reference channel, which is copied.
    const bool copied = row == lastRow;
    const double* q = rows[row].data() + kSlotFirstParameter;
    r.recoveredShift = copied ? 0 : static_cast<int>(rows[row][kSlotZOffset]);
    double sumSq = 0.0, sumSqNm = 0.0;
    long count = 0;
    for (double y = 0.0; y <= numRows - 1; y += kMappingGridStep) {
      for (double x = 0.0; x <= numCols - 1; x += kMappingGridStep) {
        const CorvanePoint2D t = synth::mapWithParameters(p.data(), trueLinear, x, y);
        const CorvanePoint2D m =
            copied ? CorvanePoint2D{x, y} : synth::mapWithParameters(q, recoveredLinear, x, y);
        const double dx = m.x - t.x, dy = m.y - t.y;
        const double d2 = dx * dx + dy * dy;
        sumSq += d2;
        sumSqNm += 1e6 * (dx * spacing[0] * dx * spacing[0] + dy * spacing[1] * dy * spacing[1]);
        r.maxPx = std::max(r.maxPx, std::sqrt(d2));
        ++count;
      }
    }
    r.rmsPx = std::sqrt(sumSq / count);
    r.rmsNm = std::sqrt(sumSqNm / count);
    reports->push_back(r);
  }
  return "";
}

}  // namespace assess
