// Named field store: the dictionary of named fields kept as text behind the
// per-section records of the extended header.
//
// Only the two steps that the header and open paths call live here for now;
// the parser and the rebuild are filled in with the rest of the field store.
#include "imsubs/internal.h"

int iReadAllFields(int iStream, void* /*unused*/) {
  IMStreamRecord* record = iRecord(iStream);
  if (record == nullptr) return 1;
  record->iNumFields = 0;
  return 730;
}

int iWriteAllFields(IMStreamRecord* /*record*/) {
  return 0;
}
