// Helpers shared by the administration objects: MAPIERROR results, property-array results in
// MAPI memory, and snapshot tables.
#pragma once
#include <deque>
#include <string>
#include <vector>

#include "mapidefs.h"

namespace adm {

// A MAPIERROR in one MAPI allocation; strings wide when ulFlags has MAPI_UNICODE.
// MAPI_E_INVALID_PARAMETER for a null out pointer, MAPI_E_UNKNOWN_FLAGS for other flags.
HRESULT BuildMapiError(ULONG ulFlags, const std::string& text, const std::string& component, LPMAPIERROR* lppMAPIError);

// Copies `value` into dst, its data chained to `root`; string values change width when
// `targetType` is the other string type (PT_STRING8 <-> PT_UNICODE, single or multi-valued).
HRESULT CopyPropConverted(const SPropValue& value, ULONG targetType, LPVOID root, SPropValue* dst);

// One row of a table under construction; texts are kept alive here until the row is copied in.
class RowBuilder {
 public:
  explicit RowBuilder(bool unicode) : m_unicode(unicode) {}
  // Values point into the texts: a copy would point into the original, a move keeps them.
  RowBuilder(const RowBuilder&) = delete;
  RowBuilder& operator=(const RowBuilder&) = delete;
  RowBuilder(RowBuilder&&) = default;
  RowBuilder& operator=(RowBuilder&&) = default;
  // A PT_STRING8 tag; added as PT_UNICODE when the row is built for MAPI_UNICODE.
  void Text(ULONG ulPropTag, const std::string& text);
  void Long(ULONG ulPropTag, ULONG value);
  void Bool(ULONG ulPropTag, bool value);
  void Binary(ULONG ulPropTag, const void* data, ULONG cb);
  std::vector<SPropValue>& Values() { return m_values; }

 private:
  bool m_unicode;
  std::vector<SPropValue> m_values;
  std::deque<std::string> m_bytes;
  std::deque<std::u16string> m_wide;
};

// The string tags of `columns` take PT_UNICODE when `unicode`.
std::vector<ULONG> TableColumns(std::vector<ULONG> columns, bool unicode);

// A snapshot table (index column PR_INSTANCE_KEY, which each row must carry) as an IMAPITable view.
HRESULT BuildTable(const std::vector<ULONG>& columns, std::vector<RowBuilder>& rows, LPMAPITABLE* lppTable);

}  // namespace adm
