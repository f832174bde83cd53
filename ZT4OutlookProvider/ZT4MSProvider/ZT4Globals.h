// Process-wide objects of the provider: for now the data provider.
#pragma once
#include <windows.h>

#include "archive/ZT4DataProvider.h"

// The one data provider object of the process, created on first use; NULL while it can't be
// created (the next call tries again). No reference is added: a caller that keeps the pointer
// across a call takes its own.
IZT4DataProvider* GetDataProvider();
