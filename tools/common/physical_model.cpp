// A recovered alignment parameter file read back as magnifications, angles
// and shifts in nanometres, next to the true model when there is one.
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "tools/common/html_report.h"
#include "tools/common/synth.h"

namespace assess {

namespace {

constexpr double kMradPerRadian = 1000.0;

// The 2 x 2 part of the model as a rotation after an upper-triangular factor:
// A = R(theta) [[mx, k], [0, my]]. For the truth's R(rot) diag(mx, my) this
// gives back rot, mx, my and no shear.
void decompose(const double* p, int linearFlag, PhysicalModel* m) {
  if (linearFlag == 0) {
    m->magnificationX = m->magnificationY = p[2];
    m->rotationMrad = p[3] * kMradPerRadian;
    return;
  }
  const double a = p[2], b = p[4], c = p[5], d = p[3];
  const double theta = std::atan2(c, a);
  const double k = std::cos(theta) * b + std::sin(theta) * d;
  m->magnificationX = std::hypot(a, c);
  m->magnificationY = -std::sin(theta) * b + std::cos(theta) * d;
  m->rotationMrad = theta * kMradPerRadian;
  m->shearMrad = std::atan2(k, m->magnificationY) * kMradPerRadian;
}

// The polynomial laid over the linear model, at its largest on a corner.
double secondOrderNm(const double* p, int numCols, int numRows, const float spacing[3]) {
  double largest = 0.0;
  for (const double y : {0.0, numRows - 1.0}) {
    for (const double x : {0.0, numCols - 1.0}) {
      const CorvanePoint2D base = linearPoint(p, x, y);
      const CorvanePoint2D full = highOrderPoint(p, base);
      largest = std::max(largest, std::hypot((full.x - base.x) * spacing[0] * kNmPerMicrometre,
                                             (full.y - base.y) * spacing[1] * kNmPerMicrometre));
    }
  }
  return largest;
}

// Column widths of the text table, after channel, wave and source.
constexpr int kModelWidths[] = {9, 9, 8, 10, 10, 10, 7, 6, 3};

std::string modelRow(int index, float wavelength, const char* source, const PhysicalModel& m) {
  std::string out = format("%7d  %4d  %-9s", index, static_cast<int>(wavelength), source);
  const std::vector<std::string> cells = modelCells(m);
  for (size_t i = 0; i < cells.size(); ++i)
    out += format("  %*s", kModelWidths[i], cells[i].c_str());
  return out + "\n";
}

nlohmann::json modelJson(const PhysicalModel& m) {
  return {{"linearFlag", m.linearFlag},
          {"magnificationX", m.magnificationX},
          {"magnificationY", m.magnificationY},
          {"rotationMrad", m.rotationMrad},
          {"shearMrad", m.shearMrad},
          {"shiftXNm", m.shiftXNm},
          {"shiftYNm", m.shiftYNm},
          {"secondOrderNm", m.secondOrderNm},
          {"zOffsetNm", m.zOffsetNm},
          {"zOffsetSections", m.zOffsetSections}};
}

}  // namespace

PhysicalModel physicalModel(const double* parameters, int linearFlag, int numCols, int numRows,
                            const float spacing[3], double zOffsetMicrometres, int zSections) {
  PhysicalModel m;
  m.linearFlag = linearFlag;
  decompose(parameters, linearFlag, &m);
  // The middle as the parameter file's unit conversion counts it.
  const double midX = numCols * 0.5, midY = numRows * 0.5;
  const CorvanePoint2D q = synth::mapWithParameters(parameters, linearFlag, midX, midY);
  m.shiftXNm = (q.x - midX) * spacing[0] * kNmPerMicrometre;
  m.shiftYNm = (q.y - midY) * spacing[1] * kNmPerMicrometre;
  if (linearFlag != 0) m.secondOrderNm = secondOrderNm(parameters, numCols, numRows, spacing);
  m.zOffsetNm = zOffsetMicrometres * kNmPerMicrometre;
  m.zOffsetSections = zSections;
  return m;
}

std::vector<std::string> modelCells(const PhysicalModel& m) {
  const bool linear = m.linearFlag != 0;
  return {format("%.6f", m.magnificationX),
          format("%.6f", m.magnificationY),
          format("%.3f", m.rotationMrad),
          linear ? format("%.3f", m.shearMrad) : "-",
          format("%.1f", m.shiftXNm),
          format("%.1f", m.shiftYNm),
          linear ? format("%.1f", m.secondOrderNm) : "-",
          format("%.1f", m.zOffsetNm),
          format("%+d", m.zOffsetSections)};
}

std::string modelReports(const std::vector<std::vector<double>>& fileRows,
                         const std::vector<float>& wavelengths, const nlohmann::json* truth,
                         std::vector<ModelReport>* reports) {
  // The final row describes the calibration stack; the models are read in
  // its pixels, in single precision, as a correction of it would read them.
  std::vector<std::vector<double>> rows = fileRows;
  for (auto& row : rows) {
    for (double& v : row) v = static_cast<float>(v);
  }
  const std::vector<double>& last = rows.back();
  const int numCols = static_cast<int>(last[kSlotStackColumns]);
  const int numRows = static_cast<int>(last[kSlotStackRows]);
  const float spacing[3] = {static_cast<float>(last[kSlotStackSpacingX]),
                            static_cast<float>(last[kSlotStackSpacingY]),
                            static_cast<float>(last[kSlotStackSpacingZ])};
  if (numCols < 1 || numRows < 1 ||
      !(spacing[0] > 0.0f && spacing[1] > 0.0f && spacing[2] > 0.0f)) {
    return "the last row of the parameter file does not describe a calibration stack";
  }
  const int linearFlag = static_cast<int>(last[kSlotLinearFlag]);
  convertAlignmentParameterToPixels(rows, numRows, numCols, spacing[0], spacing[1], spacing[2]);

  reports->clear();
  for (int c = 0; c < static_cast<int>(wavelengths.size()); ++c) {
    ModelReport r{};
    r.index = c;
    r.wavelength = wavelengths[c];
    const int row = parameterRowFor(rows, r.wavelength);
    if (row == static_cast<int>(rows.size()) - 1) continue;  // the reference channel
    r.found = row >= 0;
    if (r.found) {
      r.recovered = physicalModel(rows[row].data() + kSlotFirstParameter, linearFlag, numCols,
                                  numRows, spacing, fileRows[row][kSlotZOffset],
                                  static_cast<int>(rows[row][kSlotZOffset]));
    }
    if (truth != nullptr) {
      const nlohmann::json& stack = truth->at("stack");
      const std::vector<float> s = stack.at("spacing").get<std::vector<float>>();
      const float trueSpacing[3] = {s.at(0), s.at(1), s.at(2)};
      const nlohmann::json& channel = truth->at("channels").at(c);
      const std::vector<double> p = channel.at("parameters").get<std::vector<double>>();
      const int dz = channel.at("zOffset").get<int>();
      r.haveTruth = true;
      r.truth = physicalModel(p.data(), truth->at("linearFlag").get<int>(),
                              stack.at("columns").get<int>(), stack.at("rows").get<int>(),
                              trueSpacing, dz * static_cast<double>(trueSpacing[2]), dz);
    }
    reports->push_back(r);
  }
  return "";
}

std::string formatModels(const std::vector<ModelReport>& reports) {
  std::string out =
      "Recovered model in physical units (shift of the middle of the field; poly: largest\n"
      "second-order displacement at a corner; dz in nm and in sections as a correction shifts):\n";
  out +=
      "channel  wave  model          mag x      mag y  rot mrad  shear mrad  shift x nm  shift y "
      "nm  poly nm   dz nm   dz\n";
  for (const ModelReport& r : reports) {
    if (!r.found) {
      out +=
          format("%7d  %4d  no row for this wavelength\n", r.index, static_cast<int>(r.wavelength));
    } else {
      out += modelRow(r.index, r.wavelength, "recovered", r.recovered);
    }
    if (r.haveTruth) out += modelRow(r.index, r.wavelength, "true", r.truth);
  }
  return out;
}

nlohmann::json modelsJson(const std::vector<ModelReport>& reports) {
  nlohmann::json a = nlohmann::json::array();
  for (const ModelReport& r : reports) {
    nlohmann::json c = {{"index", r.index}, {"wavelength", r.wavelength}, {"found", r.found}};
    if (r.found) c["recovered"] = modelJson(r.recovered);
    if (r.haveTruth) c["truth"] = modelJson(r.truth);
    a.push_back(c);
  }
  return a;
}

}  // namespace assess
