// Parameter validation for MAPI methods. The stand-in's implementations validate their own
// arguments, so the validation hooks a provider may call expand to nothing here.
#pragma once
#include "mapiutil.h"

#define ValidateParameters(eMethod, First)
#define UlValidateParameters(eMethod, First)
#define CheckParameters(eMethod, First)
#define ValidateParm(eMethod, First)
#define UlValidateParm(eMethod, First)
#define CheckParms(eMethod, First)
