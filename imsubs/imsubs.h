// The image stream library: numbered streams on QF image stack files.
// This is the only header that callers include.
//
// A caller picks a stream number from 1 to 10000, opens a file on it and
// names the stream by that number in every call. Every function returns a
// 32-bit status, 0 for success, else a code whose text IMRtErrText gives;
// most failures also print a line on standard error. The library is not
// reentrant: its stream table and buffers are process-wide.
#pragma once

// ---------------------------------------------------------------------------
// Streams and file access.

// Opens `name` on stream `iStream` with the attribute `attrib` ("new",
// "scratch", "ro", "old", "append", optionally with "_buffered" or
// "_unbuffered"), case-insensitive.
int IMOpen(int iStream, char const* name, char const* attrib);
// Opens on the highest free stream number, stored in *iStream.
int IMOpen2(int* iStream, char const* name, char const* attrib);
// Closes and frees the stream; never writes the header.
int IMClose(int iStream);
// 0 when iStream names an open stream; `caller` prefixes the messages.
int IMCheckStream(int iStream, char const* caller);
// 1 (file) for a non-empty name; 504 for a null or empty one.
int IMRtStreamTypeFromName(char const* name, int* winId);
// The highest stream number, 10000.
int IMRtMaxNumStreams();
// Pushes a buffered stream's written data to the disk and drops it from the
// page cache. 1 when the stream has no buffered handle.
int IMFileSync(int iStream);
// 0 when the file carries the image file id in either byte order, else a code.
int IMCheckFile(char const* path);
// The signed 16-bit file id at offset 96; -1 if unopenable, -2 if unreadable.
int IMRtHeaderID(char const* path);
// The text of a status code; "Unspecified error" for unknown codes.
char const* IMRtErrText(unsigned int code);
double IMRtLibVersion();
int IMRtLibBuild();
// Sets the verbosity level (1: verbose lines, 2: also the open wrapper's).
int IMAlPrt(int level);
// Prints that verbose mode is always on; changes nothing by design.
int IMAlVerboseMode(int flag);

// ---------------------------------------------------------------------------
// Image file header.

// Reads and decodes the header of the stream's file.
int IMRdHdr2(int iStream);
// Encodes and writes the header, and the extended header when writeExtHdr is
// not 0 and the stream has one.
int IMWrHdr2(int iStream, int writeExtHdr);
// Fills the record with a fresh header and a default extended header.
int IMCrHdr3(int iStream, int nx, int ny, int nz, int nw, int nt, int np, int sequence,
             int pixelType);
// IMCrHdr3 with np 1.
int IMCrHdr2(int iStream, int nx, int ny, int nz, int nw, int nt, int sequence, int pixelType);

// ---------------------------------------------------------------------------
// Section addressing and positioning. Coordinates are zero-based.

// Name of an image sequence code, fastest axis first; "Undefined" above 14.
char const* IMRtImgSequenceText(int code);
int IMRtZWTP(int iStream, int* nz, int* nw, int* nt, int* np, int* sequence);
int IMRtZWT(int iStream, int* nz, int* nw, int* nt, int* sequence);
int IMRtZWTP2(int iStream, int* nz, int* nw, int* nt, int* np);
int IMRtZWT2(int iStream, int* nz, int* nw, int* nt);
int IMRtImageSequence(int iStream, int* sequence);
int IMAlImageSequence(int iStream, int sequence);
// Coordinate to section number.
int IMRtSecNum2(int iStream, int iz, int iw, int it, int ip, int* sec);
int IMRtSecNum(int iStream, int iz, int iw, int it, int* sec);
// Section number to coordinate; any output may be null.
int IMRtZWTPNum(int iStream, int* iz, int* iw, int* it, int* ip, int sec);
int IMRtZWTNum(int iStream, int* iz, int* iw, int* it, int sec);
// Places the stream at the start of `line` of section `sec`.
int IMPosn(int iStream, int sec, int line);
// Places the stream at the start of the section at a coordinate.
int IMPosnZWTP(int iStream, int iz, int iw, int it, int ip);
int IMPosnZWT(int iStream, int iz, int iw, int it);

// ---------------------------------------------------------------------------
// Section pixel input and output, at the current file position.

