// The one way a calibration or correction run stops on a failure, shared by
// both drivers and the parameter file reader.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "imsubs/imsubs.h"
#include "model/model.h"

void stopRun(const char* reason, const char* stopLine, const char* technical,
             std::initializer_list<int> openStreams) {
  if (reason != nullptr) puts(reason);
  puts(stopLine);
  fflush(stdout);
  if (technical != nullptr) fwrite(technical, 1, strlen(technical), stderr);
  for (int stream : openStreams) IMClose(stream);
  exit(1);
}
