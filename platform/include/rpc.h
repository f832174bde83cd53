// The RPC runtime as this system uses it: UUID conversions.
#pragma once
#include "rpcdce.h"
