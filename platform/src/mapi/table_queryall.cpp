// HrQueryAllRows: every row of any IMAPITable, through its published methods only, so that it
// serves the platform's views and a provider's own tables alike.
#include <vector>

#include "mapicode.h"
#include "mapiutil.h"

namespace {

// Rows per QueryRows call. Not INT_MAX: some tables answer that count with no rows at all.
constexpr LONG kBatchRows = 1024;

// Rows taken over from the table's row sets; freed unless handed on.
class CollectedRows {
 public:
  CollectedRows() = default;
  ~CollectedRows() {
    for (SRow& row : m_rows) MAPIFreeBuffer(row.lpProps);
  }
  CollectedRows(const CollectedRows&) = delete;
  CollectedRows& operator=(const CollectedRows&) = delete;

  // Takes the rows of a set and frees the set itself.
  void TakeFrom(LPSRowSet set) {
    try {
      m_rows.insert(m_rows.end(), set->aRow, set->aRow + set->cRows);
    } catch (...) {
      FreeProws(set);
      throw;
    }
    MAPIFreeBuffer(set);
  }
  size_t Count() const { return m_rows.size(); }

  HRESULT Hand(LPSRowSet* lppRows) {
    void* block = nullptr;
    if (SCODE sc = MAPIAllocateBuffer(ULONG(CbNewSRowSet(m_rows.size())), &block); sc != S_OK) return sc;
    auto* set = static_cast<SRowSet*>(block);
    set->cRows = ULONG(m_rows.size());
    for (size_t i = 0; i < m_rows.size(); ++i) set->aRow[i] = m_rows[i];
    m_rows.clear();
    *lppRows = set;
    return S_OK;
  }

 private:
  std::vector<SRow> m_rows;
};

HRESULT Prepare(LPMAPITABLE lpTable, LPSPropTagArray lpPropTags, LPSRestriction lpRestriction,
                LPSSortOrderSet lpSortOrderSet) {
  HRESULT hr = S_OK;
  if (lpPropTags && FAILED(hr = lpTable->SetColumns(lpPropTags, TBL_BATCH))) return hr;
  if (lpRestriction && FAILED(hr = lpTable->Restrict(lpRestriction, TBL_BATCH))) return hr;
  if (lpSortOrderSet && FAILED(hr = lpTable->SortTable(lpSortOrderSet, TBL_BATCH))) return hr;
  hr = lpTable->SeekRow(BOOKMARK_BEGINNING, 0, nullptr);
  return FAILED(hr) ? hr : S_OK;
}

HRESULT ReadAll(LPMAPITABLE lpTable, ULONG crowsMax, LPSRowSet* lppRows) {
  if (crowsMax != 0) {
    ULONG count = 0;
    if (HRESULT hr = lpTable->GetRowCount(0, &count); FAILED(hr)) return hr;
    if (count > crowsMax) return MAPI_E_TABLE_TOO_BIG;
  }
  CollectedRows rows;
  for (;;) {
    LPSRowSet batch = nullptr;
    if (HRESULT hr = lpTable->QueryRows(kBatchRows, 0, &batch); FAILED(hr)) return hr;
    if (!batch) return MAPI_E_CALL_FAILED;
    bool done = batch->cRows == 0;
    rows.TakeFrom(batch);
    if (done) break;
    // The table may grow while it is read.
    if (crowsMax != 0 && rows.Count() > crowsMax) return MAPI_E_TABLE_TOO_BIG;
  }
  return rows.Hand(lppRows);
}

}  // namespace

extern "C" HRESULT STDAPICALLTYPE HrQueryAllRows(LPMAPITABLE lpTable, LPSPropTagArray lpPropTags,
                                                 LPSRestriction lpRestriction, LPSSortOrderSet lpSortOrderSet,
                                                 LONG crowsMax, LPSRowSet* lppRows) {
  if (!lppRows) return MAPI_E_INVALID_PARAMETER;
  *lppRows = nullptr;
  if (!lpTable || crowsMax < 0) return MAPI_E_INVALID_PARAMETER;
  try {
    if (HRESULT hr = Prepare(lpTable, lpPropTags, lpRestriction, lpSortOrderSet); hr != S_OK) return hr;
    return ReadAll(lpTable, ULONG(crowsMax), lppRows);
  } catch (...) {
    return MAPI_E_NOT_ENOUGH_MEMORY;
  }
}
