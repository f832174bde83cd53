// The session's status table: one row for the subsystem (the identity), one for the spooler in a
// spooler process, and one per provider that published a row with IMAPISupport::ModifyStatusRow.
#pragma once
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "mapidefs.h"
#include "mapiutil.h"

namespace adm {

// What the table adds to a provider's row when the row does not give it.
struct StatusRowOwner {
  MAPIUID uid{};            // the row's PR_INSTANCE_KEY
  std::string dllName;      // PR_PROVIDER_DLL_NAME
  std::string displayName;  // PR_PROVIDER_DISPLAY and PR_DISPLAY_NAME
  ULONG resourceType = 0;   // PR_RESOURCE_TYPE
  ULONG resourceFlags = 0;  // PR_RESOURCE_FLAGS
};

class StatusTable {
 public:
  // MAPI_E_NOT_ENOUGH_MEMORY when the table cannot be made.
  static HRESULT Create(std::shared_ptr<StatusTable>* out);
  ~StatusTable();
  StatusTable(const StatusTable&) = delete;
  StatusTable& operator=(const StatusTable&) = delete;

  // Replaces the owner's row with `lpColumnVals` (STATUSROW_UPDATE: merges them into the row
  // already there). PR_ROWID, PR_INSTANCE_KEY and PR_OBJECT_TYPE are the table's own and are
  // always set by it. MAPI_E_INVALID_PARAMETER for no values, MAPI_E_UNKNOWN_FLAGS.
  HRESULT ModifyRow(const StatusRowOwner& owner, ULONG cValues, const SPropValue* lpColumnVals, ULONG ulFlags);
  HRESULT RemoveRow(const MAPIUID& uid);  // MAPI_E_NOT_FOUND
  // A view; views see later changes and are notified of them. Flags: MAPI_UNICODE (accepted:
  // rows keep the string types their providers gave).
  HRESULT GetView(ULONG ulFlags, LPMAPITABLE* lppTable);

 private:
  explicit StatusTable(LPTABLEDATA data) : m_data(data) {}
  std::mutex m_lock;  // leaf lock: row ids and the read-merge-write of ModifyRow
  LPTABLEDATA m_data;
  std::map<std::string, ULONG> m_rowIds;  // by instance key bytes
  ULONG m_nextRowId = 1;
};

}  // namespace adm
