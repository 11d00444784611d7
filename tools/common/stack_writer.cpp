// Writing a synthetic stack: sections are rendered in parallel batches and
// written one by one, in file order, through the image stream library. The
// library is not reentrant, so only one thread at a time calls it: the one
// that writes a batch, while the others render the next.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "imsubs/imsubs.h"
#include "tools/common/synth.h"

namespace synth {

namespace {

constexpr int kStream = 11;
constexpr int kSequenceZTW = 0;  // Z fastest, then time, then channel
constexpr int kPixelTypeUnsigned16 = 6;
constexpr int kPixelTypeFloat = 2;
constexpr int kSectionsPerThread = 4;  // batch size, so memory stays small
constexpr double kUnsigned16Max = 65535.0;

struct SectionStats {
  double min = std::numeric_limits<double>::max();
  double max = -std::numeric_limits<double>::max();
  double sum = 0.0;
};

// The library truncates on writing integer pixels; round half up here so that
// the stored count is the nearest one, and keep inside the type's range.
void roundToUnsigned16(float* pixels, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const double v = std::floor(static_cast<double>(pixels[i]) + 0.5);
    pixels[i] = static_cast<float>(std::clamp(v, 0.0, kUnsigned16Max));
  }
}

SectionStats statsOf(const float* pixels, size_t n) {
  SectionStats s;
  for (size_t i = 0; i < n; ++i) {
    s.min = std::min(s.min, static_cast<double>(pixels[i]));
    s.max = std::max(s.max, static_cast<double>(pixels[i]));
    s.sum += pixels[i];
  }
  return s;
}

std::string failure(const char* call, int code) {
  return std::string(call) + " failed: " + IMRtErrText(static_cast<unsigned>(code));
}

std::string createHeader(const std::string& path, const Config& config, const std::string& title) {
  const Geometry& g = config.geometry;
  int code = IMOpen(kStream, path.c_str(), "new");
  if (code != 0) return "cannot create " + path + ": " + IMRtErrText(static_cast<unsigned>(code));
  const int type = g.pixels == PixelKind::kFloat ? kPixelTypeFloat : kPixelTypeUnsigned16;
  const int numW = static_cast<int>(g.wavelengths.size());
  if ((code = IMCrHdr2(kStream, g.numCols, g.numRows, g.numZ, numW, g.numTimes, kSequenceZTW,
                       type)) != 0) {
    return failure("IMCrHdr2", code);
  }
  if ((code = IMAlDel2(kStream, g.spacingX, g.spacingY, g.spacingZ)) != 0) {
    return failure("IMAlDel2", code);
  }
  for (int w = 0; w < numW; ++w) {
    if ((code = IMAlWav2(kStream, w, g.wavelengths[w])) != 0) return failure("IMAlWav2", code);
  }
  char titles[1][80] = {};
  std::strncpy(titles[0], title.c_str(), sizeof titles[0] - 1);
  if ((code = IMAlLab(kStream, titles, 1)) != 0) return failure("IMAlLab", code);
  return "";
}

// One section of the stack, in file order.
struct SectionRef {
  int channel, time, section;
};

// The running statistics of each channel, folded in file order.
struct ChannelStats {
  std::vector<SectionStats> perChannel;
  std::vector<double> meanSum;
};

// Writes `count` rendered sections of `refs` from `pixels`, in order.
std::string writeBatch(const SectionRef* refs, int count, const float* pixels, size_t n,
                       const SectionStats* stats, ChannelStats& channels) {
  for (int k = 0; k < count; ++k) {
    const SectionRef& r = refs[k];
    int code = IMPosnZWT(kStream, r.section, r.channel, r.time);
    if (code != 0) return failure("IMPosnZWT", code);
    if ((code = IMWrSec(kStream, pixels + static_cast<size_t>(k) * n)) != 0) {
      return failure("IMWrSec", code);
    }
    SectionStats& c = channels.perChannel[r.channel];
    c.min = std::min(c.min, stats[k].min);
    c.max = std::max(c.max, stats[k].max);
    channels.meanSum[r.channel] += stats[k].sum / static_cast<double>(n);
  }
  return "";
}

// Renders all sections in batches on `threads` threads. While a batch is
// rendered, one thread writes the batch before it and then joins in, so the
// disk and the cores work at the same time.
std::string renderAndWrite(const Config& config, SectionRenderer render, const void* context,
                           int threads, ChannelStats& channels) {
  const Geometry& g = config.geometry;
  const size_t n = static_cast<size_t>(g.numCols) * g.numRows;
  std::vector<SectionRef> refs;
  for (int w = 0; w < static_cast<int>(g.wavelengths.size()); ++w) {
    for (int t = 0; t < g.numTimes; ++t) {
      for (int z = 0; z < g.numZ; ++z) refs.push_back({w, t, z});
    }
  }
  const int total = static_cast<int>(refs.size());
  const int batchSize = std::min(total, threads * kSectionsPerThread);
  const int numBatches = (total + batchSize - 1) / batchSize;
  std::vector<float> pixels[2];
  std::vector<SectionStats> stats[2];
  for (int i = 0; i < 2; ++i) {
    pixels[i].resize(n * static_cast<size_t>(batchSize));
    stats[i].resize(static_cast<size_t>(batchSize));
  }
  std::string error;
  for (int b = 0; b <= numBatches && error.empty(); ++b) {
    const int first = b * batchSize;
    const int count = b < numBatches ? std::min(batchSize, total - first) : 0;
    float* out = pixels[b % 2].data();
    SectionStats* outStats = stats[b % 2].data();
#pragma omp parallel num_threads(threads)
    {
#pragma omp single nowait
      if (b > 0) {
        const int previous = first - batchSize;
        error = writeBatch(refs.data() + previous, std::min(batchSize, total - previous),
                           pixels[(b + 1) % 2].data(), n, stats[(b + 1) % 2].data(), channels);
      }
#pragma omp for schedule(dynamic, 1) nowait
      for (int k = 0; k < count; ++k) {
        const SectionRef& r = refs[first + k];
        float* section = out + static_cast<size_t>(k) * n;
        render(context, r.channel, r.time, r.section, section);
        if (g.pixels == PixelKind::kUnsigned16) roundToUnsigned16(section, n);
        outStats[k] = statsOf(section, n);
      }
    }
  }
  return error;
}

struct TargetContext {
  const Config* config;
  const Truth* truth;
  const std::vector<Spot>* spots;
};

struct SpecimenContext {
  const Config* config;
  const Truth* truth;
  const Specimen* specimen;
};

void renderTarget(const void* context, int channel, int time, int section, float* out) {
  const TargetContext* c = static_cast<const TargetContext*>(context);
  renderTargetSection(*c->config, *c->truth, *c->spots, channel, time, section, out);
}

void renderSpecimen(const void* context, int channel, int time, int section, float* out) {
  const SpecimenContext* c = static_cast<const SpecimenContext*>(context);
  renderSpecimenSection(*c->config, *c->truth, *c->specimen, channel, time, section, out);
}

}  // namespace

