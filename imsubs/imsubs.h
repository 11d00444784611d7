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
