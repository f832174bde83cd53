// Owned property sets and their file form, used for profile sections.
//
// File form (all integers little-endian):
//   "ADPS" magic, u32 version (1), u32 count, then `count` values, then u32 FNV-1a of all bytes
//   before it. A value is u32 tag followed by its data:
//     PT_I2, PT_BOOLEAN: u16       PT_LONG, PT_R4, PT_ERROR: u32
//     PT_DOUBLE, PT_APPTIME, PT_CURRENCY, PT_SYSTIME, PT_I8: u64       PT_CLSID: 16 bytes
//     PT_STRING8: u32 length + bytes     PT_UNICODE: u32 units + UTF-16LE units
//     PT_BINARY: u32 length + bytes      PT_NULL: nothing
//     PT_MV_x: u32 count + that many single values of type x
// Anything that does not parse exactly (short, long, bad checksum, unknown type) is corrupt.
#pragma once
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "mapidefs.h"

namespace adm {

struct MapiFree {
  void operator()(void* p) const;
};
template <class T>
using MapiPtr = std::unique_ptr<T, MapiFree>;

// True for the types a profile section can hold.
bool IsStorableType(ULONG ulPropType);

// Property values by property ID; each value is its own MAPI allocation.
class PropSet {
 public:
  // Copies the value in (replacing one of the same ID). MAPI_E_INVALID_TYPE for a type that
  // cannot be stored, MAPI_E_NOT_ENOUGH_MEMORY.
  HRESULT Set(const SPropValue& value);
  // The value whose ID matches, or null. With a type in `ulPropTag` (not PT_UNSPECIFIED) the
  // types must match too.
  const SPropValue* Find(ULONG ulPropTag) const;
  bool Erase(ULONG ulPropTag);
  std::vector<ULONG> Tags() const;
  size_t Size() const { return m_values.size(); }

  std::string Encode() const;
  // MAPI_E_CORRUPT_DATA when `bytes` is not a whole, valid property file.
  static HRESULT Decode(const std::string& bytes, PropSet& out);

 private:
  std::map<ULONG, MapiPtr<SPropValue>> m_values;  // by property ID
};

// Small helpers for building values.
SPropValue StringProp(ULONG ulPropTag, const char* text);
SPropValue LongProp(ULONG ulPropTag, ULONG value);
SPropValue BinaryProp(ULONG ulPropTag, const void* data, ULONG cb);
// The text of a PT_STRING8 or PT_UNICODE value as UTF-8; "" for other types or null.
std::string PropText(const SPropValue* value);

}  // namespace adm