int IMRtBytesPerPixel(int iStream, int* bytes);
// Copies the description of a pixel type code into text (strncpy).
int IMRtDataTypeDesc(int code, char* text, int maxLength);
int IMRtDataTypeMinMax(int iStream, double* min, double* max);
// One section. With conversion on (the default) the caller sees floats; the
// read buffer holds iNumX * iNumY elements of max(4, bytes per pixel).
int IMRdSec(int iStream, void* buffer);
int IMWrSec(int iStream, float const* buffer);
// `lines` lines of iNumX pixels.
int IMRdSecl(int iStream, void* buffer, int lines);
int IMWrSecl(int iStream, float const* buffer, int lines);
// One line.
int IMRdLin(int iStream, void* buffer);
int IMWrLin(int iStream, float const* buffer);
// Columns first to last of the current line; the stream then stands at the
// start of the next line.
int IMRdPal(int iStream, void* buffer, int first, int last);
// Unsupported: 904.
int IMWrPal(int iStream);
// A rectangle of the current section to or from an mx by my array.
int IMRdPas(int iStream, void* buffer, int mx, int my, int firstColumn, int lastColumn,
            int firstRow, int lastRow);
int IMWrPas(int iStream, float const* buffer, int mx, int my, int firstColumn, int lastColumn,
            int firstRow, int lastRow);

// ---------------------------------------------------------------------------
// Extended header (sizing).

// Creates an empty extended header of `type` for iNumSecs sections with
// `blocks` extra 1024-byte blocks for named fields.
int IMCrExHdr(int iStream, int type, int blocks);
// Sets the per-section shape and creates an empty extended header.
int IMAlExHdrSize2(int iStream, int ints, int floats, int sections, int blocks);

// ===========================================================================
// Attributes, header transfer, extended header records and named fields.
// Changes go to the stream record only; IMWrHdr2 carries them to the file.
// A wavelength index w starts at 0.
//
// Every function of this header also has a second name, taking scalars by
// address (imsubs/second_linkage.h); a new function needs its line in
// imsubs/second_linkage_table.h, which a test checks.

// ---------------------------------------------------------------------------
// Attribute accessors. Each checks the stream first and, when refused,
// returns the check's code and touches nothing (IMRtDel2 excepted).

int IMRtXY(int iStream, int* nx, int* ny);
int IMAlXY(int iStream, int nx, int ny);
int IMRtSiz(int iStream, int size[3], int sampling[3], int start[3]);
int IMAlSiz(int iStream, int const size[3], int const start[3]);
int IMRtMst(int iStream, int start[3]);
int IMRtMap(int iStream, int map[3]);
int IMAlMap(int iStream, int const map[3]);
int IMRtDel(int iStream, float pixelSize[3]);
// Outputs 1.0 each when the stream is refused.
int IMRtDel2(int iStream, float* dx, float* dy, float* dz);
// Sets pixel size and cell size; a size below 1e-30 gives 502 but is stored.
int IMAlDel(int iStream, float const pixelSize[3]);
int IMAlDel2(int iStream, float dx, float dy, float dz);
int IMRtCel(int iStream, float cell[6]);
int IMAlCel(int iStream, float const cell[6]);
// Copies cell size and angles from `source`; the pixel size follows the
// destination's own sampling.
int IMTrCel(int iStream, int source);
int IMRtOrig(int iStream, float* x, float* y, float* z);
int IMAlOrig(int iStream, float x, float y, float z);
int IMRtTlt(int iStream, float tilt[3]);
int IMAlTlt(int iStream, float const tilt[3]);
// Not supported: prints so and returns 0.
int IMAlTltRot(int iStream, float const tilt[3]);
int IMRtMode(int iStream, int* mode);
int IMAlMode(int iStream, int mode);
int IMRtLensID(int iStream, int* lensId);
int IMAlLensID(int iStream, int lensId);
int IMRtSpg(int iStream, int* spaceGroup, int* extHdrSize);
// A non-zero size replaces the extended header by a zeroed block.
int IMAlSpg(int iStream, int spaceGroup, int extHdrSize);
int IMRtSym(int iStream, int* bytes, void* data);
int IMAlSym(int iStream, int bytes, void const* data);

