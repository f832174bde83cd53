// Second process on one store file: makes a record of its own and reports its ID.
//   ZT4DBFile_child STORE PARENT_ID REPORT
// Exit 0 when the parent's record is invisible here and the own record reads back.
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <string>

#include "MemHeap.h"
#include "ZT4DBFile.h"

namespace {

int Run(const char* szStore, DWORD dwParentID, const char* szReport) {
  MAPIUID uid = {};
  CDataBase* pDB = NULL;
  if (FAILED(CommonOpenFile(szStore, NULL, NULL, &uid, &pDB, FALSE))) return 2;
  DWORD id = 0;
  IStream* pStream = NULL;
  if (FAILED(pDB->CreateRecord(&id, &pStream))) return 3;
  ULONG cb = 0;
  pStream->Write("child", 5, &cb);
  pStream->Release();
  if (pDB->OpenRecordField(dwParentID, FALSE, RECFLD_PROPERTIES, &pStream) != MAPI_E_NOT_FOUND) return 4;
  if (FAILED(pDB->OpenRecordField(id, FALSE, RECFLD_PROPERTIES, &pStream))) return 5;
  char buf[16] = {};
  pStream->Read(buf, sizeof(buf), &cb);
  pStream->Release();
  if (std::string(buf, cb) != "child") return 6;
  std::ofstream(szReport) << id << "\n";
  // Ends as a provider's process does: the database is never released.
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 1;
  static int s_module;
  if (!ZT4ProcessAttach(reinterpret_cast<HINSTANCE>(&s_module))) return 1;
  return Run(argv[1], static_cast<DWORD>(strtoul(argv[2], NULL, 10)), argv[3]);
}
