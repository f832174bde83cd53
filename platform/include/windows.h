// The Win32 API as this system uses it, over POSIX. Each family lives in the header that carries
// its published name; this header brings them all, as <windows.h> does.
#pragma once
#include <cstring>
#include <cwchar>
#include "winnt.h"
#include "winerror.h"
#include "guiddef.h"
#include "errhandlingapi.h"
#include "handleapi.h"
#include "synchapi.h"
#include "processthreadsapi.h"
#include "processenv.h"
#include "securitybaseapi.h"
#include "threadpoollegacyapiset.h"
#include "sysinfoapi.h"
#include "timezoneapi.h"
#include "fileapi.h"
#include "heapapi.h"
#include "libloaderapi.h"
#include "winreg.h"
#include "winbase.h"
#include "stringapiset.h"
#include "winnls.h"
#include "winuser.h"
#include "consoleapi.h"
#include "debugapi.h"
#include "crtcompat.h"
