// A small in-memory message store for the messaging tests: a store, folders, messages with
// recipients and attachments (embedded messages too), named properties and properties too large to
// be read inline (binaries over kStreamLimit bytes come back as PT_ERROR MAPI_E_NOT_ENOUGH_MEMORY
// and open as streams). Objects are plain MAPI objects: the copying helpers can be tested on them
// directly, and the test provider module serves them through IMSProvider::Logon.
//
// Entry IDs: 4 zero bytes, the store's UID, then the object's number (4 bytes, little-endian).
// CopyTo, CopyProps, CopyMessages and CopyFolder forward to the support object, as a provider does;
// without one they answer MAPI_E_NO_SUPPORT. Properties PR_ENTRYID, PR_OBJECT_TYPE, PR_PARENT_ENTRYID,
// PR_STORE_ENTRYID, PR_RECORD_KEY and PR_INSTANCE_KEY are the store's: SetProps refuses them with
// MAPI_E_COMPUTED in the problem array.
#pragma once
#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "adplatform.h"
#include "mapicode.h"
#include "mapidefs.h"
#include "mapiguid.h"
#include "mapispi.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"
#include "objbase.h"

namespace teststore {

constexpr ULONG kStreamLimit = 4096;

struct FreeMapi {
  void operator()(void* p) const { MAPIFreeBuffer(p); }
};
template <class T>
using Owned = std::unique_ptr<T, FreeMapi>;

inline Owned<SPropValue> Dup(const SPropValue& v) {
  LPSPropValue copy = nullptr;
  if (ScDupPropset(1, const_cast<LPSPropValue>(&v), MAPIAllocateBuffer, &copy) != S_OK) return nullptr;
  return Owned<SPropValue>(copy);
}

class Folder;
class Message;
class Attach;

// What all objects of one store share. One recursive lock for everything: the objects are small.
struct StoreData {
  explicit StoreData(const MAPIUID& u) : uid(u) {}
  ~StoreData();
  std::recursive_mutex lock;
  MAPIUID uid;
  LPMAPISUP sup = nullptr;  // AddRef'd; may be null
  std::map<ULONG, Folder*> folders;
  std::map<ULONG, Message*> messages;  // saved messages
  ULONG nextId = 1;
  std::vector<std::pair<GUID, std::pair<ULONG, std::u16string>>> names;  // named IDs 0x8000 + index