int IMRtWav(int iStream, int* nw, float* waves);
int IMAlWav(int iStream, int n, float const* waves);
int IMRtWav2(int iStream, int w, float* wave);
int IMAlWav2(int iStream, int w, float wave);
// Statistics per wavelength: w below iMaxWaves is accepted, 603 when it is
// not below iNumW (the values still move), 605 beyond.
int IMRtWavMMM(int iStream, int w, float* min, float* max, float* mean);
int IMRtWavMM(int iStream, int w, float* min, float* max);
int IMAlWavMMM(int iStream, int w, float min, float max, float mean);
int IMAlWavMM(int iStream, int w, float min, float max);
// Display scale; bad stored values fall back to min, max, 1, 0 with 812.
int IMRtScl(int iStream, int w, float scale[4]);
int IMRtScl2(int iStream, int w, float* a, float* b, float* c, float* d);
int IMAlScl(int iStream, int w, float const scale[4]);
int IMAlScl2(int iStream, int w, float a, float b, float c, float d);

int IMRtLab(int iStream, char titles[][80], int* count);
int IMRtLab2(int iStream, char titles[][80], int first, int count);
int IMAlLab(int iStream, char const titles[][80], int count);
int IMAlLab2(int iStream, char const titles[][80], int first, int count);
int IMRtMaxNumLab(int iStream, int* max);
int IMRtNumLab(int iStream, int* count);
int IMAlNumLab(int iStream, int count);
int IMTrLab(int iStream, int source);

int IMRtFileType(int iStream, int* type);
int IMAlFileType(int iStream, int type);
int IMRtFileID(int iStream, int* id, int* swapped);
int IMRtDat(int iStream, int* type, int* lensId, int* value1, int* value2, float* value3,
            float* value4);
int IMAlDat(int iStream, int type, int lensId, int value1, int value2, float value3, float value4);
int IMRtTimeStamp(int iStream, double* time);
int IMAlTimeStamp(int iStream, double time);
int IMRtDataBitsPerPixel(int iStream, int* bits);
int IMAlDataBitsPerPixel(int iStream, int bits);
// Counts and sequence, with iNumSecs the product; no checks.
int IMAlZWTP(int iStream, int nz, int nw, int nt, int np, int sequence);
int IMAlZWT(int iStream, int nz, int nw, int nt, int sequence);
int IMAlZWT2(int iStream, int nz, int nw, int nt);
int IMAlZWTP2(int iStream, int nz, int nw, int nt, int np);
int IMRtCon(int iStream, int* flag);
int IMAlCon(int iStream, int flag);
int IMAlDis2(int iStream, int flag);
// Sets the display flag of the library and of every open stream.
int IMAlDis(int iWinDisplayFlag);
// Window number of a window stream; 0 for files, -1 for a negative number.
int IMRtWID(int iStream);

// ---------------------------------------------------------------------------
// Whole-header calls.

// Encodes the record and copies the 1024-byte header image to `header`.
int IMRtHdr(int iStream, void* header);
int IMGetHdr(int iStream, void* header);
// Takes a 1024-byte header image (either byte order) and decodes it.
int IMAlHdr(int iStream, void const* header);
int IMPutHdr(int iStream, void const* header);
// IMRdHdr2, then the classic summary: X, Y, all sections; sampling; pixel
// type; the statistics of wavelength 0.
int IMRdHdr(int iStream, int size[3], int sampling[3], int* mode, float* min, float* max,
            float* mean);
// Sets titles by titleMode (0 replace, 1 or 2 append), the statistics of
// wavelength 0, and writes header and extended header.
void IMWrHdr(int iStream, char const* title, int titleMode, float min, float max, float mean);
// The older creator: one wavelength, one time point, no extended header.
int IMCrHdr(int iStream, int const size[3], int const sampling[3], int mode,
            char const titles[][80], int count);
// Copies the header and the extended header of `source` to iStream.
int IMTrHdr(int iStream, int source);
// Prints a summary of the stream on the standard output.
int IMReportInfo(int iStream);
// Minimum, maximum and mean over an inclusive rectangle of a row-major
// image of row length `width`. Takes no stream.
int IMCalcDen(float const* image, int width, int height, int firstColumn, int lastColumn,
              int firstRow, int lastRow, float* min, float* max, float* mean);

// Unsupported calls, kept so that callers link.
int IMInterp();
int IMClLim(int iStream);
int IMRtExt(int iStream);

// ---------------------------------------------------------------------------
// Extended header: shape, records and values. `ints` and `floats` are sized
// by the caller for one whole record.

