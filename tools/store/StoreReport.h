// The two reports of the inspection tool, built from an analysed store file.
#pragma once
#include "StoreDoc.h"
#include "StoreModel.h"

namespace storetool {

// Everything on disk: headers, pool, index, records with their chains and decoded contents.
Doc BuildDump(const StoreModel& model);
// The findings with their severities and a verdict.
Doc BuildCheck(const StoreModel& model);
// The check as lines for people.
std::string CheckText(const StoreModel& model);

}  // namespace storetool
