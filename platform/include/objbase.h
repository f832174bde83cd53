// COM base: the runtime, structured storage interfaces, UUID text and automation types.
#pragma once
#include "combaseapi.h"
#include "objidl.h"
#include "oleauto.h"
#include "rpcdce.h"
#include "unknwn.h"
#include "winbase_global.h"
#include "wtypes.h"

extern "C" HRESULT CoInitialize(LPVOID pvReserved);