  std::vector<BYTE> EntryID(ULONG id) const {
    std::vector<BYTE> eid(24, 0);
    std::memcpy(eid.data() + 4, uid.ab, 16);
    std::memcpy(eid.data() + 20, &id, 4);
    return eid;
  }
  ULONG IdOf(ULONG cb, const ENTRYID* eid) const {
    if (!eid || cb != 24 || std::memcmp(reinterpret_cast<const BYTE*>(eid) + 4, uid.ab, 16) != 0) return 0;
    ULONG id;
    std::memcpy(&id, reinterpret_cast<const BYTE*>(eid) + 20, 4);
    return id;
  }
};
using StorePtr = std::shared_ptr<StoreData>;

inline bool IsComputed(ULONG tag) {
  for (ULONG c : {PR_ENTRYID, PR_OBJECT_TYPE, PR_PARENT_ENTRYID, PR_STORE_ENTRYID, PR_RECORD_KEY, PR_INSTANCE_KEY})
    if (PROP_ID(c) == PROP_ID(tag)) return true;
  return false;
}

// IMAPIProp over a bag of values, for any interface derived from IMAPIProp.
template <class Iface>
class PropObject : public Iface {
 public:
  PropObject(StorePtr store, ULONG id, const IID& iid, ULONG objType) : m_store(std::move(store)), m_id(id), m_iid(iid) {
    if (!m_store) return;
    std::vector<BYTE> eid = m_store->EntryID(id);
    Put(BinProp(PR_ENTRYID, eid));
    Put(BinProp(PR_RECORD_KEY, eid));
    SPropValue t{};
    t.ulPropTag = PR_OBJECT_TYPE;
    t.Value.l = objType;
    Put(t);
  }
  virtual ~PropObject() {
    for (auto& [tag, s] : m_streams) s->Release();
  }

  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return MAPI_E_INVALID_PARAMETER;
    if (riid == IID_IUnknown || riid == IID_IMAPIProp || riid == m_iid || Also(riid)) {
      *ppv = static_cast<Iface*>(this);
      this->AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return MAPI_E_INTERFACE_NOT_SUPPORTED;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_cRef; }
  STDMETHODIMP_(ULONG) Release() override {
    ULONG n = --m_cRef;
    if (n == 0) delete this;
    return n;
  }
  MAPIMETHOD(GetLastError)(HRESULT, ULONG, LPMAPIERROR* lppMAPIError) override {
    if (lppMAPIError) *lppMAPIError = nullptr;
    return S_OK;
  }
  MAPIMETHOD(SaveChanges)(ULONG) override {
    std::lock_guard<std::recursive_mutex> guard(Lock());
    Flush();
    return OnSave();
  }
  MAPIMETHOD(GetProps)(LPSPropTagArray lpTags, ULONG ulFlags, ULONG* lpcValues, LPSPropValue* lppProps) override {
    if (!lpcValues || !lppProps) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    Flush();
    std::vector<ULONG> tags;
    if (lpTags) {
      tags.assign(lpTags->aulPropTag, lpTags->aulPropTag + lpTags->cValues);
    } else {
      for (const auto& [id, v] : m_values) tags.push_back(Native(v->ulPropTag, ulFlags));
    }
    void* buf = nullptr;
    MAPIAllocateBuffer(static_cast<ULONG>(sizeof(SPropValue) * (tags.size() + 1)), &buf);
    auto* out = static_cast<LPSPropValue>(buf);
    bool errors = false;
    for (size_t i = 0; i < tags.size(); ++i) errors |= !Fill(tags[i], ulFlags, buf, &out[i]);
    *lpcValues = static_cast<ULONG>(tags.size());
    *lppProps = out;
    return errors ? MAPI_W_ERRORS_RETURNED : S_OK;
  }
  MAPIMETHOD(GetPropList)(ULONG ulFlags, LPSPropTagArray* lppTags) override {
    if (!lppTags) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    Flush();
    std::vector<ULONG> tags;
    for (const auto& [id, v] : m_values) tags.push_back(Native(v->ulPropTag, ulFlags));
    ExtraTags(tags);
    void* buf = nullptr;
    MAPIAllocateBuffer(CbNewSPropTagArray(tags.size() + 1), &buf);
    auto* array = static_cast<LPSPropTagArray>(buf);
    array->cValues = static_cast<ULONG>(tags.size());
    std::copy(tags.begin(), tags.end(), array->aulPropTag);
    *lppTags = array;
    return S_OK;
  }
  MAPIMETHOD(OpenProperty)(ULONG ulPropTag, LPCIID lpiid, ULONG, ULONG ulFlags, LPUNKNOWN* lppUnk) override {
    if (!lppUnk || !lpiid) return MAPI_E_INVALID_PARAMETER;
    *lppUnk = nullptr;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    if (*lpiid != IID_IStream) return OpenObject(ulPropTag, *lpiid, ulFlags, lppUnk);
    Flush();
    LPSTREAM stream = nullptr;
    if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &stream))) return MAPI_E_NOT_ENOUGH_MEMORY;
    auto it = m_values.find(PROP_ID(ulPropTag));
    if (it != m_values.end() && PROP_TYPE(it->second->ulPropTag) == PT_BINARY && !(ulFlags & MAPI_CREATE)) {
      stream->Write(it->second->Value.bin.lpb, it->second->Value.bin.cb, nullptr);
      LARGE_INTEGER zero{};
      stream->Seek(zero, STREAM_SEEK_SET, nullptr);
    } else if (!(ulFlags & MAPI_CREATE)) {
      stream->Release();
      return MAPI_E_NOT_FOUND;
    }
    if (ulFlags & MAPI_MODIFY) {  // read back at the next GetProps or SaveChanges
      stream->AddRef();
      auto& slot = m_streams[PROP_TAG(PT_BINARY, PROP_ID(ulPropTag))];
      if (slot) slot->Release();
      slot = stream;
    }
    *lppUnk = stream;
    return S_OK;
  }
  MAPIMETHOD(SetProps)(ULONG cValues, LPSPropValue lpProps, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    if (!lpProps) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    std::vector<SPropProblem> problems;
    for (ULONG i = 0; i < cValues; ++i) {
      ULONG type = PROP_TYPE(lpProps[i].ulPropTag);
      if (IsComputed(lpProps[i].ulPropTag) || type == PT_OBJECT || type == PT_ERROR) {
        problems.push_back({i, lpProps[i].ulPropTag, IsComputed(lpProps[i].ulPropTag) ? MAPI_E_COMPUTED
                                                                                      : MAPI_E_INVALID_TYPE});
        continue;
      }
      Put(lpProps[i]);
    }
    return HandProblems(problems, lppProblems);
  }
  MAPIMETHOD(DeleteProps)(LPSPropTagArray lpTags, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    if (!lpTags) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    for (ULONG i = 0; i < lpTags->cValues; ++i) {
      if (!IsComputed(lpTags->aulPropTag[i])) m_values.erase(PROP_ID(lpTags->aulPropTag[i]));
    }
    return S_OK;
  }
  MAPIMETHOD(CopyTo)(ULONG ciidExclude, LPCIID rgiidExclude, LPSPropTagArray lpExcludeProps, ULONG_PTR ulUIParam,
                     LPMAPIPROGRESS lpProgress, LPCIID lpInterface, LPVOID lpDestObj, ULONG ulFlags,
                     LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    LPMAPISUP sup = m_store ? m_store->sup : nullptr;
    if (!sup) return MAPI_E_NO_SUPPORT;
    return sup->DoCopyTo(&m_iid, static_cast<Iface*>(this), ciidExclude, rgiidExclude, lpExcludeProps, ulUIParam,
                         lpProgress, lpInterface, lpDestObj, ulFlags, lppProblems);
  }
  MAPIMETHOD(CopyProps)(LPSPropTagArray lpIncludeProps, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                        LPCIID lpInterface, LPVOID lpDestObj, ULONG ulFlags, LPSPropProblemArray* lppProblems) override {
    if (lppProblems) *lppProblems = nullptr;
    LPMAPISUP sup = m_store ? m_store->sup : nullptr;
    if (!sup) return MAPI_E_NO_SUPPORT;
    return sup->DoCopyProps(&m_iid, static_cast<Iface*>(this), lpIncludeProps, ulUIParam, lpProgress, lpInterface,
                            lpDestObj, ulFlags, lppProblems);
  }
  MAPIMETHOD(GetNamesFromIDs)(LPSPropTagArray* lppPropTags, LPGUID, ULONG, ULONG* lpcPropNames,
                              LPMAPINAMEID** lpppPropNames) override {
    if (!lppPropTags || !*lppPropTags || !lpcPropNames || !lpppPropNames || !m_store) return MAPI_E_NO_SUPPORT;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    LPSPropTagArray tags = *lppPropTags;
    void* buf = nullptr;
    MAPIAllocateBuffer(static_cast<ULONG>(sizeof(LPMAPINAMEID) * (tags->cValues + 1)), &buf);
    auto* names = static_cast<LPMAPINAMEID*>(buf);
    for (ULONG i = 0; i < tags->cValues; ++i) {
      ULONG index = PROP_ID(tags->aulPropTag[i]) - 0x8000;
      names[i] = nullptr;
      if (PROP_ID(tags->aulPropTag[i]) < 0x8000 || index >= m_store->names.size()) continue;
      const auto& n = m_store->names[index];
      void* nb = nullptr;
      MAPIAllocateMore(sizeof(MAPINAMEID), buf, &nb);
      auto* name = static_cast<LPMAPINAMEID>(nb);
      void* g = nullptr;
      MAPIAllocateMore(sizeof(GUID), buf, &g);
      std::memcpy(g, &n.first, sizeof(GUID));
      name->lpguid = static_cast<LPGUID>(g);
      name->ulKind = n.second.first;
      if (name->ulKind == MNID_ID) {
        name->Kind.lID = static_cast<LONG>(n.second.second.empty() ? 0 : n.second.second[0]);
      } else {
        void* s = nullptr;
        MAPIAllocateMore(static_cast<ULONG>((n.second.second.size() + 1) * 2), buf, &s);
        std::memcpy(s, n.second.second.c_str(), (n.second.second.size() + 1) * 2);
        name->Kind.lpwstrName = static_cast<LPWSTR>(s);
      }
      names[i] = name;
    }
    *lpcPropNames = tags->cValues;
    *lpppPropNames = names;
    return S_OK;
  }
  MAPIMETHOD(GetIDsFromNames)(ULONG cPropNames, LPMAPINAMEID* lppPropNames, ULONG ulFlags,
                              LPSPropTagArray* lppPropTags) override {
    if (!lppPropTags || !lppPropNames || !m_store) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    void* buf = nullptr;
    MAPIAllocateBuffer(CbNewSPropTagArray(cPropNames + 1), &buf);
    auto* tags = static_cast<LPSPropTagArray>(buf);
    tags->cValues = cPropNames;
    bool missing = false;
    for (ULONG i = 0; i < cPropNames; ++i) {
      const MAPINAMEID* n = lppPropNames[i];
      std::u16string key = n->ulKind == MNID_ID ? std::u16string(1, static_cast<char16_t>(n->Kind.lID))
                                                : std::u16string(n->Kind.lpwstrName);
      size_t k = 0;
      auto& names = m_store->names;
      while (k < names.size() && !(names[k].first == *n->lpguid && names[k].second.first == n->ulKind &&
                                   names[k].second.second == key))
        ++k;
      if (k == names.size()) {
        if (!(ulFlags & MAPI_CREATE)) {
          tags->aulPropTag[i] = PROP_TAG(PT_ERROR, 0);
          missing = true;
          continue;
        }
        names.push_back({*n->lpguid, {n->ulKind, key}});
      }
      tags->aulPropTag[i] = PROP_TAG(PT_UNSPECIFIED, 0x8000 + k);
    }
    *lppPropTags = tags;
    return missing ? MAPI_W_ERRORS_RETURNED : S_OK;
  }

  // Test access.
  void Put(const SPropValue& v) {
    std::lock_guard<std::recursive_mutex> guard(Lock());
    m_values[PROP_ID(v.ulPropTag)] = Dup(v);
  }
  ULONG Id() const { return m_id; }
  std::vector<BYTE> EntryID() const { return m_store->EntryID(m_id); }
  const StorePtr& Store() const { return m_store; }

  static SPropValue BinProp(ULONG tag, const std::vector<BYTE>& bytes) {
    SPropValue v{};
    v.ulPropTag = tag;
    v.Value.bin.cb = static_cast<ULONG>(bytes.size());
    v.Value.bin.lpb = const_cast<BYTE*>(bytes.data());
    return v;
  }

 protected:
  std::recursive_mutex& Lock() { return m_store ? m_store->lock : m_ownLock; }
  virtual bool Also(REFIID) { return false; }
  virtual HRESULT OnSave() { return S_OK; }
  virtual void ExtraTags(std::vector<ULONG>&) {}
  virtual HRESULT OpenObject(ULONG, REFIID, ULONG, LPUNKNOWN*) { return MAPI_E_INTERFACE_NOT_SUPPORTED; }

  std::atomic<ULONG> m_cRef{1};
  StorePtr m_store;
  const ULONG m_id;
  const IID m_iid;

 private:
  static ULONG Native(ULONG tag, ULONG ulFlags) {
    if (PROP_TYPE(tag) == PT_STRING8 && (ulFlags & MAPI_UNICODE)) return CHANGE_PROP_TYPE(tag, PT_UNICODE);
    return tag;
  }
  // One value into out (data chained to root); false when it is an error value.
  bool Fill(ULONG asked, ULONG ulFlags, void* root, LPSPropValue out) {
    std::memset(out, 0, sizeof *out);
    auto it = m_values.find(PROP_ID(asked));
    ULONG want = PROP_TYPE(asked);
    if (it != m_values.end()) {
      const SPropValue& v = *it->second;
      ULONG have = PROP_TYPE(v.ulPropTag);
      if (want == PT_UNSPECIFIED) want = PROP_TYPE(Native(v.ulPropTag, ulFlags));
      if (have == PT_BINARY && want == PT_BINARY && v.Value.bin.cb > kStreamLimit) {
        out->ulPropTag = CHANGE_PROP_TYPE(asked, PT_ERROR);
        out->Value.err = MAPI_E_NOT_ENOUGH_MEMORY;
        return false;
      }
      if (have == want) {
        PropCopyMore(out, const_cast<LPSPropValue>(&v), MAPIAllocateMore, root);
        return true;
      }
      if ((have == PT_STRING8 && want == PT_UNICODE) || (have == PT_UNICODE && want == PT_STRING8)) {
        std::string utf8 = have == PT_STRING8 ? v.Value.lpszA : adp::Utf16ToUtf8(v.Value.lpszW);
        out->ulPropTag = CHANGE_PROP_TYPE(v.ulPropTag, want);
        void* text = nullptr;
        if (want == PT_STRING8) {
          MAPIAllocateMore(static_cast<ULONG>(utf8.size() + 1), root, &text);
          std::memcpy(text, utf8.c_str(), utf8.size() + 1);
        } else {
          std::u16string w = adp::Utf8ToUtf16(utf8.c_str());
          MAPIAllocateMore(static_cast<ULONG>((w.size() + 1) * 2), root, &text);
          std::memcpy(text, w.c_str(), (w.size() + 1) * 2);
        }
        out->Value.lpszA = static_cast<LPSTR>(text);
        return true;
      }
    }
    out->ulPropTag = CHANGE_PROP_TYPE(asked, PT_ERROR);
    out->Value.err = MAPI_E_NOT_FOUND;
    return false;
  }
  void Flush() {
    for (auto& [tag, stream] : m_streams) {
      STATSTG stat{};
      stream->Stat(&stat, STATFLAG_NONAME);
      std::vector<BYTE> bytes(static_cast<size_t>(stat.cbSize.QuadPart));
      LARGE_INTEGER zero{};
      ULARGE_INTEGER pos{};
      stream->Seek(zero, STREAM_SEEK_CUR, &pos);
      stream->Seek(zero, STREAM_SEEK_SET, nullptr);
      ULONG read = 0;
      if (!bytes.empty()) stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read);
      LARGE_INTEGER back{};
      back.QuadPart = static_cast<LONGLONG>(pos.QuadPart);
      stream->Seek(back, STREAM_SEEK_SET, nullptr);
      m_values[PROP_ID(tag)] = Dup(BinProp(tag, bytes));
    }
  }
  static HRESULT HandProblems(const std::vector<SPropProblem>& problems, LPSPropProblemArray* lppProblems) {
    if (problems.empty() || !lppProblems) return S_OK;
    void* buf = nullptr;
    MAPIAllocateBuffer(CbNewSPropProblemArray(problems.size()), &buf);
    auto* array = static_cast<LPSPropProblemArray>(buf);
    array->cProblem = static_cast<ULONG>(problems.size());
    std::copy(problems.begin(), problems.end(), array->aProblem);
    *lppProblems = array;
    return S_OK;
  }

  std::recursive_mutex m_ownLock;
  std::map<ULONG, Owned<SPropValue>> m_values;  // by property ID
  std::map<ULONG, LPSTREAM> m_streams;          // open for writing, by tag
};

