// The recovered alignment model in physical units, and the self-contained
// HTML report of an assessment: per channel the displacement of every paired
// spot over the field before and after correction, a histogram of the
// residuals, the model next to the truth, and the tables of the text report.
//
// Every number the report shows is printed with the conversion the text
// report uses for it, so the two read the same to the last digit.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/common/assess.h"

namespace assess {

// A model as a microscopist reads it. Shifts are those of the middle of the
// field, so that they do not depend on where a fit put its centre, which the
// models leave free.
struct PhysicalModel {
  int linearFlag = 0;
  double magnificationX = 1.0, magnificationY = 1.0;
  double rotationMrad = 0.0;
  double shearMrad = 0.0;  // linear model: tilt of the Y axis against the X axis
  double shiftXNm = 0.0, shiftYNm = 0.0;
  double secondOrderNm = 0.0;  // largest second-order displacement at a corner
  double zOffsetNm = 0.0;
  int zOffsetSections = 0;  // as a correction shifts the channel
};

// `parameters` in pixels of a stack of numCols x numRows with `spacing` in
// micrometres (X, Y, Z); the Z offset is given in both units by the caller.
PhysicalModel physicalModel(const double* parameters, int linearFlag, int numCols, int numRows,
                            const float spacing[3], double zOffsetMicrometres, int zSections);

// One channel's recovered model, and with a ground truth the true one.
struct ModelReport {
  int index;
  float wavelength;
  bool found;  // the file has a row for the channel's wavelength
  PhysicalModel recovered;
  bool haveTruth = false;
  PhysicalModel truth;
};

// The models of parameter file `rows` (as read) for every channel of
// `wavelengths` except the one the final row stands for; `truth` may be null.
// Empty string or the failure.
std::string modelReports(const std::vector<std::vector<double>>& rows,
                         const std::vector<float>& wavelengths, const nlohmann::json* truth,
                         std::vector<ModelReport>* reports);
// The figures of a model as the reports print them: magnification X and Y,
// rotation, shear, shift X and Y, second-order term, Z offset in nm and in
// sections ("-" where the model has no such term).
std::vector<std::string> modelCells(const PhysicalModel& m);
std::string formatModels(const std::vector<ModelReport>& reports);
nlohmann::json modelsJson(const std::vector<ModelReport>& reports);

// What the HTML report shows. `after` is the measured stack (the corrected
// one when `before` is given); `before`, `mappings` and `models` may be
// empty.
struct HtmlReport {
  std::string stackPath, beforePath;
  StackInfo info, beforeInfo;
  Options options;
  std::vector<ChannelReport> after, before;
  std::vector<MappingReport> mappings;
  std::vector<ModelReport> models;
};

// Writes the report to `path`; empty string or the failure.
std::string writeHtmlReport(const std::string& path, const HtmlReport& report);

}  // namespace assess
