// Generic copying between MAPI objects (see propcopy.h).
#include "propcopy.h"

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "mapicode.h"
#include "mapiguid.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"
#include "adplatform.h"
#include "objidl.h"
#include "propfile.h"

#ifndef MSGFLAG_ASSOCIATED
#define MSGFLAG_ASSOCIATED ((ULONG)0x00000040)
#endif

namespace adm {
namespace {

struct Released {
  void operator()(IUnknown* p) const {
    if (p) p->Release();
  }
};
template <class T>
using ComPtr = std::unique_ptr<T, Released>;

// Properties that name or describe the source object itself: a copy gets its own.
constexpr ULONG kNeverCopied[] = {PR_ENTRYID,           PR_RECORD_KEY,      PR_INSTANCE_KEY,    PR_PARENT_ENTRYID,
                                  PR_STORE_ENTRYID,     PR_STORE_RECORD_KEY, PR_STORE_SUPPORT_MASK, PR_OBJECT_TYPE,
                                  PR_ACCESS,            PR_ACCESS_LEVEL,    PR_MAPPING_SIGNATURE, PR_ATTACH_NUM,
                                  PR_ROWID,             PR_CONTENT_COUNT,   PR_CONTENT_UNREAD,  PR_SUBFOLDERS,
                                  PR_FOLDER_TYPE,       PR_MESSAGE_SIZE,    PR_HASATTACH};

bool SameId(ULONG a, ULONG b) { return PROP_ID(a) == PROP_ID(b); }

bool InList(const SPropTagArray* list, ULONG tag) {
  if (!list) return false;
  for (ULONG i = 0; i < list->cValues; ++i) {
    if (SameId(list->aulPropTag[i], tag)) return true;
  }
  return false;
}

bool Excluded(const CopyOptions& options, const IID& iid) {
  for (ULONG i = 0; i < options.ciidExclude; ++i) {
    if (options.rgiidExclude[i] == iid) return true;
  }
  return false;
}

// The tables of a message or folder, copied row by row.
bool IsContainerTag(ULONG tag) {
  return SameId(tag, PR_MESSAGE_RECIPIENTS) || SameId(tag, PR_MESSAGE_ATTACHMENTS) ||
         SameId(tag, PR_CONTAINER_CONTENTS) || SameId(tag, PR_CONTAINER_HIERARCHY) ||
         SameId(tag, PR_FOLDER_ASSOCIATED_CONTENTS);
}

bool IsSubobjectTag(ULONG tag) { return IsContainerTag(tag) || PROP_TYPE(tag) == PT_OBJECT; }

std::vector<BYTE> TagArrayBuffer(const std::vector<ULONG>& tags) {
  std::vector<BYTE> buf(CbNewSPropTagArray(tags.size() ? tags.size() : 1));
  auto* array = reinterpret_cast<LPSPropTagArray>(buf.data());
  array->cValues = static_cast<ULONG>(tags.size());
  std::copy(tags.begin(), tags.end(), array->aulPropTag);
  return buf;
}

class Problems {
 public:
  void Add(ULONG index, ULONG tag, SCODE sc) { m_list.push_back(SPropProblem{index, tag, sc}); }
  HRESULT Hand(LPSPropProblemArray* lppProblems) {
    if (!lppProblems || m_list.empty()) return S_OK;
    void* buf = nullptr;
    if (MAPIAllocateBuffer(CbNewSPropProblemArray(m_list.size()), &buf) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
    auto* array = static_cast<LPSPropProblemArray>(buf);
    array->cProblem = static_cast<ULONG>(m_list.size());
    std::copy(m_list.begin(), m_list.end(), array->aProblem);
    *lppProblems = array;
    return S_OK;
  }

 private:
  std::vector<SPropProblem> m_list;
};

void Report(const CopyOptions& options, ULONG done, ULONG total) {
  if (options.lpProgress) options.lpProgress->Progress(done, done, total);
}

// The destination tags of named source properties (IDs 0x8000 and above), by source tag;
// properties whose name cannot be carried over map to 0.
std::vector<ULONG> MapNamedTags(LPMAPIPROP src, LPMAPIPROP dst, const std::vector<ULONG>& tags) {
  std::vector<ULONG> mapped = tags;
  std::vector<ULONG> named;
  std::vector<size_t> where;
  for (size_t i = 0; i < tags.size(); ++i) {
    if (PROP_ID(tags[i]) >= 0x8000) {
      named.push_back(tags[i]);
      where.push_back(i);
    }
  }
  if (named.empty()) return mapped;
  std::vector<BYTE> buf = TagArrayBuffer(named);
  LPSPropTagArray array = reinterpret_cast<LPSPropTagArray>(buf.data());
  ULONG cNames = 0;
  LPMAPINAMEID* names = nullptr;
  if (FAILED(src->GetNamesFromIDs(&array, nullptr, 0, &cNames, &names)) || cNames != named.size()) {
    MAPIFreeBuffer(names);
    return mapped;  // no names to go by: the IDs are taken as they are
  }
  MapiPtr<LPMAPINAMEID> namesHolder(names);
  LPSPropTagArray dstTags = nullptr;
  HRESULT hr = dst->GetIDsFromNames(cNames, names, MAPI_CREATE, &dstTags);
  MapiPtr<SPropTagArray> dstHolder(dstTags);
  for (size_t k = 0; k < named.size(); ++k) {
    ULONG id = (SUCCEEDED(hr) && dstTags && names[k]) ? PROP_ID(dstTags->aulPropTag[k]) : PROP_ID_NULL;
    mapped[where[k]] = (id == PROP_ID_NULL || id == PROP_ID_INVALID) ? 0 : PROP_TAG(PROP_TYPE(named[k]), id);
  }
  return mapped;
}

// Copies one property that the source gives only as a stream.
HRESULT CopyStreamProp(LPMAPIPROP src, ULONG srcTag, LPMAPIPROP dst, ULONG dstTag) {
  LPUNKNOWN in = nullptr, out = nullptr;
  HRESULT hr = src->OpenProperty(srcTag, &IID_IStream, STGM_READ, 0, &in);
  if (FAILED(hr)) return hr;
  ComPtr<IUnknown> inHolder(in);
  hr = dst->OpenProperty(dstTag, &IID_IStream, STGM_READWRITE | STGM_CREATE, MAPI_CREATE | MAPI_MODIFY, &out);
  if (FAILED(hr)) return hr;
  ComPtr<IUnknown> outHolder(out);
  ULARGE_INTEGER all;
  all.QuadPart = ~0ULL;
  hr = static_cast<IStream*>(in)->CopyTo(static_cast<IStream*>(out), all, nullptr, nullptr);
  if (SUCCEEDED(hr)) hr = static_cast<IStream*>(out)->Commit(0);
  return hr;
}

HRESULT QueryAll(LPMAPITABLE table, ULONG tag, LPSRowSet* rows) {
  SizedSPropTagArray(1, cols) = {1, {tag}};
  HRESULT hr = HrQueryAllRows(table, reinterpret_cast<LPSPropTagArray>(&cols), nullptr, nullptr, 0, rows);
  table->Release();
  return hr;
}

HRESULT CopyRecipients(LPMESSAGE src, LPMESSAGE dst, ULONG ulFlags) {
  LPMAPITABLE table = nullptr;
  HRESULT hr = src->GetRecipientTable(0, &table);
  if (FAILED(hr)) return hr;
  LPSRowSet rows = nullptr;
  hr = HrQueryAllRows(table, nullptr, nullptr, nullptr, 0, &rows);
  table->Release();
  if (FAILED(hr)) return hr;
  std::unique_ptr<SRowSet, void (*)(LPSRowSet)> rowsHolder(rows, [](LPSRowSet r) { FreeProws(r); });
  if (ulFlags & MAPI_NOREPLACE) {
    LPMAPITABLE existing = nullptr;
    ULONG count = 0;
    if (SUCCEEDED(dst->GetRecipientTable(0, &existing))) {
      existing->GetRowCount(0, &count);
      existing->Release();
    }
    if (count) return S_OK;  // the destination keeps its own recipients
  }
  void* buf = nullptr;
  if (MAPIAllocateBuffer(CbNewADRLIST(rows->cRows ? rows->cRows : 1), &buf) != S_OK) return MAPI_E_NOT_ENOUGH_MEMORY;
  auto* list = static_cast<LPADRLIST>(buf);
  list->cEntries = 0;
  std::unique_ptr<ADRLIST, void (*)(LPADRLIST)> listHolder(list, [](LPADRLIST l) { FreePadrlist(l); });
  for (ULONG i = 0; i < rows->cRows; ++i) {
    std::vector<SPropValue> values;
    for (ULONG k = 0; k < rows->aRow[i].cValues; ++k) {
      const SPropValue& v = rows->aRow[i].lpProps[k];
      if (v.ulPropTag != PR_ROWID && v.ulPropTag != PR_INSTANCE_KEY && PROP_TYPE(v.ulPropTag) != PT_ERROR)
        values.push_back(v);
    }
    LPSPropValue copy = nullptr;
    if (ScDupPropset(static_cast<int>(values.size()), values.data(), MAPIAllocateBuffer, &copy) != S_OK)
      return MAPI_E_NOT_ENOUGH_MEMORY;
    list->aEntries[i].ulReserved1 = 0;
    list->aEntries[i].cValues = static_cast<ULONG>(values.size());
    list->aEntries[i].rgPropVals = copy;
    list->cEntries = i + 1;
  }
  return dst->ModifyRecipients(0, list);
}

HRESULT CopyAttachments(LPMESSAGE src, LPMESSAGE dst, const CopyOptions& options) {
  if (options.ulFlags & MAPI_NOREPLACE) {
    LPMAPITABLE existing = nullptr;
    ULONG count = 0;
    if (SUCCEEDED(dst->GetAttachmentTable(0, &existing))) {
      existing->GetRowCount(0, &count);
      existing->Release();
    }
    if (count) return S_OK;  // the destination keeps its own attachments
  }
  LPMAPITABLE table = nullptr;
  HRESULT hr = src->GetAttachmentTable(0, &table);
  if (FAILED(hr)) return hr;
  LPSRowSet rows = nullptr;
  hr = QueryAll(table, PR_ATTACH_NUM, &rows);
  if (FAILED(hr)) return hr;
  std::unique_ptr<SRowSet, void (*)(LPSRowSet)> rowsHolder(rows, [](LPSRowSet r) { FreeProws(r); });
  CopyOptions inner{options.ciidExclude, options.rgiidExclude, nullptr, options.ulFlags & MAPI_DECLINE_OK};
  for (ULONG i = 0; i < rows->cRows; ++i) {
    const SPropValue& num = rows->aRow[i].lpProps[0];
    if (num.ulPropTag != PR_ATTACH_NUM) continue;
    LPATTACH in = nullptr, out = nullptr;
    ULONG newNum = 0;
    hr = src->OpenAttach(num.Value.l, nullptr, 0, &in);
    if (FAILED(hr)) return hr;
    ComPtr<IAttach> inHolder(in);
    hr = dst->CreateAttach(nullptr, 0, &newNum, &out);
    if (FAILED(hr)) return hr;
    ComPtr<IAttach> outHolder(out);
    hr = CopyObjectTo(in, nullptr, inner, out, nullptr);
    if (SUCCEEDED(hr)) hr = out->SaveChanges(KEEP_OPEN_READWRITE);
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

// PR_ATTACH_DATA_OBJ: an embedded message, else an OLE storage.
HRESULT CopyObjectProp(LPMAPIPROP src, LPMAPIPROP dst, ULONG tag, const CopyOptions& options) {
  LPUNKNOWN in = nullptr, out = nullptr;
  if (SUCCEEDED(src->OpenProperty(tag, &IID_IMessage, 0, 0, &in))) {
    ComPtr<IUnknown> inHolder(in);
    if (Excluded(options, IID_IMessage)) return S_OK;
    HRESULT hr = dst->OpenProperty(tag, &IID_IMessage, 0, MAPI_CREATE | MAPI_MODIFY, &out);
    if (FAILED(hr)) return hr;
    ComPtr<IUnknown> outHolder(out);
    CopyOptions inner{options.ciidExclude, options.rgiidExclude, nullptr, options.ulFlags & MAPI_DECLINE_OK};
    hr = CopyObjectTo(static_cast<LPMESSAGE>(in), nullptr, inner, static_cast<LPMESSAGE>(out), nullptr);
    if (SUCCEEDED(hr)) hr = static_cast<LPMESSAGE>(out)->SaveChanges(KEEP_OPEN_READWRITE);
    return hr;
  }
  HRESULT hr = src->OpenProperty(tag, &IID_IStorage, 0, 0, &in);
  if (FAILED(hr)) return hr;
  ComPtr<IUnknown> inHolder(in);
  hr = dst->OpenProperty(tag, &IID_IStorage, 0, MAPI_CREATE | MAPI_MODIFY, &out);
  if (FAILED(hr)) return hr;
  ComPtr<IUnknown> outHolder(out);
  hr = static_cast<IStorage*>(in)->CopyTo(0, nullptr, nullptr, static_cast<IStorage*>(out));
  if (SUCCEEDED(hr)) hr = static_cast<IStorage*>(out)->Commit(0);
  return hr;
}

HRESULT CopyContents(LPMAPIFOLDER src, LPMAPIFOLDER dst, ULONG tableFlags, ULONG ulFlags) {
  LPMAPITABLE table = nullptr;
  HRESULT hr = src->GetContentsTable(tableFlags, &table);
  if (FAILED(hr)) return hr;
  LPSRowSet rows = nullptr;
  hr = QueryAll(table, PR_ENTRYID, &rows);
  if (FAILED(hr)) return hr;
  std::vector<SBinary> ids;
  for (ULONG i = 0; i < rows->cRows; ++i) {
    if (rows->aRow[i].lpProps[0].ulPropTag == PR_ENTRYID) ids.push_back(rows->aRow[i].lpProps[0].Value.bin);
  }
  ENTRYLIST list{static_cast<ULONG>(ids.size()), ids.data()};
  hr = ids.empty() ? S_OK : CopyMessageList(src, &list, dst, nullptr, ulFlags & MAPI_MOVE);
  FreeProws(rows);
  return hr;
}

HRESULT CopyFolderTreeInner(LPMAPIFOLDER src, ULONG cb, LPENTRYID eid, LPMAPIFOLDER dst, const char* newName,
                            LPMAPIPROGRESS progress, ULONG ulFlags, std::set<std::string>& made);

HRESULT CopyHierarchy(LPMAPIFOLDER src, LPMAPIFOLDER dst, ULONG ulFlags, std::set<std::string>& made) {
  LPMAPITABLE table = nullptr;
  HRESULT hr = src->GetHierarchyTable(0, &table);
  if (FAILED(hr)) return hr;
  LPSRowSet rows = nullptr;
  hr = QueryAll(table, PR_ENTRYID, &rows);
  if (FAILED(hr)) return hr;
  std::unique_ptr<SRowSet, void (*)(LPSRowSet)> rowsHolder(rows, [](LPSRowSet r) { FreeProws(r); });
  HRESULT result = S_OK;
  for (ULONG i = 0; i < rows->cRows; ++i) {
    const SPropValue& v = rows->aRow[i].lpProps[0];
    if (v.ulPropTag != PR_ENTRYID) continue;
    std::string key(reinterpret_cast<const char*>(v.Value.bin.lpb), v.Value.bin.cb);
    if (made.count(key)) continue;  // a folder this copy made (a folder copied into itself)
    hr = CopyFolderTreeInner(src, v.Value.bin.cb, reinterpret_cast<LPENTRYID>(v.Value.bin.lpb), dst, nullptr,
                             nullptr, ulFlags | COPY_SUBFOLDERS, made);
    if (FAILED(hr)) result = MAPI_W_PARTIAL_COMPLETION;
  }
  return result;
}

// Subobjects named by `tags` (or, for a CopyTo, all but the excluded ones).
HRESULT CopySubobjects(LPMAPIPROP src, LPMAPIPROP dst, const std::vector<ULONG>& tags, const CopyOptions& options,
                       Problems& problems) {
  HRESULT result = S_OK;
  auto wants = [&tags](ULONG tag) {
    return std::any_of(tags.begin(), tags.end(), [tag](ULONG t) { return SameId(t, tag); });
  };
  LPMESSAGE srcMsg = nullptr, dstMsg = nullptr;
  if (SUCCEEDED(src->QueryInterface(IID_IMessage, reinterpret_cast<void**>(&srcMsg))) &&
      SUCCEEDED(dst->QueryInterface(IID_IMessage, reinterpret_cast<void**>(&dstMsg)))) {
    if (wants(PR_MESSAGE_RECIPIENTS)) {
      HRESULT hr = CopyRecipients(srcMsg, dstMsg, options.ulFlags);
      if (FAILED(hr)) problems.Add(0, PR_MESSAGE_RECIPIENTS, hr);
    }
    if (wants(PR_MESSAGE_ATTACHMENTS) && !Excluded(options, IID_IAttachment)) {
      HRESULT hr = CopyAttachments(srcMsg, dstMsg, options);
      if (FAILED(hr)) problems.Add(0, PR_MESSAGE_ATTACHMENTS, hr);
    }
  }
  if (srcMsg) srcMsg->Release();
  if (dstMsg) dstMsg->Release();
  LPMAPIFOLDER srcFolder = nullptr, dstFolder = nullptr;
  if (SUCCEEDED(src->QueryInterface(IID_IMAPIFolder, reinterpret_cast<void**>(&srcFolder))) &&
      SUCCEEDED(dst->QueryInterface(IID_IMAPIFolder, reinterpret_cast<void**>(&dstFolder)))) {
    HRESULT hr = S_OK;
    if (wants(PR_CONTAINER_CONTENTS)) hr = CopyContents(srcFolder, dstFolder, 0, options.ulFlags);
    if (SUCCEEDED(hr) && wants(PR_FOLDER_ASSOCIATED_CONTENTS))
      hr = CopyContents(srcFolder, dstFolder, MAPI_ASSOCIATED, options.ulFlags);
    if (SUCCEEDED(hr) && wants(PR_CONTAINER_HIERARCHY) && !Excluded(options, IID_IMAPIFolder)) {
      std::set<std::string> made;
      hr = CopyHierarchy(srcFolder, dstFolder, options.ulFlags & MAPI_MOVE ? FOLDER_MOVE : 0, made);
    }
    if (hr != S_OK) result = MAPI_W_PARTIAL_COMPLETION;
  }
  if (srcFolder) srcFolder->Release();
  if (dstFolder) dstFolder->Release();
  for (ULONG tag : tags) {
    if (PROP_TYPE(tag) != PT_OBJECT || IsContainerTag(tag)) continue;
    HRESULT hr = CopyObjectProp(src, dst, tag, options);
    if (FAILED(hr)) problems.Add(0, tag, hr);
  }
  return result;
}

// The core of CopyTo and CopyProps: `tags` are the source properties to copy.
HRESULT CopyTags(LPMAPIPROP src, std::vector<ULONG> tags, const CopyOptions& options, LPMAPIPROP dst,
                 LPSPropProblemArray* lppProblems) {
  if (lppProblems) *lppProblems = nullptr;
  if (src == dst) return MAPI_E_NO_ACCESS;
  if (options.ulFlags & MAPI_NOREPLACE) {
    LPSPropTagArray existing = nullptr;
    if (SUCCEEDED(dst->GetPropList(0, &existing)) && existing) {
      tags.erase(std::remove_if(tags.begin(), tags.end(),
                                [existing](ULONG t) { return !IsSubobjectTag(t) && InList(existing, t); }),
                 tags.end());
    }
    MAPIFreeBuffer(existing);
  }
  std::vector<ULONG> subobjects, plain;
  for (ULONG t : tags) (IsSubobjectTag(t) ? subobjects : plain).push_back(t);
  const ULONG total = static_cast<ULONG>(plain.size() + subobjects.size());
  Problems problems;
  std::vector<ULONG> copied;
  if (!plain.empty()) {
    std::vector<ULONG> mapped = MapNamedTags(src, dst, plain);
    std::vector<BYTE> buf = TagArrayBuffer(plain);
    ULONG count = 0;
    LPSPropValue values = nullptr;
    HRESULT hr = src->GetProps(reinterpret_cast<LPSPropTagArray>(buf.data()), 0, &count, &values);
    if (FAILED(hr)) return hr;
    MapiPtr<SPropValue> valuesHolder(values);
    std::vector<SPropValue> out;
    std::vector<ULONG> outIndex;
    for (ULONG i = 0; i < count && i < plain.size(); ++i) {
      if (!mapped[i]) {
        problems.Add(i, plain[i], MAPI_E_INVALID_PARAMETER);
        continue;
      }
      if (PROP_TYPE(values[i].ulPropTag) == PT_ERROR) {
        if (values[i].Value.err != MAPI_E_NOT_ENOUGH_MEMORY) continue;  // the source has no such value
        HRESULT sh = CopyStreamProp(src, plain[i], dst, mapped[i]);
        if (FAILED(sh)) problems.Add(i, plain[i], sh);
        else copied.push_back(plain[i]);
        continue;
      }
      SPropValue v = values[i];
      v.ulPropTag = CHANGE_PROP_TYPE(mapped[i], PROP_TYPE(values[i].ulPropTag));
      out.push_back(v);
      outIndex.push_back(i);
    }
    Report(options, static_cast<ULONG>(plain.size()), total);
    if (!out.empty()) {
      LPSPropProblemArray setProblems = nullptr;
      hr = dst->SetProps(static_cast<ULONG>(out.size()), out.data(), &setProblems);
      if (FAILED(hr)) return hr;
      MapiPtr<SPropProblemArray> setHolder(setProblems);
      std::set<ULONG> refused;
      for (ULONG p = 0; setProblems && p < setProblems->cProblem; ++p) {
        ULONG at = setProblems->aProblem[p].ulIndex;
        ULONG index = at < outIndex.size() ? outIndex[at] : at;
        problems.Add(index, setProblems->aProblem[p].ulPropTag, setProblems->aProblem[p].scode);
        refused.insert(at);
      }
      for (size_t k = 0; k < out.size(); ++k) {
        if (!refused.count(static_cast<ULONG>(k))) copied.push_back(plain[outIndex[k]]);
      }
    }
  }
  HRESULT result = CopySubobjects(src, dst, subobjects, options, problems);
  Report(options, total, total);
  if ((options.ulFlags & MAPI_MOVE) && !copied.empty()) {
    std::vector<BYTE> buf = TagArrayBuffer(copied);
    src->DeleteProps(reinterpret_cast<LPSPropTagArray>(buf.data()), nullptr);
  }
  if (HRESULT hr = problems.Hand(lppProblems); FAILED(hr)) return hr;
  return result;
}

HRESULT CopyFolderTreeInner(LPMAPIFOLDER src, ULONG cb, LPENTRYID eid, LPMAPIFOLDER dst, const char* newName,
                            LPMAPIPROGRESS progress, ULONG ulFlags, std::set<std::string>& made) {
  ULONG type = 0;
  LPUNKNOWN unk = nullptr;
  HRESULT hr = src->OpenEntry(cb, eid, &IID_IMAPIFolder, MAPI_BEST_ACCESS, &type, &unk);
  if (FAILED(hr)) return hr;
  ComPtr<IMAPIFolder> folder(static_cast<LPMAPIFOLDER>(unk));
  if (type != MAPI_FOLDER) return MAPI_E_INVALID_ENTRYID;
  SizedSPropTagArray(2, nameTags) = {2, {PR_DISPLAY_NAME_W, PR_COMMENT_W}};
  ULONG count = 0;
  LPSPropValue names = nullptr;
  hr = folder->GetProps(reinterpret_cast<LPSPropTagArray>(&nameTags), MAPI_UNICODE, &count, &names);
  if (FAILED(hr)) return hr;
  MapiPtr<SPropValue> namesHolder(names);
  std::u16string name = newName ? adp::Utf8ToUtf16(newName)
                        : names[0].ulPropTag == PR_DISPLAY_NAME_W ? std::u16string(names[0].Value.lpszW)
                                                                  : std::u16string();
  std::u16string comment = names[1].ulPropTag == PR_COMMENT_W ? std::u16string(names[1].Value.lpszW) : u"";
  if (name.empty()) return MAPI_E_INVALID_PARAMETER;
  LPMAPIFOLDER created = nullptr;
  hr = dst->CreateFolder(FOLDER_GENERIC, reinterpret_cast<LPTSTR>(name.data()),
                         reinterpret_cast<LPTSTR>(comment.data()), nullptr, MAPI_UNICODE | OPEN_IF_EXISTS, &created);
  if (FAILED(hr)) return hr;
  ComPtr<IMAPIFolder> copy(created);
  LPSPropValue own = nullptr;
  if (SUCCEEDED(HrGetOneProp(created, PR_ENTRYID, &own)))
    made.insert(std::string(reinterpret_cast<const char*>(own->Value.bin.lpb), own->Value.bin.cb));
  MAPIFreeBuffer(own);

  SizedSPropTagArray(6, exclude) = {6,
                                    {PR_DISPLAY_NAME, PR_COMMENT, PR_CONTAINER_CONTENTS, PR_CONTAINER_HIERARCHY,
                                     PR_FOLDER_ASSOCIATED_CONTENTS, PR_CONTAINER_CLASS}};
  CopyOptions props{0, nullptr, nullptr, 0};
  HRESULT result = CopyObjectTo(folder.get(), reinterpret_cast<LPSPropTagArray>(&exclude), props, created, nullptr);
  result = FAILED(result) ? MAPI_W_PARTIAL_COMPLETION : S_OK;
  const ULONG moveFlag = (ulFlags & FOLDER_MOVE) ? MAPI_MOVE : 0;
  if (progress) progress->Progress(1, 1, 3);
  if (CopyContents(folder.get(), created, 0, moveFlag) != S_OK) result = MAPI_W_PARTIAL_COMPLETION;
  if (CopyContents(folder.get(), created, MAPI_ASSOCIATED, moveFlag) != S_OK) result = MAPI_W_PARTIAL_COMPLETION;
  if (progress) progress->Progress(2, 2, 3);
  if ((ulFlags & COPY_SUBFOLDERS) && CopyHierarchy(folder.get(), created, ulFlags & FOLDER_MOVE, made) != S_OK)
    result = MAPI_W_PARTIAL_COMPLETION;
  created->SaveChanges(KEEP_OPEN_READWRITE);
  if (progress) progress->Progress(3, 3, 3);
  if ((ulFlags & FOLDER_MOVE) && result == S_OK) {
    folder.reset();
    hr = src->DeleteFolder(cb, eid, 0, nullptr, DEL_FOLDERS | DEL_MESSAGES);
    if (FAILED(hr)) result = MAPI_W_PARTIAL_COMPLETION;
  }
  return result;
}

}  // namespace

HRESULT CopyObjectTo(LPMAPIPROP lpSrc, const SPropTagArray* lpExcludeProps, const CopyOptions& options,
                     LPMAPIPROP lpDest, LPSPropProblemArray* lppProblems) {
  if (lppProblems) *lppProblems = nullptr;
  if (!lpSrc || !lpDest) return MAPI_E_INVALID_PARAMETER;
  LPSPropTagArray all = nullptr;
  HRESULT hr = lpSrc->GetPropList(0, &all);
  if (FAILED(hr)) return hr;
  MapiPtr<SPropTagArray> holder(all);
  std::vector<ULONG> tags;
  for (ULONG i = 0; i < all->cValues; ++i) {
    ULONG tag = all->aulPropTag[i];
    bool never = std::any_of(std::begin(kNeverCopied), std::end(kNeverCopied), [tag](ULONG n) { return SameId(n, tag); });
    if (!never && !InList(lpExcludeProps, tag)) tags.push_back(tag);
  }
  // Subobjects are part of a CopyTo unless excluded, listed by the object or not.
  for (ULONG sub : {PR_MESSAGE_RECIPIENTS, PR_MESSAGE_ATTACHMENTS, PR_CONTAINER_CONTENTS, PR_CONTAINER_HIERARCHY,
                    PR_FOLDER_ASSOCIATED_CONTENTS}) {
    if (!InList(lpExcludeProps, sub) && !std::any_of(tags.begin(), tags.end(), [sub](ULONG t) { return SameId(t, sub); }))
      tags.push_back(sub);
  }
  return CopyTags(lpSrc, std::move(tags), options, lpDest, lppProblems);
}

HRESULT CopyObjectProps(LPMAPIPROP lpSrc, const SPropTagArray* lpIncludeProps, const CopyOptions& options,
                        LPMAPIPROP lpDest, LPSPropProblemArray* lppProblems) {
  if (lppProblems) *lppProblems = nullptr;
  if (!lpSrc || !lpDest || !lpIncludeProps) return MAPI_E_INVALID_PARAMETER;
  std::vector<ULONG> tags(lpIncludeProps->aulPropTag, lpIncludeProps->aulPropTag + lpIncludeProps->cValues);
  return CopyTags(lpSrc, std::move(tags), options, lpDest, lppProblems);
}

HRESULT CopyMessageList(LPMAPIFOLDER lpSrcFolder, const ENTRYLIST* lpMsgList, LPMAPIFOLDER lpDestFolder,
                        LPMAPIPROGRESS lpProgress, ULONG ulFlags) {
  if (!lpSrcFolder || !lpMsgList || !lpDestFolder || (lpMsgList->cValues && !lpMsgList->lpbin))
    return MAPI_E_INVALID_PARAMETER;
  std::vector<SBinary> done;
  bool partial = false;
  const ULONG total = lpMsgList->cValues;
  for (ULONG i = 0; i < total; ++i) {
    const SBinary& id = lpMsgList->lpbin[i];
    ULONG type = 0;
    LPUNKNOWN unk = nullptr;
    HRESULT hr = id.lpb ? lpSrcFolder->OpenEntry(id.cb, reinterpret_cast<LPENTRYID>(id.lpb), &IID_IMessage, 0, &type,
                                                 &unk)
                        : MAPI_E_INVALID_ENTRYID;
    ComPtr<IUnknown> holder(unk);
    if (SUCCEEDED(hr) && type != MAPI_MESSAGE) hr = MAPI_E_INVALID_ENTRYID;
    LPMESSAGE created = nullptr;
    if (SUCCEEDED(hr)) {
      LPSPropValue flags = nullptr;
      bool associated = SUCCEEDED(HrGetOneProp(static_cast<LPMESSAGE>(unk), PR_MESSAGE_FLAGS, &flags)) &&
                        (flags->Value.l & MSGFLAG_ASSOCIATED);
      MAPIFreeBuffer(flags);
      hr = lpDestFolder->CreateMessage(nullptr, associated ? MAPI_ASSOCIATED : 0, &created);
    }
    ComPtr<IMessage> createdHolder(created);
    if (SUCCEEDED(hr)) hr = CopyObjectTo(static_cast<LPMESSAGE>(unk), nullptr, CopyOptions{}, created, nullptr);
    if (SUCCEEDED(hr)) hr = created->SaveChanges(0);
    if (FAILED(hr)) partial = true;
    else done.push_back(id);
    if (lpProgress) lpProgress->Progress(i + 1, i + 1, total);
  }
  if ((ulFlags & MAPI_MOVE) && !done.empty()) {
    ENTRYLIST moved{static_cast<ULONG>(done.size()), done.data()};
    if (FAILED(lpSrcFolder->DeleteMessages(&moved, 0, nullptr, 0))) partial = true;
  }
  return partial ? MAPI_W_PARTIAL_COMPLETION : S_OK;
}

HRESULT CopyFolderTree(LPMAPIFOLDER lpSrcFolder, ULONG cbEntryID, LPENTRYID lpEntryID, LPMAPIFOLDER lpDestFolder,
                       const char* newName, LPMAPIPROGRESS lpProgress, ULONG ulFlags) {
  if (!lpSrcFolder || !lpEntryID || !lpDestFolder) return MAPI_E_INVALID_PARAMETER;
  std::set<std::string> made;  // folders this copy makes: never copied again
  return CopyFolderTreeInner(lpSrcFolder, cbEntryID, lpEntryID, lpDestFolder, newName, lpProgress, ulFlags, made);
}

}  // namespace adm