// A table view of fixed rows (index column PR_INSTANCE_KEY).
inline HRESULT MakeTable(const std::vector<std::vector<SPropValue>>& rows, const std::vector<ULONG>& columns,
                         LPMAPITABLE* lppTable) {
  std::vector<BYTE> cols(CbNewSPropTagArray(columns.size()));
  auto* array = reinterpret_cast<LPSPropTagArray>(cols.data());
  array->cValues = static_cast<ULONG>(columns.size());
  std::copy(columns.begin(), columns.end(), array->aulPropTag);
  LPTABLEDATA data = nullptr;
  if (CreateTable(&IID_IMAPITableData, MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer, nullptr, TBLTYPE_DYNAMIC,
                  PR_INSTANCE_KEY, array, &data) != S_OK)
    return MAPI_E_NOT_ENOUGH_MEMORY;
  for (const auto& row : rows) {
    SRow r{0, static_cast<ULONG>(row.size()), const_cast<LPSPropValue>(row.data())};
    data->HrModifyRow(&r);
  }
  HRESULT hr = data->HrGetView(nullptr, nullptr, 0, lppTable);
  data->Release();  // the view keeps the data
  return hr;
}

inline SPropValue Key(ULONG& holder, ULONG value) {
  holder = value;
  SPropValue v{};
  v.ulPropTag = PR_INSTANCE_KEY;
  v.Value.bin.cb = 4;
  v.Value.bin.lpb = reinterpret_cast<LPBYTE>(&holder);
  return v;
}

