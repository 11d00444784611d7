// Writes float stacks through the image stream library for the benchmarks
// and the tests: the caller fills each section, this does the header, the
// positioning and the closing.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"

namespace testutil {

struct StackLayout {
  int nx = 0, ny = 0, nz = 1, nw = 1, nt = 1;
  float dx = 0.1f, dy = 0.1f, dz = 0.2f;
  std::vector<float> waves;  // one a channel, or empty to leave them unset
  int extValues = 0;         // values a section in an extended header of type 4
};

// Fills `section` (row-major, x fastest) for section z of channel w at time t.
using SectionFill = std::function<void(std::vector<float>& section, int z, int w, int t)>;
// Extended header value `id` of a section.
using ExtValue = std::function<double(int id, int z, int w, int t)>;

// Writes the stack in mode 2 on `stream`; returns false on any failing
// library call. The stream is closed in every case.
inline bool writeStack(const std::string& path, const StackLayout& s, const SectionFill& fill,
                       int stream = 9, const ExtValue& extValue = nullptr) {
  if (IMOpen(stream, path.c_str(), "new") != 0) return false;
  bool ok = IMCrHdr2(stream, s.nx, s.ny, s.nz, s.nw, s.nt, 0, 2) == 0 &&
            IMAlDel2(stream, s.dx, s.dy, s.dz) == 0;
  for (std::size_t w = 0; ok && w < s.waves.size(); ++w) {
    ok = IMAlWav2(stream, static_cast<int>(w), s.waves[w]) == 0;
  }
  if (ok && s.extValues > 0) ok = IMAlExHdrType(stream, 4, 1, s.nz * s.nw * s.nt) == 0;
  std::vector<float> section(static_cast<std::size_t>(s.nx) * s.ny);
  for (int w = 0; ok && w < s.nw; ++w) {
    for (int t = 0; ok && t < s.nt; ++t) {
      for (int z = 0; ok && z < s.nz; ++z) {
        fill(section, z, w, t);
        ok = IMPosnZWT(stream, z, w, t) == 0 && IMWrSec(stream, section.data()) == 0;
        for (int id = 0; ok && id < s.extValues; ++id) {
          ok = IMAlExHdrValueZWT(stream, z, w, t, id, extValue(id, z, w, t)) == 0;
        }
      }
    }
  }
  ok = ok && IMWrHdr2(stream, 1) == 0;
  return IMClose(stream) == 0 && ok;
}

}  // namespace testutil
