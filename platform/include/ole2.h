// COM and OLE automation together, as ole2.h brings them.
#pragma once
#include "objbase.h"
#include "oleauto.h"