class Attach;

class Message : public PropObject<IMessage> {
 public:
  Message(StorePtr store, ULONG id, ULONG folder, bool associated)
      : PropObject(std::move(store), id, IID_IMessage, MAPI_MESSAGE), m_folder(folder) {
    SPropValue f{};
    f.ulPropTag = PR_MESSAGE_FLAGS;
    f.Value.l = MSGFLAG_UNSENT | (associated ? 0x40 : 0);
    Put(f);
  }
  ~Message() override;

  MAPIMETHOD(GetAttachmentTable)(ULONG, LPMAPITABLE* lppTable) override;
  MAPIMETHOD(OpenAttach)(ULONG ulAttachmentNum, LPCIID, ULONG, LPATTACH* lppAttach) override;
  MAPIMETHOD(CreateAttach)(LPCIID, ULONG, ULONG* lpulAttachmentNum, LPATTACH* lppAttach) override;
  MAPIMETHOD(DeleteAttach)(ULONG ulAttachmentNum, ULONG_PTR, LPMAPIPROGRESS, ULONG) override;
  MAPIMETHOD(GetRecipientTable)(ULONG, LPMAPITABLE* lppTable) override {
    if (!lppTable) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    std::vector<std::vector<SPropValue>> rows;
    std::vector<ULONG> keys(m_recipients.size());
    size_t i = 0;
    for (const auto& [rowid, r] : m_recipients) {
      std::vector<SPropValue> row(r.values.get(), r.values.get() + r.count);
      row.push_back(Key(keys[i++], rowid));
      rows.push_back(std::move(row));
    }
    return MakeTable(rows, {PR_ROWID, PR_DISPLAY_NAME_A, PR_EMAIL_ADDRESS_A, PR_RECIPIENT_TYPE, PR_ENTRYID}, lppTable);
  }
  MAPIMETHOD(ModifyRecipients)(ULONG ulFlags, LPADRLIST lpMods) override {
    if (!lpMods) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    if (ulFlags == 0) m_recipients.clear();
    for (ULONG i = 0; i < lpMods->cEntries; ++i) {
      const ADRENTRY& e = lpMods->aEntries[i];
      const SPropValue* rowid = PpropFindProp(e.rgPropVals, e.cValues, PR_ROWID);
      if (ulFlags & MODRECIP_REMOVE) {
        if (rowid) m_recipients.erase(rowid->Value.l);
        continue;
      }
      ULONG id = (ulFlags & MODRECIP_MODIFY) && rowid ? rowid->Value.l : m_nextRow++;
      std::vector<SPropValue> values;
      for (ULONG k = 0; k < e.cValues; ++k) {
        if (e.rgPropVals[k].ulPropTag != PR_ROWID) values.push_back(e.rgPropVals[k]);
      }
      SPropValue r{};
      r.ulPropTag = PR_ROWID;
      r.Value.l = id;
      values.push_back(r);
      LPSPropValue copy = nullptr;
      ScDupPropset(static_cast<int>(values.size()), values.data(), MAPIAllocateBuffer, &copy);
      m_recipients[id] = Recipient{Owned<SPropValue>(copy), static_cast<ULONG>(values.size())};
    }
    return S_OK;
  }
  MAPIMETHOD(SubmitMessage)(ULONG) override {
    LPMAPISUP sup = m_store ? m_store->sup : nullptr;
    if (!sup) return MAPI_E_NO_SUPPORT;
    ULONG flags = 0;
    HRESULT hr = sup->PrepareSubmit(this, &flags);
    if (SUCCEEDED(hr)) hr = sup->ExpandRecips(this, &flags);
    return hr;
  }
  MAPIMETHOD(SetReadFlag)(ULONG) override { return S_OK; }

