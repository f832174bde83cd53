// The input is a stored stream: load it as a property list (and save and load that again), as an
// ID list and as a named-property map; the inspection tool's decoders read the same bytes.
#include <mapix.h>
#include <objbase.h>

#include <cstdint>
#include <vector>

#include "StoreDecode.h"
#include "ZT4NameProp.h"
#include "ZT4PropList.h"
#include "fuzz_common.h"

namespace {

IStream* StreamOf(const uint8_t* data, size_t size) {
  IStream* pStream = NULL;
  if (FAILED(CreateStreamOnHGlobal(NULL, TRUE, &pStream))) return NULL;
  pStream->Write(data, static_cast<ULONG>(size), NULL);
  LARGE_INTEGER liZero = {};
  pStream->Seek(liZero, STREAM_SEEK_SET, NULL);
  return pStream;
}

void Rewind(IStream* pStream) {
  LARGE_INTEGER liZero = {};
  pStream->Seek(liZero, STREAM_SEEK_SET, NULL);
}

void LoadPropList(IStream* pStream) {
  CPropList list;
  if (FAILED(list.LoadFromStream(pStream))) return;
  for (const PROPNODE* pNode = list.GetFirstNode(); pNode; pNode = list.GetNextNode()) {
    SPropValue value;
    list.Find(pNode->ulPropTag, &value);
  }
  LPSPropValue pProps = NULL;
  ULONG cValues = 0;
  if (SUCCEEDED(list.GetAllProps(&pProps, &cValues))) MAPIFreeBuffer(pProps);
  IStream* pCopy = StreamOf(NULL, 0);
  if (!pCopy) return;
  if (SUCCEEDED(list.SaveToStream(pCopy))) {
    Rewind(pCopy);
    CPropList again;
    again.LoadFromStream(pCopy);
  }
  pCopy->Release();
}

void LoadNamedProps(IStream* pStream) {
  CNamePropMgr names(MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer);
  if (FAILED(names.LoadMappingFromStream(pStream))) return;
  LPSPropTagArray pTags = NULL;
  LPMAPINAMEID* ppNames = NULL;
  ULONG cNames = 0;
  if (SUCCEEDED(names.GetAllNamesAndTags(&pTags, &ppNames, 0, &cNames))) {
    MAPIFreeBuffer(pTags);
    MAPIFreeBuffer(ppNames);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  adfuzz::SetUpProcess();
  if (size > (1u << 20)) return 0;
  IStream* pStream = StreamOf(data, size);
  if (!pStream) return 0;
  LoadPropList(pStream);
  Rewind(pStream);
  CIDList ids;
  ids.LoadFromStream(pStream);
  Rewind(pStream);
  LoadNamedProps(pStream);
  pStream->Release();

  storetool::Bytes bytes(data, data + size);
  storetool::DecodePropList(bytes).doc.ToJson();
  storetool::DecodeIDList(bytes);
  storetool::DecodeSubfolderNames(bytes);
  storetool::DecodeNamedProps(bytes).doc.ToText();
  storetool::DecodeReceiveFolders(bytes);
  return 0;
}
