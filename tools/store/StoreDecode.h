// Decoders of what the fields of a record hold: the stored property list, ID lists, subfolder
// names, the named-property map and the receive-folder entries. Each reads only the bytes it is
// given and says where the bytes stop making sense.
#pragma once
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <windows.h>

#include "StoreDoc.h"

namespace storetool {

struct Decoded {
  Doc doc;
  std::string error;  // empty when the bytes decode whole
  std::string note;   // a deliberate oddity of the format met on the way
};

typedef std::vector<uint8_t> Bytes;

// pLargeRecords, when given, receives the record IDs that PT_LARGE_STUB values name.
Decoded DecodePropList(const Bytes& data, std::set<DWORD>* pLargeRecords = nullptr);
// pIDs, when given, receives the IDs.
Decoded DecodeIDList(const Bytes& data, std::vector<DWORD>* pIDs = nullptr);
Decoded DecodeSubfolderNames(const Bytes& data);
Decoded DecodeNamedProps(const Bytes& data);
// Reads as the provider's own table reader does: when that runs off the format behind the
// first entry (what a second class written behind the first name gives), note says so.
Decoded DecodeReceiveFolders(const Bytes& data);
// Size and a hex preview of the first bytes.
Doc RawPreview(const Bytes& data, size_t cbPreview = 64);

std::string PropTypeName(ULONG ulType);
std::string GuidText(const uint8_t* p);

}  // namespace storetool