  size_t RecipientCount() {
    std::lock_guard<std::recursive_mutex> guard(Lock());
    return m_recipients.size();
  }
  Attach* FindAttach(ULONG num);

 protected:
  HRESULT OnSave() override;

 private:
  struct Recipient {
    Owned<SPropValue> values;
    ULONG count = 0;
  };
  std::map<ULONG, Recipient> m_recipients;
  ULONG m_nextRow = 1;
  std::map<ULONG, Attach*> m_attachments;
  ULONG m_nextAttach = 0;
  const ULONG m_folder;  // 0: embedded in an attachment
};

class Attach : public PropObject<IAttach> {
 public:
  Attach(StorePtr store, ULONG num) : PropObject(std::move(store), 0, IID_IAttachment, MAPI_ATTACH) {
    SPropValue n{};
    n.ulPropTag = PR_ATTACH_NUM;
    n.Value.l = num;
    Put(n);
  }
  ~Attach() override {
    if (m_embedded) m_embedded->Release();
  }
  Message* Embedded() { return m_embedded; }

 protected:
  void ExtraTags(std::vector<ULONG>& tags) override {
    if (m_embedded) tags.push_back(PR_ATTACH_DATA_OBJ);
  }
  HRESULT OpenObject(ULONG tag, REFIID iid, ULONG ulFlags, LPUNKNOWN* lppUnk) override {
    if (PROP_ID(tag) != PROP_ID(PR_ATTACH_DATA_OBJ) || iid != IID_IMessage) return MAPI_E_INTERFACE_NOT_SUPPORTED;
    if (!m_embedded) {
      if (!(ulFlags & MAPI_CREATE)) return MAPI_E_NOT_FOUND;
      m_embedded = new Message(m_store, 0, 0, false);
      SPropValue m{};
      m.ulPropTag = PR_ATTACH_METHOD;
      m.Value.l = ATTACH_EMBEDDED_MSG;
      Put(m);
    }
    m_embedded->AddRef();
    *lppUnk = static_cast<IMessage*>(m_embedded);
    return S_OK;
  }

 private:
  Message* m_embedded = nullptr;
};

inline Message::~Message() {
  for (auto& [n, a] : m_attachments) a->Release();
}
inline Attach* Message::FindAttach(ULONG num) {
  std::lock_guard<std::recursive_mutex> guard(Lock());
  auto it = m_attachments.find(num);
  return it == m_attachments.end() ? nullptr : it->second;
}
inline HRESULT Message::GetAttachmentTable(ULONG, LPMAPITABLE* lppTable) {
  if (!lppTable) return MAPI_E_INVALID_PARAMETER;
  std::lock_guard<std::recursive_mutex> guard(Lock());
  std::vector<std::vector<SPropValue>> rows;
  std::vector<ULONG> keys(m_attachments.size());
  size_t i = 0;
  for (const auto& [num, a] : m_attachments) {
    SPropValue n{};
    n.ulPropTag = PR_ATTACH_NUM;
    n.Value.l = num;
    rows.push_back({Key(keys[i++], num), n});
  }
  return MakeTable(rows, {PR_ATTACH_NUM, PR_INSTANCE_KEY}, lppTable);
}
inline HRESULT Message::OpenAttach(ULONG num, LPCIID, ULONG, LPATTACH* lppAttach) {
  if (!lppAttach) return MAPI_E_INVALID_PARAMETER;
  Attach* a = FindAttach(num);
  if (!a) return MAPI_E_NOT_FOUND;
  a->AddRef();
  *lppAttach = a;
  return S_OK;
}
inline HRESULT Message::CreateAttach(LPCIID, ULONG, ULONG* lpulNum, LPATTACH* lppAttach) {
  if (!lpulNum || !lppAttach) return MAPI_E_INVALID_PARAMETER;
  std::lock_guard<std::recursive_mutex> guard(Lock());
  ULONG num = m_nextAttach++;
  Attach* a = new Attach(m_store, num);
  m_attachments[num] = a;
  a->AddRef();
  *lpulNum = num;
  *lppAttach = a;
  return S_OK;
}
inline HRESULT Message::DeleteAttach(ULONG num, ULONG_PTR, LPMAPIPROGRESS, ULONG) {
  std::lock_guard<std::recursive_mutex> guard(Lock());
  auto it = m_attachments.find(num);
  if (it == m_attachments.end()) return MAPI_E_NOT_FOUND;
  it->second->Release();
  m_attachments.erase(it);
  return S_OK;
}