// The type; a stored 0 is judged from the record shape for image types 0,
// 1, 3 and 100.
int IMRtExHdrType(int iStream, int* type);
int IMRtExHdrInfo(int iStream, int* type, int* size, int* ints, int* floats);
// 704 and zero counts when the block is 3 bytes or less.
int IMRtExHdrSize(int iStream, int* ints, int* floats);
// Sets type and shape; with `allocate`, a zeroed block for `sections`.
int IMAlExHdrType(int iStream, int type, int allocate, int sections);
// IMAlExHdrSize2 with one block of room for named fields.
int IMAlExHdrSize(int iStream, int ints, int floats, int sections);
// Sets type, size and counts as given; a non-zero size replaces the block.
int IMAlExHdrInfo(int iStream, int type, int size, int ints, int floats);
// One section's record by coordinate; these two require an open stream.
int IMRtExHdrZWTP(int iStream, int iz, int iw, int it, int ip, int* ints, float* floats);
int IMAlExHdrZWTP(int iStream, int iz, int iw, int it, int ip, int const* ints,
                  float const* floats);
int IMRtExHdrZWT(int iStream, int iz, int iw, int it, int* ints, float* floats);
int IMAlExHdrZWT(int iStream, int iz, int iw, int it, int const* ints, float const* floats);
// The same by section number.
int IMRtExHdr(int iStream, int sec, int* ints, float* floats);
int IMAlExHdr(int iStream, int sec, int const* ints, float const* floats);
// One value of a record by value number (see the value table of the type).
int IMRtExHdrValueZWTP(int iStream, int iz, int iw, int it, int ip, int valueId, double* value);
int IMAlExHdrValueZWTP(int iStream, int iz, int iw, int it, int ip, int valueId, double value);
int IMRtExHdrValueZWT(int iStream, int iz, int iw, int it, int valueId, double* value);
int IMAlExHdrValueZWT(int iStream, int iz, int iw, int it, int valueId, double value);
// Copies one record, or the records of a sub-stack and the named fields,
// from stream `src` to stream `dst`.
int IMTrExHdr(int dst, int src, int dstSection, int srcSection);
int IMTrExHdr4(int dst, int src, int zFirst, int zLast, int zStep, int const* waveFlags,
               int numWaves, int tFirst, int tLast, int tStep, int pFirst, int pLast);
int IMTrExHdr3(int dst, int src, int zFirst, int zLast, int zStep, int const* waveFlags,
               int numWaves, int tFirst, int tLast, int tStep);
int IMTrExHdr2(int dst, int src, int zFirst, int zLast, int zStep, int const* waveFlags,
               int tFirst, int tLast, int tStep);

// ---------------------------------------------------------------------------
// Named fields: a small dictionary kept as text behind the records. Names
// have at most 63 characters and are matched ignoring case on lookup. Memory
// handed out by the get calls belongs to the caller, who releases it with
// IMFreeFieldContentsPtr.

// Bytes the field section may take (recomputed), and what is left of them.
int IMRtFieldHdrSizeMax(int iStream);
int IMRtFieldHdrSpace(int iStream);
// A NUL-ended copy of the field section's text up to its terminator.
int IMRtFieldHdr(int iStream, char** text, int* size);
int IMRtNumFields(int iStream);
int IMFindFieldNum(int iStream, char const* name, int* index);
// Re-reads the field section first, forgetting unwritten stores.
int IMRtField(int iStream, char const* name, char** value, char* type, int* size);
int IMRtFieldNum(int iStream, int index, char** name, char* type, int* size, char** value);
int IMRtFieldBinary(int iStream, char const* name, char** data, int* size);
int IMRtFieldChar(int iStream, char const* name, char** text);
int IMRtFieldDouble(int iStream, char const* name, double* value);
int IMRtFieldFloat(int iStream, char const* name, float* value);
int IMRtFieldInt(int iStream, char const* name, int* value);
// Stores a field of type 'b', 'c', 'd', 'f' or 'i'; `size` counts for 'b'.
int IMAlField(int iStream, char const* name, void const* value, char type, int size);
int IMAlFieldBinary(int iStream, char const* name, void const* data, int size);
int IMAlFieldChar(int iStream, char const* name, char const* text);
int IMAlFieldInt(int iStream, char const* name, int value);
int IMAlFieldDouble(int iStream, char const* name, double value);
int IMAlFieldFloat(int iStream, char const* name, float value);
int IMFreeFieldContentsPtr(void* pointer);
