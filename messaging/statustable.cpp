// The session's status table (see statustable.h).
#include "statustable.h"

#include <cstring>
#include <vector>

#include "mapicode.h"
#include "mapiguid.h"
#include "mapispi.h"
#include "mapitags.h"
#include "mapix.h"
#include "propfile.h"

namespace adm {
namespace {

SizedSPropTagArray(14, kColumns) = {
    14,
    {PR_INSTANCE_KEY, PR_ROWID, PR_OBJECT_TYPE, PR_DISPLAY_NAME_A, PR_PROVIDER_DISPLAY_A, PR_PROVIDER_DLL_NAME_A,
     PR_RESOURCE_TYPE, PR_RESOURCE_FLAGS, PR_RESOURCE_METHODS, PR_STATUS_CODE, PR_STATUS_STRING_A,
     PR_IDENTITY_DISPLAY_A, PR_IDENTITY_ENTRYID, PR_IDENTITY_SEARCH_KEY}};

// Values of `row` by property ID; a later value replaces an earlier one of the same ID.
void Put(std::vector<SPropValue>& row, const SPropValue& v) {
  for (auto& have : row) {
    if (PROP_ID(have.ulPropTag) == PROP_ID(v.ulPropTag)) {
      have = v;
      return;
    }
  }
  row.push_back(v);
}

bool Has(const std::vector<SPropValue>& row, ULONG tag) {
  for (const auto& v : row) {
    if (PROP_ID(v.ulPropTag) == PROP_ID(tag) && PROP_TYPE(v.ulPropTag) != PT_ERROR) return true;
  }
  return false;
}

}  // namespace

HRESULT StatusTable::Create(std::shared_ptr<StatusTable>* out) {
  if (!out) return MAPI_E_INVALID_PARAMETER;
  LPTABLEDATA data = nullptr;
  SCODE sc = CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, nullptr,
                         TBLTYPE_DYNAMIC, PR_INSTANCE_KEY, reinterpret_cast<LPSPropTagArray>(&kColumns), &data);
  if (sc != S_OK) return sc;
  out->reset(new StatusTable(data));
  return S_OK;
}

StatusTable::~StatusTable() { m_data->Release(); }

HRESULT StatusTable::ModifyRow(const StatusRowOwner& owner, ULONG cValues, const SPropValue* lpColumnVals,
                               ULONG ulFlags) {
  if (!cValues || !lpColumnVals) return MAPI_E_INVALID_PARAMETER;
  if (ulFlags & ~STATUSROW_UPDATE) return MAPI_E_UNKNOWN_FLAGS;
  std::string key(reinterpret_cast<const char*>(owner.uid.ab), sizeof owner.uid.ab);
  SPropValue index{};
  index.ulPropTag = PR_INSTANCE_KEY;
  index.Value.bin.cb = sizeof owner.uid.ab;
  index.Value.bin.lpb = const_cast<LPBYTE>(owner.uid.ab);

  std::lock_guard<std::mutex> guard(m_lock);  // lock order: status table lock, then the table data's own
  std::vector<SPropValue> row;
  LPSRow old = nullptr;
  if ((ulFlags & STATUSROW_UPDATE) && SUCCEEDED(m_data->HrQueryRow(&index, &old, nullptr)) && old) {
    row.assign(old->lpProps, old->lpProps + old->cValues);
  }
  MapiPtr<SRow> oldHolder(old);
  for (ULONG i = 0; i < cValues; ++i) Put(row, lpColumnVals[i]);

  ULONG& rowId = m_rowIds[key];
  if (!rowId) rowId = m_nextRowId++;
  SPropValue v{};
  v.ulPropTag = PR_ROWID;
  v.Value.l = rowId;
  Put(row, v);
  Put(row, index);
  v.ulPropTag = PR_OBJECT_TYPE;
  v.Value.l = MAPI_STATUS;
  Put(row, v);
  auto text = [&row](ULONG tag, const std::string& value) {
    if (Has(row, tag) || value.empty()) return;
    SPropValue t{};
    t.ulPropTag = tag;
    t.Value.lpszA = const_cast<LPSTR>(value.c_str());
    row.push_back(t);
  };
  auto number = [&row](ULONG tag, ULONG value) {
    if (Has(row, tag)) return;
    SPropValue n{};
    n.ulPropTag = tag;
    n.Value.l = value;
    row.push_back(n);
  };
  text(PR_PROVIDER_DLL_NAME_A, owner.dllName);
  text(PR_PROVIDER_DISPLAY_A, owner.displayName);
  text(PR_DISPLAY_NAME_A, owner.displayName);
  number(PR_RESOURCE_TYPE, owner.resourceType);
  number(PR_RESOURCE_FLAGS, owner.resourceFlags);
  SRow srow{0, static_cast<ULONG>(row.size()), row.data()};
  return m_data->HrModifyRow(&srow);
}

HRESULT StatusTable::RemoveRow(const MAPIUID& uid) {
  SPropValue index{};
  index.ulPropTag = PR_INSTANCE_KEY;
  index.Value.bin.cb = sizeof uid.ab;
  index.Value.bin.lpb = const_cast<LPBYTE>(uid.ab);
  std::lock_guard<std::mutex> guard(m_lock);  // lock order: status table lock, then the table data's own
  m_rowIds.erase(std::string(reinterpret_cast<const char*>(uid.ab), sizeof uid.ab));
  return m_data->HrDeleteRow(&index);
}

HRESULT StatusTable::GetView(ULONG ulFlags, LPMAPITABLE* lppTable) {
  if (!lppTable) return MAPI_E_INVALID_PARAMETER;
  *lppTable = nullptr;
  if (ulFlags & ~MAPI_UNICODE) return MAPI_E_UNKNOWN_FLAGS;
  return m_data->HrGetView(nullptr, nullptr, 0, lppTable);
}

}  // namespace adm