class Folder : public PropObject<IMAPIFolder> {
 public:
  Folder(StorePtr store, ULONG id, ULONG parent, const std::string& name)
      : PropObject(std::move(store), id, IID_IMAPIFolder, MAPI_FOLDER), m_parent(parent) {
    SPropValue n{};
    n.ulPropTag = PR_DISPLAY_NAME_A;
    n.Value.lpszA = const_cast<LPSTR>(name.c_str());
    Put(n);
    if (parent) Put(BinProp(PR_PARENT_ENTRYID, m_store->EntryID(parent)));
  }
  std::vector<ULONG> messages;
  std::vector<ULONG> subfolders;
  ULONG Parent() const { return m_parent; }

  MAPIMETHOD(GetContentsTable)(ULONG ulFlags, LPMAPITABLE* lppTable) override {
    if (!lppTable) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    std::vector<std::vector<SPropValue>> rows;
    std::vector<std::vector<BYTE>> eids;
    std::vector<ULONG> keys(messages.size());
    std::vector<LPSPropValue> held;
    for (size_t i = 0; i < messages.size(); ++i) {
      Message* m = m_store->messages[messages[i]];
      SizedSPropTagArray(2, tags) = {2, {PR_MESSAGE_FLAGS, PR_SUBJECT_A}};
      ULONG n = 0;
      LPSPropValue v = nullptr;
      m->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &v);
      held.push_back(v);
      bool assoc = (v[0].Value.l & 0x40) != 0;
      if (assoc != ((ulFlags & MAPI_ASSOCIATED) != 0)) continue;
      eids.push_back(m->EntryID());
      std::vector<SPropValue> row = {Key(keys[i], messages[i]), BinProp(PR_ENTRYID, eids.back()), v[0]};
      if (v[1].ulPropTag == PR_SUBJECT_A) row.push_back(v[1]);
      rows.push_back(row);
    }
    eids.reserve(messages.size());
    HRESULT hr = MakeTable(rows, {PR_ENTRYID, PR_SUBJECT_A, PR_MESSAGE_FLAGS, PR_INSTANCE_KEY}, lppTable);
    for (auto* v : held) MAPIFreeBuffer(v);
    return hr;
  }
  MAPIMETHOD(GetHierarchyTable)(ULONG, LPMAPITABLE* lppTable) override {
    if (!lppTable) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    std::vector<std::vector<SPropValue>> rows;
    std::vector<std::vector<BYTE>> eids(subfolders.size());
    std::vector<ULONG> keys(subfolders.size());
    for (size_t i = 0; i < subfolders.size(); ++i) {
      eids[i] = m_store->EntryID(subfolders[i]);
      rows.push_back({Key(keys[i], subfolders[i]), BinProp(PR_ENTRYID, eids[i])});
    }
    return MakeTable(rows, {PR_ENTRYID, PR_INSTANCE_KEY}, lppTable);
  }
  MAPIMETHOD(OpenEntry)(ULONG cb, LPENTRYID eid, LPCIID, ULONG, ULONG* lpulObjType, LPUNKNOWN* lppUnk) override;
  MAPIMETHOD(SetSearchCriteria)(LPSRestriction, LPENTRYLIST, ULONG) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(GetSearchCriteria)(ULONG, LPSRestriction*, LPENTRYLIST*, ULONG*) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(CreateMessage)(LPCIID, ULONG ulFlags, LPMESSAGE* lppMessage) override {
    if (!lppMessage) return MAPI_E_INVALID_PARAMETER;
    std::lock_guard<std::recursive_mutex> guard(Lock());
    *lppMessage = new Message(m_store, m_store->nextId++, m_id, (ulFlags & MAPI_ASSOCIATED) != 0);
    return S_OK;
  }
  MAPIMETHOD(CopyMessages)(LPENTRYLIST lpMsgList, LPCIID lpInterface, LPVOID lpDestFolder, ULONG_PTR ulUIParam,
                           LPMAPIPROGRESS lpProgress, ULONG ulFlags) override {
    if (!m_store->sup) return MAPI_E_NO_SUPPORT;
    return m_store->sup->CopyMessages(&IID_IMAPIFolder, static_cast<IMAPIFolder*>(this), lpMsgList,
                                      lpInterface ? lpInterface : &IID_IMAPIFolder, lpDestFolder, ulUIParam,
                                      lpProgress, ulFlags);
  }
  MAPIMETHOD(DeleteMessages)(LPENTRYLIST lpMsgList, ULONG_PTR, LPMAPIPROGRESS, ULONG) override;
  MAPIMETHOD(CreateFolder)(ULONG, LPTSTR lpszFolderName, LPTSTR, LPCIID, ULONG ulFlags, LPMAPIFOLDER* lppFolder) override;
  MAPIMETHOD(CopyFolder)(ULONG cbEntryID, LPENTRYID lpEntryID, LPCIID lpInterface, LPVOID lpDestFolder,
                         LPTSTR lpszNewFolderName, ULONG_PTR ulUIParam, LPMAPIPROGRESS lpProgress,
                         ULONG ulFlags) override {
    if (!m_store->sup) return MAPI_E_NO_SUPPORT;
    return m_store->sup->CopyFolder(&IID_IMAPIFolder, static_cast<IMAPIFolder*>(this), cbEntryID, lpEntryID,
                                    lpInterface ? lpInterface : &IID_IMAPIFolder, lpDestFolder, lpszNewFolderName,
                                    ulUIParam, lpProgress, ulFlags);
  }
  MAPIMETHOD(DeleteFolder)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG_PTR, LPMAPIPROGRESS, ULONG ulFlags) override;
  MAPIMETHOD(SetReadFlags)(LPENTRYLIST, ULONG_PTR, LPMAPIPROGRESS, ULONG) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(GetMessageStatus)(ULONG, LPENTRYID, ULONG, ULONG*) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(SetMessageStatus)(ULONG, LPENTRYID, ULONG, ULONG, ULONG*) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(SaveContentsSort)(LPSSortOrderSet, ULONG) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(EmptyFolder)(ULONG_PTR, LPMAPIPROGRESS, ULONG) override { return MAPI_E_NO_SUPPORT; }

 protected:
  bool Also(REFIID riid) override { return riid == IID_IMAPIContainer; }

 private:
  const ULONG m_parent;
};

