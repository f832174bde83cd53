// C runtime directory calls. Paths may use '\' and a drive prefix, as for the Win32 file calls.
#pragma once
#include "winnt.h"

extern "C" {

// 0, or -1 with errno EEXIST (already there) or ENOENT (a parent folder is missing).
int _mkdir(const char* dirname);
// 0, or -1 with errno ENOTEMPTY, ENOENT, ENOTDIR, EACCES.
int _rmdir(const char* dirname);

}  // extern "C"
