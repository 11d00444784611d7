// The image stream library: numbered streams on QF image stack files.
// This is the only header that callers include.
#pragma once