inline HRESULT Message::OnSave() {
  if (!m_folder || !m_store) return S_OK;
  auto& saved = m_store->messages[m_id];
  if (saved) return S_OK;
  AddRef();
  saved = this;
  Put(BinProp(PR_PARENT_ENTRYID, m_store->EntryID(m_folder)));
  m_store->folders[m_folder]->messages.push_back(m_id);
  return S_OK;
}

inline HRESULT OpenIn(const StorePtr& store, ULONG cb, LPENTRYID eid, ULONG* type, LPUNKNOWN* unk) {
  if (!type || !unk) return MAPI_E_INVALID_PARAMETER;
  *unk = nullptr;
  std::lock_guard<std::recursive_mutex> guard(store->lock);
  ULONG id = store->IdOf(cb, eid);
  if (auto f = store->folders.find(id); id && f != store->folders.end()) {
    f->second->AddRef();
    *type = MAPI_FOLDER;
    *unk = static_cast<IMAPIFolder*>(f->second);
    return S_OK;
  }
  if (auto m = store->messages.find(id); id && m != store->messages.end()) {
    m->second->AddRef();
    *type = MAPI_MESSAGE;
    *unk = static_cast<IMessage*>(m->second);
    return S_OK;
  }
  return id ? MAPI_E_NOT_FOUND : MAPI_E_INVALID_ENTRYID;
}

inline HRESULT Folder::OpenEntry(ULONG cb, LPENTRYID eid, LPCIID, ULONG, ULONG* lpulObjType, LPUNKNOWN* lppUnk) {
  return OpenIn(m_store, cb, eid, lpulObjType, lppUnk);
}

inline void RemoveMessage(StoreData& store, ULONG id) {
  auto it = store.messages.find(id);
  if (it == store.messages.end()) return;
  it->second->Release();
  store.messages.erase(it);
}

inline HRESULT Folder::DeleteMessages(LPENTRYLIST lpMsgList, ULONG_PTR, LPMAPIPROGRESS, ULONG) {
  if (!lpMsgList) return MAPI_E_INVALID_PARAMETER;
  std::lock_guard<std::recursive_mutex> guard(Lock());
  bool partial = false;
  for (ULONG i = 0; i < lpMsgList->cValues; ++i) {
    ULONG id = m_store->IdOf(lpMsgList->lpbin[i].cb, reinterpret_cast<LPENTRYID>(lpMsgList->lpbin[i].lpb));
    auto it = std::find(messages.begin(), messages.end(), id);
    if (!id || it == messages.end()) {
      partial = true;
      continue;
    }
    messages.erase(it);
    RemoveMessage(*m_store, id);
  }
  return partial ? MAPI_W_PARTIAL_COMPLETION : S_OK;
}

inline std::string FolderName(Folder* f) {
  LPSPropValue v = nullptr;
  std::string name;
  if (SUCCEEDED(HrGetOneProp(f, PR_DISPLAY_NAME_A, &v))) name = v->Value.lpszA;
  MAPIFreeBuffer(v);
  return name;
}

inline HRESULT Folder::CreateFolder(ULONG, LPTSTR lpszFolderName, LPTSTR, LPCIID, ULONG ulFlags,
                                    LPMAPIFOLDER* lppFolder) {
  if (!lppFolder || !lpszFolderName) return MAPI_E_INVALID_PARAMETER;
  std::string name = (ulFlags & MAPI_UNICODE) ? adp::Utf16ToUtf8(reinterpret_cast<char16_t*>(lpszFolderName))
                                              : std::string(reinterpret_cast<char*>(lpszFolderName));
  std::lock_guard<std::recursive_mutex> guard(Lock());
  for (ULONG sub : subfolders) {
    Folder* f = m_store->folders[sub];
    if (FolderName(f) != name) continue;
    if (!(ulFlags & OPEN_IF_EXISTS)) return MAPI_E_COLLISION;
    f->AddRef();
    *lppFolder = f;
    return S_OK;
  }
  ULONG id = m_store->nextId++;
  Folder* f = new Folder(m_store, id, m_id, name);
  m_store->folders[id] = f;
  subfolders.push_back(id);
  f->AddRef();
  *lppFolder = f;
  return S_OK;
}

inline void RemoveFolderTree(StoreData& store, ULONG id) {
  auto it = store.folders.find(id);
  if (it == store.folders.end()) return;
  Folder* f = it->second;
  for (ULONG m : f->messages) RemoveMessage(store, m);
  for (ULONG s : std::vector<ULONG>(f->subfolders)) RemoveFolderTree(store, s);
  store.folders.erase(id);
  f->Release();
}

inline HRESULT Folder::DeleteFolder(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG_PTR, LPMAPIPROGRESS, ULONG ulFlags) {
  std::lock_guard<std::recursive_mutex> guard(Lock());
  ULONG id = m_store->IdOf(cbEntryID, lpEntryID);
  auto it = std::find(subfolders.begin(), subfolders.end(), id);
  if (!id || it == subfolders.end()) return MAPI_E_NOT_FOUND;
  Folder* f = m_store->folders[id];
  if (!f->subfolders.empty() && !(ulFlags & DEL_FOLDERS)) return MAPI_E_HAS_FOLDERS;
  if (!f->messages.empty() && !(ulFlags & DEL_MESSAGES)) return MAPI_E_HAS_MESSAGES;
  subfolders.erase(it);
  RemoveFolderTree(*m_store, id);
  return S_OK;
}

inline StoreData::~StoreData() {
  if (sup) sup->Release();
}

