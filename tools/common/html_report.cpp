// The assessment as one self-contained HTML page: inline CSS, inline SVG and
// a few lines of script for the details of a spot under the pointer. Nothing
// is fetched, so the page can be mailed or archived with the calibration.
//
// The tables repeat the text report's rows with the same conversions, and the
// figures carry the same rounded figures in their captions.
#include "tools/common/html_report.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace assess {

namespace {

// Drawn size of the longer side of the field, in CSS pixels, and the room
// around it for the captions and the scale bar.
constexpr double kFieldSize = 300.0;
constexpr double kSideMargin = 12.0;
constexpr double kTopMargin = 40.0;
constexpr double kBottomMargin = 36.0;
// A vector of the 95th-percentile length is drawn at this fraction of the
// mean distance between spots: long enough to read, short of its neighbours.
constexpr double kVectorReach = 0.5;
// The scale bar stands for about this fraction of the field.
constexpr double kScaleBarFraction = 0.25;
// Histogram: bins from 0 to a round length near kOverflowP95 times the 95th
// percentile; longer residuals are counted in the last bin.
constexpr int kHistogramBins = 20;
constexpr double kOverflowP95 = 3.0;
constexpr double kHistogramWidth = 320.0, kHistogramHeight = 200.0;
constexpr double kPlotLeft = 36.0, kPlotRight = 12.0, kPlotTop = 40.0, kPlotBottom = 32.0;

std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// 1, 2 or 5 times a power of ten: the largest not above `value`, or the
// smallest not below it. `value` is positive and finite.
double roundDown(double value) {
  const double decade = std::pow(10.0, std::floor(std::log10(value)));
  for (double step : {5.0, 2.0, 1.0}) {
    if (step * decade <= value) return step * decade;
  }
  return decade;
}
double roundUp(double value) {
  const double decade = std::pow(10.0, std::floor(std::log10(value)));
  for (double step : {1.0, 2.0, 5.0, 10.0}) {
    if (step * decade >= value) return step * decade;
  }
  return 10.0 * decade;
}

using Cells = std::vector<std::string>;

std::string tableRow(const std::string& label, const Cells& cells, const char* tag = "td") {
  std::string out = "<tr><th>" + escape(label) + "</th>";
  for (const std::string& c : cells) out += format("<%s>%s</%s>", tag, escape(c).c_str(), tag);
  return out + "</tr>\n";
}

// The text report's conversions, cell by cell.
Cells registrationCells(const ChannelReport& r) {
  const ErrorStats& e = r.error;
  return {format("%d", r.focus.section), format("%+.2f", r.zOffset), format("%d", r.spots),
          format("%d", r.pairs),         format("%.3f", e.rmsPx),    format("%.3f", e.p95Px),
          format("%.1f", e.rmsNm),       format("%.1f", e.p95Nm),    format("%+.3f", e.meanDx),
          format("%+.3f", e.meanDy)};
}
Cells truthCells(const ChannelReport& r) {
  return {format("%+d", r.trueZOffset),         format("%.3f", r.truthError.rmsPx),
          format("%.3f", r.truthError.p95Px),   format("%d/%d", r.localisation.count, r.trueSpots),
          format("%.4f", r.localisation.rmsPx), format("%.4f", r.localisation.p95Px)};
}
Cells mappingCells(const MappingReport& m) {
  return {format("%.4f", m.rmsPx), format("%.4f", m.maxPx), format("%.2f", m.rmsNm),
          format("%+d", m.trueShift), format("%+d", m.recoveredShift)};
}
Cells pooledCells(const ErrorStats& e) {
  return {format("%d", e.count), format("%.3f", e.rmsPx), format("%.3f", e.p95Px),
          format("%.1f", e.rmsNm), format("%.1f", e.p95Nm)};
}
Cells headings(std::initializer_list<const char*> names) {
  return Cells(names.begin(), names.end());
}

std::string stackLine(const std::string& path, const StackInfo& info) {
  return format(
      "Stack %s: %d x %d pixels, %d sections, %d channels, %d time point%s; spacing %.1f x %.1f "
      "x %.1f nm",
      path.c_str(), info.numCols, info.numRows, info.numZ, info.numW, info.numT,
      info.numT == 1 ? "" : "s", info.spacing[0] * kNmPerMicrometre,
      info.spacing[1] * kNmPerMicrometre, info.spacing[2] * kNmPerMicrometre);
}

// The displacement of every paired spot, drawn from the reference spot over
// the field and magnified so that the typical vector is readable.
std::string vectorFigure(const std::string& label, const ChannelReport& r, const StackInfo& info) {
  const double scale = kFieldSize / std::max(info.numCols, info.numRows);
  const double width = info.numCols * scale, height = info.numRows * scale;
  const double spotDistance =
      std::sqrt(static_cast<double>(info.numCols) * info.numRows / std::max(r.pairs, 1));
  const double typical = r.error.p95Px > 0.0 ? r.error.p95Px : 1.0;
  const double magnification = roundDown(kVectorReach * spotDistance / typical);
  const double bar =
      roundDown(kScaleBarFraction * std::max(info.numCols, info.numRows) / magnification);
  std::string out = format(
      "<svg class=\"field\" data-label=\"%s\" width=\"%.0f\" height=\"%.0f\" role=\"img\">\n",
      escape(label).c_str(), width + 2 * kSideMargin, height + kTopMargin + kBottomMargin);
  out += format("<text x=\"%.1f\" y=\"16\" class=\"title\">%s, vectors &#215;%g</text>\n",
                kSideMargin, escape(label).c_str(), magnification);
  out += format("<text x=\"%.1f\" y=\"32\">rms %.3f px &#183; p95 %.3f px &#183; %d pairs</text>\n",
                kSideMargin, r.error.rmsPx, r.error.p95Px, r.pairs);
  out += format("<rect class=\"frame\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"/>\n",
                kSideMargin, kTopMargin, width, height);
  bool anyLarge = false;
  for (size_t i = 0; i < r.positions.size(); ++i) {
    const CorvanePoint2D p = r.positions[i], d = r.displacements[i];
    const double x = kSideMargin + (p.x + 0.5) * scale, y = kTopMargin + (p.y + 0.5) * scale;
    const bool large = std::hypot(d.x, d.y) > r.error.p95Px;
    anyLarge = anyLarge || large;
    out += format(
        "<line class=\"%s\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>"
        "<circle class=\"%s\" cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\" data-x=\"%.1f\" data-y=\"%.1f\" "
        "data-dx=\"%+.3f\" data-dy=\"%+.3f\"/>\n",
        large ? "big" : "vec", x, y, x + magnification * d.x * scale,
        y + magnification * d.y * scale, large ? "big" : "vec", x, y, p.x, p.y, d.x, d.y);
  }
  const double barY = kTopMargin + height + 20.0;
  out += format("<line class=\"bar\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n",
                kSideMargin, barY, kSideMargin + bar * magnification * scale, barY);
  out += format("<text x=\"%.1f\" y=\"%.1f\">%g px = %g nm%s</text>\n", kSideMargin, barY + 14.0,
                bar, bar * info.spacing[0] * kNmPerMicrometre,
                anyLarge ? "; red: longer than the 95th percentile" : "");
  return out + "</svg>\n";
}

// Lengths of the residuals in bins, with the RMS and the 95th percentile
// marked as the text report rounds them.
std::string histogramFigure(const std::string& label, const ChannelReport& r) {
  std::vector<double> lengths;
  for (const CorvanePoint2D& d : r.displacements) lengths.push_back(std::hypot(d.x, d.y));
  const double longest = lengths.empty() ? 0.0 : *std::max_element(lengths.begin(), lengths.end());
  const double reach = std::min(longest, kOverflowP95 * r.error.p95Px);
  const double top = roundUp(reach > 0.0 ? reach : 1.0);
  std::vector<int> counts(kHistogramBins, 0);
  for (double l : lengths) {
    counts[std::min(kHistogramBins - 1, static_cast<int>(l / top * kHistogramBins))]++;
  }
  const int most = std::max(1, *std::max_element(counts.begin(), counts.end()));
  const double plotW = kHistogramWidth - kPlotLeft - kPlotRight;
  const double plotH = kHistogramHeight - kPlotTop - kPlotBottom;
  const double baseY = kPlotTop + plotH;
  std::string out = format("<svg class=\"hist\" width=\"%.0f\" height=\"%.0f\" role=\"img\">\n",
                           kHistogramWidth, kHistogramHeight);
  out += format("<text x=\"4\" y=\"16\" class=\"title\">%s: |residual| in px</text>\n",
                escape(label).c_str());
  out += format("<text x=\"4\" y=\"32\">%d pairs; longer than %g px in the last bin</text>\n",
                r.pairs, top);
  for (int b = 0; b < kHistogramBins; ++b) {
    const double h = plotH * counts[b] / most;
    out +=
        format("<rect class=\"bin\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"/>\n",
               kPlotLeft + plotW * b / kHistogramBins, baseY - h, plotW / kHistogramBins - 1.0, h);
  }
  out += format("<line class=\"axis\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n",
                kPlotLeft, baseY, kPlotLeft + plotW, baseY);
  out += format(
      "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%d</text>"
      "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">0</text>\n",
      kPlotLeft - 4.0, kPlotTop + 10.0, most, kPlotLeft - 4.0, baseY);
  for (int tick = 0; tick <= 2; ++tick) {
    out += format("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%g</text>\n",
                  kPlotLeft + plotW * tick / 2.0, baseY + 16.0, top * tick / 2.0);
  }
  const struct {
    const char* name;
    double value;
    const char* cls;
    double dy;
  } marks[] = {{"rms", r.error.rmsPx, "rms", 12.0}, {"p95", r.error.p95Px, "p95", 26.0}};
  for (const auto& m : marks) {
    const double x = kPlotLeft + plotW * std::min(m.value / top, 1.0);
    out += format(
        "<line class=\"%s\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>"
        "<text x=\"%.1f\" y=\"%.1f\">%s %.3f</text>\n",
        m.cls, x, kPlotTop, x, baseY, x + 3.0, kPlotTop + m.dy, m.name, m.value);
  }
  return out + "</svg>\n";
}

const MappingReport* findMapping(const HtmlReport& report, int index) {
  for (const MappingReport& m : report.mappings) {
    if (m.index == index) return &m;
  }
  return nullptr;
}
const ModelReport* findModel(const HtmlReport& report, int index) {
  for (const ModelReport& m : report.models) {
    if (m.index == index) return &m;
  }
  return nullptr;
}

std::string modelTable(const ModelReport& m) {
  std::string out =
      "<table><caption>Model in physical units (shift of the middle of the field; poly: largest "
      "second-order displacement at a corner)</caption>\n";
  out += tableRow("",
                  headings({"mag x", "mag y", "rot mrad", "shear mrad", "shift x nm", "shift y nm",
                            "poly nm", "dz nm", "dz"}),
                  "th");
  if (m.found) {
    out += tableRow("recovered", modelCells(m.recovered));
  } else {
    out += "<tr><th>recovered</th><td colspan=\"9\">no row for this wavelength</td></tr>\n";
  }
  if (m.haveTruth) out += tableRow("true", modelCells(m.truth));
  return out + "</table>\n";
}

// The channel's rows of every table of the text report.
std::string channelTables(const HtmlReport& report, int index) {
  const ChannelReport& after = report.after[index];
  const bool haveBefore = !report.before.empty();
  std::string out = "<table><caption>Registration against the reference channel</caption>\n";
  out += tableRow("",
                  headings({"focus", "dz", "spots", "pairs", "rms px", "p95 px", "rms nm", "p95 nm",
                            "mean dx", "mean dy"}),
                  "th");
  if (haveBefore) out += tableRow("before", registrationCells(report.before[index]));
  out += tableRow(haveBefore ? "after" : "measured", registrationCells(after));
  out += "</table>\n";
  const ChannelReport& truthSide = haveBefore ? report.before[index] : after;
  if (truthSide.haveTruth) {
    out += "<table><caption>Against the ground truth</caption>\n";
    out += tableRow("",
                    headings({"true dz", "true rms px", "true p95 px", "found/true", "loc rms px",
                              "loc p95 px"}),
                    "th");
    out += tableRow(haveBefore ? "before" : "measured", truthCells(truthSide)) + "</table>\n";
  }
  if (const MappingReport* m = findMapping(report, index)) {
    out += "<table><caption>Recovered mapping against the true one, over the field</caption>\n";
    out += tableRow("", headings({"rms px", "max px", "rms nm", "true dz", "recovered dz"}), "th");
    out += m->found
               ? tableRow("mapping", mappingCells(*m))
               : "<tr><th>mapping</th><td colspan=\"5\">no row for this wavelength</td></tr>\n";
    out += "</table>\n";
  }
  if (const ModelReport* m = findModel(report, index)) out += modelTable(*m);
  return out;
}

std::string channelFigures(const HtmlReport& report, int index) {
  const ChannelReport& after = report.after[index];
  const bool haveBefore = !report.before.empty();
  std::string out = "<div class=\"figures\">\n";
  if (haveBefore) {
    out += vectorFigure(format("channel %d before correction", index), report.before[index],
                        report.beforeInfo);
  }
  out += vectorFigure(format("channel %d %s", index, haveBefore ? "after correction" : "measured"),
                      after, report.info);
  out += histogramFigure(haveBefore ? "after correction" : "measured", after);
  return out + "</div>\n";
}

std::string channelSection(const HtmlReport& report, int index) {
  const bool isReference = index == report.options.reference;
  std::string out = format("<section id=\"channel-%d\">\n<h2>%s %d &#183; %d nm</h2>\n", index,
                           isReference ? "Reference channel" : "Channel", index,
                           static_cast<int>(report.after[index].wavelength));
  out += channelTables(report, index);
  if (!isReference) out += channelFigures(report, index);
  return out + "</section>\n";
}

std::string pooledTable(const HtmlReport& report) {
  const Options& o = report.options;
  std::string out = "<table><caption>All non-reference channels together</caption>\n" +
                    tableRow("", headings({"pairs", "rms px", "p95 px", "rms nm", "p95 nm"}), "th");
  if (!report.before.empty()) {
    const StackInfo& b = report.beforeInfo;
    out += tableRow("before", pooledCells(pooled(report.before, o.reference, false, b.spacing[0],
                                                 b.spacing[1])));
  }
  const StackInfo& a = report.info;
  out +=
      tableRow(report.before.empty() ? "measured" : "after",
               pooledCells(pooled(report.after, o.reference, false, a.spacing[0], a.spacing[1])));
  return out + "</table>\n";
}

int drawnSpots(const HtmlReport& report) {
  int count = 0;
  for (const auto* reports : {&report.before, &report.after}) {
    for (const ChannelReport& r : *reports) {
      if (r.index != report.options.reference) count += static_cast<int>(r.positions.size());
    }
  }
  return count;
}

constexpr char kStyle[] = R"(<style>
body { font: 14px/1.4 sans-serif; color: #222; margin: 16px 24px; }
h1 { font-size: 20px; margin: 0 0 4px; } h2 { font-size: 16px; margin: 18px 0 6px; }
section { border-top: 1px solid #ccc; }
table { border-collapse: collapse; margin: 6px 0; font-variant-numeric: tabular-nums; }
caption { text-align: left; font-style: italic; color: #555; }
th, td { padding: 1px 8px; text-align: right; } th { font-weight: 600; }
.figures { display: flex; flex-wrap: wrap; gap: 12px; align-items: flex-start; }
svg { background: #fff; border: 1px solid #ddd; font-size: 11px; }
svg .title { font-weight: 600; }
.frame { fill: #f4f6f8; stroke: #999; }
line.vec { stroke: #1f5fa8; stroke-width: 1.3; } circle.vec { fill: #1f5fa8; }
line.big { stroke: #d0342c; stroke-width: 1.3; } circle.big { fill: #d0342c; }
circle { cursor: crosshair; }
line.bar, line.axis { stroke: #222; stroke-width: 2; }
rect.bin { fill: #1f5fa8; } line.rms { stroke: #222; stroke-dasharray: 4 2; }
line.p95 { stroke: #d0342c; stroke-dasharray: 4 2; }
#details { position: sticky; top: 0; background: #fffbe6; border: 1px solid #e6d98c;
  padding: 4px 8px; margin: 8px 0; min-height: 1.4em; }
</style>
)";

// Shows the numbers of the spot under the pointer, and says on the console
// that it ran over every spot drawn.
constexpr char kScript[] = R"(<script>
(function () {
  var details = document.getElementById('details');
  var nmX = Number(document.body.dataset.nmX), nmY = Number(document.body.dataset.nmY);
  var spots = document.querySelectorAll('circle[data-dx]');
  spots.forEach(function (c) {
    c.addEventListener('mouseenter', function () {
      var dx = Number(c.dataset.dx), dy = Number(c.dataset.dy);
      details.textContent = c.closest('svg').dataset.label + ': spot at (' + c.dataset.x + ', ' +
        c.dataset.y + ') px, dx ' + c.dataset.dx + ' px, dy ' + c.dataset.dy + ' px, length ' +
        Math.hypot(dx, dy).toFixed(3) + ' px (' + Math.hypot(dx * nmX, dy * nmY).toFixed(1) + ' nm)';
    });
  });
  if (spots.length !== Number(document.body.dataset.spots)) {
    console.error('report incomplete: ' + spots.length + ' of ' + document.body.dataset.spots);
  }
  console.log('report ready: ' + spots.length + ' spots');
})();
</script>
)";

}  // namespace

std::string writeHtmlReport(const std::string& path, const HtmlReport& report) {
  const StackInfo& info = report.info;
  const ChannelReport& reference = report.after[report.options.reference];
  std::string page = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  page += "<title>Channel registration: " + escape(report.stackPath) + "</title>\n";
  page += kStyle;
  page += format("</head>\n<body data-spots=\"%d\" data-nm-x=\"%g\" data-nm-y=\"%g\">\n",
                 drawnSpots(report), info.spacing[0] * kNmPerMicrometre,
                 info.spacing[1] * kNmPerMicrometre);
  page += "<h1>Channel registration</h1>\n";
  if (!report.before.empty()) {
    page += "<p>Before correction: " + escape(stackLine(report.beforePath, report.beforeInfo)) +
            "<br>After correction: ";
  } else {
    page += "<p>";
  }
  page += escape(stackLine(report.stackPath, info)) + "<br>";
  page += format(
      "Reference channel %d (%d nm), time point %d. Vectors run from the reference "
      "channel's spot to the channel's own, magnified as written on each figure.</p>\n",
      reference.index, static_cast<int>(reference.wavelength), report.options.time);
  page += pooledTable(report);
  page += "<div id=\"details\">Point at a spot for its numbers.</div>\n";
  for (int c = 0; c < static_cast<int>(report.after.size()); ++c) {
    page += channelSection(report, c);
  }
  page += kScript;
  page += "</body>\n</html>\n";

  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) return "cannot write " + path;
  const bool written = std::fwrite(page.data(), 1, page.size(), file) == page.size();
  if (std::fclose(file) != 0 || !written) return "cannot write " + path;
  return "";
}

}  // namespace assess
