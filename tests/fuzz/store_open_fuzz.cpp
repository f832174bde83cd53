// The input is a store file: open it, load the index, read every field of every record and decode
// what the fields hold through the engine; then run the inspection tool's checker and dump over it.
#include <mapix.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "StoreModel.h"
#include "StoreReport.h"
#include "ZT4DBFile.h"
#include "ZT4NameProp.h"
#include "ZT4PropList.h"
#include "fuzz_common.h"

namespace {

void ReadField(IStream* pStream, ULONG rf, DWORD dwID) {
  BYTE buf[4096];
  ULONG cbRead = 0;
  while (SUCCEEDED(pStream->Read(buf, sizeof(buf), &cbRead)) && cbRead) {
  }
  LARGE_INTEGER liZero = {};
  pStream->Seek(liZero, STREAM_SEEK_SET, NULL);
  if (rf == RECFLD_PROPERTIES && dwID == 0xFFFFFFFC) {
    CNamePropMgr names(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
    names.LoadMappingFromStream(pStream);
  } else if (rf == RECFLD_PROPERTIES) {
    CPropList list;
    list.LoadFromStream(pStream);
  } else if (rf != RECFLD_NAMES) {
    CIDList ids;
    ids.LoadFromStream(pStream);
  }
}

void RunEngine(const std::string& path, const storetool::StoreModel& model) {
  CDataBase* pDB = NULL;
  MAPIUID uid = {};
  if (FAILED(CommonOpenFile(path.c_str(), NULL, NULL, &uid, &pDB, FALSE))) return;
  ULONG cStreams = 0;
  if (SUCCEEDED(pDB->LoadIndexNodes())) {
    for (const storetool::RecordModel& r : model.records) {
      for (ULONG rf = 0; rf < RECFLD_COUNT; ++rf) {
        IStream* pStream = NULL;
        if (FAILED(pDB->OpenRecordField(r.dwID, FALSE, static_cast<RECFLD>(rf), &pStream))) continue;
        ++cStreams;  // each stream keeps a reference on the database for good
        ReadField(pStream, rf, r.dwID);
        pStream->Release();
      }
    }
  }
  // The last reference runs the destructor, which saves index and pool if they changed.
  for (; cStreams; --cStreams) pDB->Release();
  pDB->Release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  adfuzz::SetUpProcess();
  const std::string path = adfuzz::ScratchDir() + "/input.CST";
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return 0;
  fwrite(data, 1, size, f);
  fclose(f);

  storetool::StoreModel model;
  std::string error;
  if (storetool::AnalyzeStore(path, &model, &error)) {
    storetool::BuildDump(model).ToJson();
    storetool::CheckText(model);
  }
  RunEngine(path, model);
  return 0;
}