std::string writeStack(const std::string& path, const Config& config, const std::string& title,
                       SectionRenderer render, const void* context, int threads) {
  const Geometry& g = config.geometry;
  if (threads <= 0) threads = omp_get_num_procs();
  std::string error = createHeader(path, config, title);
  const int numW = static_cast<int>(g.wavelengths.size());
  ChannelStats channels{std::vector<SectionStats>(static_cast<size_t>(numW)),
                        std::vector<double>(static_cast<size_t>(numW), 0.0)};
  if (error.empty()) error = renderAndWrite(config, render, context, threads, channels);
  for (int w = 0; w < numW && error.empty(); ++w) {
    const double mean = channels.meanSum[w] / (static_cast<double>(g.numZ) * g.numTimes);
    const int code =
        IMAlWavMMM(kStream, w, static_cast<float>(channels.perChannel[w].min),
                   static_cast<float>(channels.perChannel[w].max), static_cast<float>(mean));
    if (code != 0) error = failure("IMAlWavMMM", code);
  }
  if (error.empty()) {
    const int code = IMWrHdr2(kStream, 1);
    if (code != 0) error = failure("IMWrHdr2", code);
  }
  IMClose(kStream);
  return error;
}

std::string writeTarget(const std::string& path, const Config& config, const Truth& truth,
                        const std::vector<Spot>& spots, int threads) {
  const TargetContext context{&config, &truth, &spots};
  return writeStack(path, config,
                    "corvane-synth calibration target, seed " + std::to_string(config.seed),
                    renderTarget, &context, threads);
}

std::string writeSpecimen(const std::string& path, const Config& config, const Truth& truth,
                          const Specimen& specimen, int threads) {
  const SpecimenContext context{&config, &truth, &specimen};
  return writeStack(path, config, "corvane-synth specimen, seed " + std::to_string(config.seed),
                    renderSpecimen, &context, threads);
}

}  // namespace synth
