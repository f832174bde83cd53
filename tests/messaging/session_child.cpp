// Helper for the session tests' second process. "notify": logs on to the default profile, opens
// its default store and sends one new-mail notification through the store's support object.
// Exit status 0 on success.
#include <cstring>
#include <string>

#include "mapidefs.h"
#include "mapix.h"
#include "mapiutil.h"

namespace {

int Notify() {
  LPMAPISESSION session = nullptr;
  if (MAPILogonEx(0, nullptr, nullptr, MAPI_EXTENDED | MAPI_NEW_SESSION, &session) != S_OK) return 2;
  LPMAPITABLE table = nullptr;
  LPSRowSet rows = nullptr;
  int rc = 3;
  if (session->GetMsgStoresTable(0, &table) == S_OK &&
      HrQueryAllRows(table, nullptr, nullptr, nullptr, 0, &rows) == S_OK && rows->cRows) {
    const SPropValue* eid = PpropFindProp(rows->aRow[0].lpProps, rows->aRow[0].cValues, PR_ENTRYID);
    LPMDB store = nullptr;
    if (eid && session->OpenMsgStore(0, eid->Value.bin.cb, reinterpret_cast<LPENTRYID>(eid->Value.bin.lpb), nullptr,
                                     MDB_NO_DIALOG, &store) == S_OK) {
      BYTE id[4] = {1, 2, 3, 4};
      NOTIFICATION n{};
      n.ulEventType = fnevNewMail;
      n.info.newmail.cbEntryID = sizeof id;
      n.info.newmail.lpEntryID = reinterpret_cast<LPENTRYID>(id);
      n.info.newmail.cbParentID = sizeof id;
      n.info.newmail.lpParentID = reinterpret_cast<LPENTRYID>(id);
      n.info.newmail.lpszMessageClass = const_cast<LPTSTR>("IPM.Note");
      rc = store->NotifyNewMail(&n) == S_OK ? 0 : 4;
      store->Release();
    }
  }
  if (rows) FreeProws(rows);
  if (table) table->Release();
  session->Logoff(0, 0, 0);
  session->Release();
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  if (MAPIInitialize(nullptr) != S_OK) return 1;
  int rc = argc > 1 && std::strcmp(argv[1], "notify") == 0 ? Notify() : 1;
  MAPIUninitialize();
  return rc;
}
