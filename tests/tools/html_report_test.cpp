// The HTML report of corvane-assess after a real calibration and correction,
// rendered by a real browser: the page must draw, its script must run over
// every spot without an error, and its numbers must be the text report's.
#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/testutil.h"

namespace {

// True when `token` stands in `text` as a whole number or word: "1.00" is not
// found in "+1.005".
bool containsToken(const std::string& text, const std::string& token) {
  auto part = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '.'; };
  auto sign = [](char c) { return c == '+' || c == '-'; };
  for (size_t at = text.find(token); at != std::string::npos; at = text.find(token, at + 1)) {
    const size_t end = at + token.size();
    if ((at == 0 || !(part(text[at - 1]) || sign(text[at - 1]))) &&
        (end == text.size() || !part(text[end])))
      return true;
  }
  return false;
}

std::string between(const std::string& text, const std::string& from, const std::string& to) {
  const size_t start = text.find(from);
  if (start == std::string::npos) return "";
  return text.substr(start, text.find(to, start) - start);
}

// Share of pixels that are not near-white, and of blue ones (the figures'
// vectors and bars; text is black, the details box yellow).
void inkShares(const std::string& path, double* ink, double* blue) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_file(&image, path.c_str())) << image.message;
  image.format = PNG_FORMAT_RGB;
  std::vector<png_byte> rgb(PNG_IMAGE_SIZE(image));
  ASSERT_TRUE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) << image.message;
  size_t inked = 0, blued = 0;
  for (size_t i = 0; i < rgb.size(); i += 3) {
    const int r = rgb[i], g = rgb[i + 1], b = rgb[i + 2];
    inked += std::min({r, g, b}) < 200;
    blued += b > r + 60 && b > g + 30;
  }
  *ink = 3.0 * inked / rgb.size();
  *blue = 3.0 * blued / rgb.size();
}

TEST(HtmlReportTest, BrowserDrawsTheReportWithTheTextReportsNumbers) {
  ASSERT_EQ(access(CORVANE_CHROMIUM, X_OK), 0)
      << "chromium is not installed; the report test needs it: apt-get install -y chromium";
  testutil::ScratchDir dir;
  auto runOk = [](const std::string& program, const std::vector<std::string>& args) {
    const testutil::RunResult r = testutil::run(program, args, 120.0);
    EXPECT_EQ(r.exitStatus, 0) << program << "\n" << r.out << r.err;
    return r;
  };
  // A linear truth calibrated with the radial model, so that the model
  // table shows both kinds.
  runOk(CORVANE_SYNTH_BIN, {"--seed", "7", "--size", "256", "--sections", "12", "--model", "linear",
                            "--what", "target", "--threads", "1", "--quiet", dir.path()});
  runOk(CORVANE_BIN, {"calibration", dir.file("target.qf"), dir.file("p.txt")});
  runOk(CORVANE_BIN, {"correction", dir.file("target.qf"), dir.file("p.txt"), dir.file("c.qf")});
  const std::vector<std::string> assess = {
      dir.file("c.qf"),       "--before", dir.file("target.qf"), "--truth",
      dir.file("truth.json"), "--params", dir.file("p.txt")};
  std::vector<std::string> withHtml = assess;
  withHtml.insert(withHtml.end(), {"--html", dir.file("r.html")});
  const std::string text = runOk(CORVANE_ASSESS_BIN, withHtml).out;
  std::vector<std::string> withJson = assess;
  withJson.push_back("--json");
  const nlohmann::json json = nlohmann::json::parse(runOk(CORVANE_ASSESS_BIN, withJson).out);
  if (HasFailure()) return;
  const std::string html = testutil::readFile(dir.file("r.html"));

  // Every channel row of the text report is one row of a table in that
  // channel's section (the wavelength stands in the section's heading).
  std::istringstream lines(text);
  int rowsChecked = 0;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string channel, word;
    words >> channel;
    if (channel.empty() || !std::isdigit(static_cast<unsigned char>(channel[0]))) continue;
    const std::string section =
        between(html, "<section id=\"channel-" + channel + "\"", "</section>");
    const std::string heading = between(section, "<h2>", "</h2>");
    std::vector<std::string> tokens;
    while (words >> word) tokens.push_back(word);
    bool found = false;
    for (size_t at = section.find("<tr>"); at != std::string::npos && !found;
         at = section.find("<tr>", at + 1)) {
      const std::string row = heading + between(section.substr(at), "<tr>", "</tr>");
      found = std::all_of(tokens.begin(), tokens.end(),
                          [&](const std::string& t) { return containsToken(row, t); });
    }
    EXPECT_TRUE(found) << "no row of channel " << channel << " reads: " << line;
    ++rowsChecked;
  }
  // The captions of the figures against the JSON record, before and after.
  int pairs = 0;
  for (const char* stack : {"before", "registration"}) {
    for (const nlohmann::json& c : json.at(stack).at("channels")) {
      const int index = c.at("index").get<int>();
      if (index == json.at(stack).at("reference").get<int>()) continue;
      pairs += c.at("pairs").get<int>();
      const std::string label = std::string(stack) == "before" ? "before" : "after";
      char caption[128];
      std::snprintf(caption, sizeof caption, "rms %.3f px &#183; p95 %.3f px &#183; %d pairs",
                    c.at("error").at("rmsPx").get<double>(),
                    c.at("error").at("p95Px").get<double>(), c.at("pairs").get<int>());
      const std::string figure =
          between(html, "data-label=\"channel " + std::to_string(index) + " " + label, "</svg>");
      EXPECT_NE(figure.find(caption), std::string::npos) << caption;
    }
  }

  // The browser: a drawn page, and one console line, the script's own.
  const testutil::RunResult shot =
      testutil::run(CORVANE_CHROMIUM,
                    {"--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                     "--user-data-dir=" + dir.file("profile"), "--window-size=1100,2400",
                     "--screenshot=" + dir.file("shot.png"), "--enable-logging=stderr", "--v=0",
                     "file://" + dir.file("r.html")},
                    120.0);
  ASSERT_EQ(shot.exitStatus, 0) << shot.err;
  std::vector<std::string> console;
  std::istringstream log(shot.err);
  for (std::string line; std::getline(log, line);) {
    if (line.find(":CONSOLE") != std::string::npos) console.push_back(line);
  }
  ASSERT_EQ(console.size(), 1u) << shot.err;
  EXPECT_NE(console[0].find("\"report ready: " + std::to_string(pairs) + " spots\""),
            std::string::npos)
      << console[0];
  double ink = 0.0, blue = 0.0;
  inkShares(dir.file("shot.png"), &ink, &blue);
  EXPECT_GT(ink, 0.03);
  EXPECT_LT(ink, 0.5);
  EXPECT_GT(blue, 0.002);
}

}  // namespace
