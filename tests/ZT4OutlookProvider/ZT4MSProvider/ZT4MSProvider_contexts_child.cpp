// Second process of the provider's integration tests. Inherits the test's state directory.
//
//   install                    MergeWithMAPISVC(NULL, &f, 0) of the provider module; exit 10 when
//                              the file changed, 11 when not, 2 on failure
//   spooler PROFILE CLASS_IN CLASS_OUT [FOLDER]
//                              logs on as the spooler, waits for CLASS_IN to reach its receive-folder
//                              table (sent by the client), sets CLASS_OUT on the same folder, and
//                              stays until the client says it is done. With FOLDER: that server
//                              folder must be in this process's IPM subtree.
// Exit codes of "spooler": 0 ok, 3 logon failed, 4 CLASS_IN never arrived, 5 SetReceiveFolder
// failed, 6 FOLDER missing, 7 the client never finished, 2 usage.
#include <cstdio>
#include <cstring>
#include <string>

#include <mapicode.h>
#include <mapidefs.h>
#include <mapitags.h>
#include <mapiutil.h>
#include <mapix.h>
#include <windows.h>

#include "provider_session.h"
#include "session.h"

using namespace zt4it;

namespace {

using MergeFn = HRESULT(STDAPICALLTYPE*)(LPCWSTR, LPBOOL, ULONG);

int Install() {
  if (MAPIInitialize(nullptr) != S_OK) return 2;
  int rc = 2;
  if (HMODULE module = LoadLibraryA(adtest::BinPath(kProviderModule).c_str())) {
    if (auto merge = reinterpret_cast<MergeFn>(GetProcAddress(module, "MergeWithMAPISVC"))) {
      BOOL fChanged = FALSE;
      HRESULT hr = merge(nullptr, &fChanged, 0);
      if (hr == S_OK) rc = fChanged ? kInstallChanged : kInstallUnchanged;
      else std::fprintf(stderr, "MergeWithMAPISVC: %08x\n", static_cast<unsigned>(hr));
    }
  }
  MAPIUninitialize();
  return rc;
}

// The PR_ENTRYID of the first row whose message class is `cls`; empty when none.
std::vector<BYTE> RowFor(LPMAPITABLE table, const std::string& cls) {
  table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr);
  Rows rows = AllRows(table);
  for (ULONG i = 0; i < rows.Count(); ++i) {
    for (ULONG v = 0; v < rows[i].cValues; ++v) {
      const SPropValue& p = rows[i].lpProps[v];
      if ((PROP_TYPE(p.ulPropTag) == PT_STRING8 || PROP_TYPE(p.ulPropTag) == PT_UNICODE) && NarrowProp(&p) == cls)
        return BinProp(FindProp(rows[i], PR_ENTRYID));
    }
  }
  return {};
}

bool HasServerFolder(LPMDB store, const std::string& name) {
  Ref<IMAPIFolder> root;
  ULONG type = 0;
  if (FAILED(store->OpenEntry(0, nullptr, nullptr, MAPI_BEST_ACCESS, &type, reinterpret_cast<LPUNKNOWN*>(root.Out()))))
    return false;
  Rows top = HierarchyRows(root.Get());
  for (ULONG i = 0; i < top.Count(); ++i) {
    if (NarrowProp(FindProp(top[i], PR_DISPLAY_NAME_W)) != "IPM Subtree") continue;
    std::vector<BYTE> eid = BinProp(FindProp(top[i], PR_ENTRYID));
    Ref<IMAPIFolder> subtree;
    if (FAILED(store->OpenEntry(static_cast<ULONG>(eid.size()), reinterpret_cast<LPENTRYID>(eid.data()), nullptr,
                                MAPI_BEST_ACCESS, &type, reinterpret_cast<LPUNKNOWN*>(subtree.Out()))))
      return false;
    for (const std::string& n : RowNames(HierarchyRows(subtree.Get())))
      if (n == name) return true;
  }
  return false;
}

int Spooler(const std::string& profile, const std::string& classIn, const std::string& classOut,
            const std::string& folder) {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (MAPIInitialize(nullptr) != S_OK) return 3;
  adm::SetSpoolerProcess(true);
  HANDLE ready = CreateEventA(nullptr, TRUE, FALSE, "ZT4IT.SpoolerReady");
  HANDLE done = CreateEventA(nullptr, TRUE, FALSE, "ZT4IT.ClientDone");
  int rc = 0;
  {
    Ref<IMAPISession> session;
    Ref<IMsgStore> store;
    Ref<IMAPITable> rfs;
    if (FAILED(MAPILogonEx(0, reinterpret_cast<LPTSTR>(const_cast<char*>(profile.c_str())), nullptr,
                           MAPI_EXTENDED | MAPI_NEW_SESSION, session.Out()))) {
      rc = 3;
    } else {
      Ref<IMAPITable> stores;
      session->GetMsgStoresTable(0, stores.Out());
      Rows rows = AllRows(stores.Get());
      std::vector<BYTE> eid = rows.Count() ? BinProp(FindProp(rows[0], PR_ENTRYID)) : std::vector<BYTE>();
      HRESULT hr = eid.empty() ? MAPI_E_NOT_FOUND
                               : session->OpenMsgStore(0, static_cast<ULONG>(eid.size()),
                                                       reinterpret_cast<LPENTRYID>(eid.data()), nullptr,
                                                       MDB_WRITE | MDB_NO_DIALOG, store.Out());
      if (FAILED(hr) || FAILED(store->GetReceiveFolderTable(0, rfs.Out()))) {
        std::fprintf(stderr, "spooler logon: %08x\n", static_cast<unsigned>(hr));
        rc = 3;
      }
    }
    if (rc == 0 && !folder.empty() && !HasServerFolder(store.Get(), folder)) rc = 6;
    SetEvent(ready);
    std::vector<BYTE> target;
    if (rc == 0 && !WaitUntil([&] { return !(target = RowFor(rfs.Get(), classIn)).empty(); })) rc = 4;
    if (rc == 0 && target.size() != CB_EID) rc = 4;
    if (rc == 0 && FAILED(store->SetReceiveFolder(reinterpret_cast<LPTSTR>(const_cast<char*>(classOut.c_str())), 0,
                                                 CB_EID, reinterpret_cast<LPENTRYID>(target.data()))))
      rc = 5;
    // Both contexts stay alive until the client has seen the answer.
    if (rc == 0 && WaitForSingleObject(done, 60000) != WAIT_OBJECT_0) rc = 7;
  }
  if (rc != 0) SetEvent(ready);
  CloseHandle(ready);
  CloseHandle(done);
  MAPIUninitialize();
  CoUninitialize();
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "install") == 0) return Install();
  if ((argc == 5 || argc == 6) && std::strcmp(argv[1], "spooler") == 0)
    return Spooler(argv[2], argv[3], argv[4], argc == 6 ? argv[5] : "");
  std::fprintf(stderr, "usage: ZT4MSProvider_contexts_child install | spooler PROFILE CLASS_IN CLASS_OUT [FOLDER]\n");
  return 2;
}
