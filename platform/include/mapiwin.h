// Portability layer that MAPI headers assume beneath them: the Win32 base types and calling
// conventions. On this platform they come from the Win32 stand-in.
#pragma once
#include "winnt.h"
#include "winerror.h"