// Objects hold the store data; the registry holds objects: the store breaks the cycle when it goes.
inline void ClearRegistry(StoreData& store) {
  std::map<ULONG, Message*> m;
  std::map<ULONG, Folder*> f;
  {
    std::lock_guard<std::recursive_mutex> guard(store.lock);
    m.swap(store.messages);
    f.swap(store.folders);
  }
  for (auto& [id, p] : m) p->Release();
  for (auto& [id, p] : f) p->Release();
}

// The message store. Its root folder has number 1 and the name "Root"; "Inbox" and "Sent Items"
// are made below it.
class MsgStore : public PropObject<IMsgStore> {
 public:
  explicit MsgStore(StorePtr store) : PropObject(store, 0, IID_IMsgStore, MAPI_STORE) {
    std::lock_guard<std::recursive_mutex> guard(store->lock);
    ULONG root = store->nextId++;
    store->folders[root] = new Folder(store, root, 0, "Root");
    m_root = root;
    LPMAPIFOLDER f = nullptr;
    store->folders[root]->CreateFolder(0, const_cast<LPTSTR>("Inbox"), nullptr, nullptr, 0, &f);
    f->Release();
    store->folders[root]->CreateFolder(0, const_cast<LPTSTR>("Sent Items"), nullptr, nullptr, 0, &f);
    f->Release();
    SPropValue v{};
    v.ulPropTag = PR_DISPLAY_NAME_A;
    v.Value.lpszA = const_cast<LPSTR>("Test Store");
    Put(v);
    Put(BinProp(PR_STORE_RECORD_KEY, std::vector<BYTE>(store->uid.ab, store->uid.ab + 16)));
    Put(BinProp(PR_IPM_SUBTREE_ENTRYID, store->EntryID(root)));
  }
  ~MsgStore() override { ClearRegistry(*m_store); }
  // Store entry IDs given out are wrapped by the support object.
  void SetWrappedEntryID(const std::vector<BYTE>& wrapped) {
    Put(BinProp(PR_ENTRYID, wrapped));
    Put(BinProp(PR_STORE_ENTRYID, wrapped));
  }
  Folder* Find(const std::string& name) {
    std::lock_guard<std::recursive_mutex> guard(Lock());
    for (auto& [id, f] : m_store->folders) {
      if (FolderName(f) == name) return f;
    }
    return nullptr;
  }
  Folder* Root() { return m_store->folders[m_root]; }

  MAPIMETHOD(Advise)(ULONG cbEntryID, LPENTRYID lpEntryID, ULONG ulEventMask, LPMAPIADVISESINK lpAdviseSink,
                     ULONG* lpulConnection) override {
    if (!m_store->sup) return MAPI_E_NO_SUPPORT;
    std::vector<BYTE> key = lpEntryID ? std::vector<BYTE>(reinterpret_cast<BYTE*>(lpEntryID),
                                                          reinterpret_cast<BYTE*>(lpEntryID) + cbEntryID)
                                      : m_store->EntryID(0);
    std::vector<BYTE> buf(sizeof(ULONG) + key.size());
    auto* k = reinterpret_cast<LPNOTIFKEY>(buf.data());
    k->cb = static_cast<ULONG>(key.size());
    std::memcpy(k->ab, key.data(), key.size());
    return m_store->sup->Subscribe(k, ulEventMask, 0, lpAdviseSink, lpulConnection);
  }
  MAPIMETHOD(Unadvise)(ULONG ulConnection) override {
    return m_store->sup ? m_store->sup->Unsubscribe(ulConnection) : MAPI_E_NO_SUPPORT;
  }
  MAPIMETHOD(CompareEntryIDs)(ULONG cb1, LPENTRYID e1, ULONG cb2, LPENTRYID e2, ULONG, ULONG* lpulResult) override {
    if (!lpulResult) return MAPI_E_INVALID_PARAMETER;
    *lpulResult = cb1 == cb2 && e1 && e2 && std::memcmp(e1, e2, cb1) == 0;
    return S_OK;
  }
  MAPIMETHOD(OpenEntry)(ULONG cb, LPENTRYID eid, LPCIID, ULONG, ULONG* lpulObjType, LPUNKNOWN* lppUnk) override {
    if (!eid) {
      std::vector<BYTE> root = m_store->EntryID(m_root);
      return OpenIn(m_store, static_cast<ULONG>(root.size()), reinterpret_cast<LPENTRYID>(root.data()), lpulObjType,
                    lppUnk);
    }
    return OpenIn(m_store, cb, eid, lpulObjType, lppUnk);
  }
  MAPIMETHOD(SetReceiveFolder)(LPTSTR, ULONG, ULONG, LPENTRYID) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(GetReceiveFolder)(LPTSTR, ULONG, ULONG*, LPENTRYID*, LPTSTR*) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(GetReceiveFolderTable)(ULONG, LPMAPITABLE*) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(StoreLogoff)(ULONG* lpulFlags) override {
    if (lpulFlags) *lpulFlags = LOGOFF_COMPLETE;
    return S_OK;
  }
  MAPIMETHOD(AbortSubmit)(ULONG, LPENTRYID, ULONG) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(GetOutgoingQueue)(ULONG, LPMAPITABLE*) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(SetLockState)(LPMESSAGE, ULONG) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(FinishedMsg)(ULONG, ULONG, LPENTRYID) override { return MAPI_E_NO_SUPPORT; }
  MAPIMETHOD(NotifyNewMail)(LPNOTIFICATION) override { return MAPI_E_NO_SUPPORT; }

 private:
  ULONG m_root = 0;
};

// A store on its own (no support object unless one is given).
inline MsgStore* NewStore(LPMAPISUP sup = nullptr, BYTE seed = 0xA0) {
  MAPIUID uid{};
  for (int i = 0; i < 16; ++i) uid.ab[i] = static_cast<BYTE>(seed + i);
  auto data = std::make_shared<StoreData>(uid);
  if (sup) {
    sup->AddRef();
    data->sup = sup;
  }
  return new MsgStore(data);
}

}  // namespace teststore
