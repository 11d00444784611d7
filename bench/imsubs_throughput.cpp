// Throughput of section input and output through the image stream library,
// next to plain stdio reads and writes of the same bytes in the same run.
//
// Stacks of 1024 x 1024 x 64 sections, as 4-byte floats and as unsigned
// 16-bit pixels (converted from and to floats by the library), live in /tmp
// and are removed when the program ends. Compare the bytes_per_second of a
// Library* benchmark with its Plain* partner.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "imsubs/imsubs.h"

namespace {

constexpr int kNx = 1024;
constexpr int kNy = 1024;
constexpr int kNz = 64;
constexpr int kPixels = kNx * kNy;
constexpr int kTypeFloat = 2;
constexpr int kTypeUShort = 6;
constexpr int kStream = 1;
constexpr int kHeaderBytes = 1024;
constexpr int kSequenceZWT = 2;
// The default extended header of a created stack: 160 record bytes per
// section in whole 1024-byte blocks, plus three blocks for named fields.
constexpr int kExtHdrBytes = 1024 * ((160 * kNz + 1023) / 1024 + 3);

int bytesPerPixel(int type) {
  return type == kTypeFloat ? 4 : 2;
}

std::string stackPath(char const* what) {
  return "/tmp/imsubs_bench_" + std::to_string(getpid()) + "_" + what + ".qf";
}

// Removes the benchmark's files when the program ends.
struct Cleanup {
  ~Cleanup() {
    for (char const* what : {"lib", "plain"}) std::remove(stackPath(what).c_str());
  }
} cleanup;

std::vector<float> const& floatSection() {
  static std::vector<float> const section = [] {
    std::vector<float> s(kPixels);
    for (int i = 0; i < kPixels; ++i) s[i] = static_cast<float>(i % 60000);
    return s;
  }();
  return section;
}

// The stored bytes of one section of `type`, for the plain writes.
std::vector<char> const& storedSection(int type) {
  static std::vector<char> floats, shorts;
  std::vector<char>& bytes = type == kTypeFloat ? floats : shorts;
  if (bytes.empty()) {
    bytes.resize(static_cast<std::size_t>(kPixels) * bytesPerPixel(type));
    for (int i = 0; i < kPixels; ++i) {
      float const v = floatSection()[i];
      if (type == kTypeFloat) {
        std::memcpy(bytes.data() + 4 * i, &v, 4);
      } else {
        uint16_t const s = static_cast<uint16_t>(v);
        std::memcpy(bytes.data() + 2 * i, &s, 2);
      }
    }
  }
  return bytes;
}

// Writes a whole stack through the library.
void writeLibraryStack(int type) {
  IMOpen(kStream, stackPath("lib").c_str(), "new");
  IMCrHdr2(kStream, kNx, kNy, kNz, 1, 1, kSequenceZWT, type);
  IMWrHdr2(kStream, 1);
  for (int z = 0; z < kNz; ++z) IMWrSec(kStream, floatSection().data());
  IMClose(kStream);
}

void setBytes(benchmark::State& state, int type) {
  state.SetBytesProcessed(state.iterations() * int64_t{kNz} * kPixels * bytesPerPixel(type));
}

void LibraryWrite(benchmark::State& state, int type) {
  for (auto _ : state) writeLibraryStack(type);
  setBytes(state, type);
}

void PlainWrite(benchmark::State& state, int type) {
  std::vector<char> const header(kHeaderBytes + kExtHdrBytes, 0);
  std::vector<char> const& section = storedSection(type);
  for (auto _ : state) {
    FILE* f = std::fopen(stackPath("plain").c_str(), "wb+");
    std::fwrite(header.data(), 1, header.size(), f);
    for (int z = 0; z < kNz; ++z) std::fwrite(section.data(), 1, section.size(), f);
    std::fclose(f);
  }
  setBytes(state, type);
}

void LibraryRead(benchmark::State& state, int type) {
  writeLibraryStack(type);
  std::vector<float> buffer(kPixels);
  for (auto _ : state) {
    IMOpen(kStream, stackPath("lib").c_str(), "ro");
    for (int z = 0; z < kNz; ++z) IMRdSec(kStream, buffer.data());
    benchmark::DoNotOptimize(buffer.data());
    IMClose(kStream);
  }
  setBytes(state, type);
}

void PlainRead(benchmark::State& state, int type) {
  writeLibraryStack(type);
  std::vector<char> buffer(static_cast<std::size_t>(kPixels) * bytesPerPixel(type));
  for (auto _ : state) {
    FILE* f = std::fopen(stackPath("lib").c_str(), "rb");
    std::fseek(f, kHeaderBytes + kExtHdrBytes, SEEK_SET);
    for (int z = 0; z < kNz; ++z) std::fread(buffer.data(), 1, buffer.size(), f);
    benchmark::DoNotOptimize(buffer.data());
    std::fclose(f);
  }
  setBytes(state, type);
}

BENCHMARK_CAPTURE(PlainWrite, float, kTypeFloat)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(LibraryWrite, float, kTypeFloat)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(PlainRead, float, kTypeFloat)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(LibraryRead, float, kTypeFloat)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(PlainWrite, uint16, kTypeUShort)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(LibraryWrite, uint16, kTypeUShort)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(PlainRead, uint16, kTypeUShort)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(LibraryRead, uint16, kTypeUShort)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
