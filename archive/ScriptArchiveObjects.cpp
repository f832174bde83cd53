#include "ScriptArchiveObjects.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <new>

#include <adplatform.h>
#include <oleauto.h>
#include <shlobj.h>

#include "ScriptJournal.h"

namespace scriptarchive {
namespace {

// ---- text conversion -----------------------------------------------------------------------

std::string BstrToUtf8(BSTR s) { return s ? adp::Utf16ToUtf8(s, SysStringLen(s)) : std::string(); }

BSTR NewBstr(const std::string& utf8) {
  std::u16string w = adp::Utf8ToUtf16(utf8.c_str(), utf8.size());
  return SysAllocStringLen(w.data(), static_cast<UINT>(w.size()));
}

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

// ---- journal arguments ---------------------------------------------------------------------

std::string Quote(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\', out += c;
    else if (c == '\n') out += "\\n";
    else out += c;
  }
  return out + "\"";
}

std::string Arg(BSTR s) { return s ? Quote(BstrToUtf8(s)) : "null"; }
std::string Arg(LONG n) { return std::to_string(n); }
std::string ArgBool(VARIANT_BOOL b) { return b ? "true" : "false"; }

// The texts of a SAFEARRAY of BSTR; false when it is not one.
bool ReadTexts(SAFEARRAY* psa, std::vector<std::string>& out) {
  VARTYPE vt = VT_EMPTY;
  if (!psa || SafeArrayGetDim(psa) != 1 || FAILED(SafeArrayGetVartype(psa, &vt)) || vt != VT_BSTR) return false;
  LONG lo = 0, hi = -1;
  SafeArrayGetLBound(psa, 1, &lo);
  SafeArrayGetUBound(psa, 1, &hi);
  for (LONG i = lo; i <= hi; ++i) {
    BSTR item = nullptr;
    if (FAILED(SafeArrayGetElement(psa, &i, &item))) return false;
    out.push_back(BstrToUtf8(item));
    SysFreeString(item);
  }
  return true;
}

std::string ArgTexts(SAFEARRAY* psa) {
  std::vector<std::string> items;
  if (!psa) return "null";
  if (!ReadTexts(psa, items)) return "<not an array of texts>";
  std::string out = "[";
  for (size_t i = 0; i < items.size(); ++i) out += (i ? ", " : "") + Quote(items[i]);
  return out + "]";
}

SAFEARRAY* NewTextArray(const std::vector<std::string>& items) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(items.size()));
  if (!psa) return nullptr;
  for (LONG i = 0; i < static_cast<LONG>(items.size()); ++i) {
    BSTR item = NewBstr(items[i]);
    HRESULT hr = SafeArrayPutElement(psa, &i, item);  // copies the BSTR
    SysFreeString(item);
    if (FAILED(hr)) {
      SafeArrayDestroy(psa);
      return nullptr;
    }
  }
  return psa;
}

SAFEARRAY* NewByteArray(const std::vector<uint8_t>& bytes) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
  if (!psa || bytes.empty()) return psa;
  void* data = nullptr;
  if (FAILED(SafeArrayAccessData(psa, &data))) {
    SafeArrayDestroy(psa);
    return nullptr;
  }
  std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t*>(data));
  SafeArrayUnaccessData(psa);
  return psa;
}

// ---- COM plumbing --------------------------------------------------------------------------

// IUnknown and an IDispatch with no type information, for one dual interface I.
template <class I>
class ComObject : public I {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IDispatch && riid != __uuidof(I)) return E_NOINTERFACE;
    *ppv = static_cast<I*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --m_refs;
    if (!left) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* pctinfo) override {
    if (!pctinfo) return E_POINTER;
    *pctinfo = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** ppTInfo) override {
    if (ppTInfo) *ppTInfo = nullptr;
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
    return E_NOTIMPL;
  }

 protected:
  virtual ~ComObject() = default;

 private:
  std::atomic<ULONG> m_refs{1};
};

// Records the call and returns the failure the fixture injects for it (S_OK when none).
HRESULT Enter(Archive& archive, const std::string& who, const char* op, const std::string& args = {}) {
  Journal::Instance().Record(who + "." + op + "(" + args + ")");
  std::lock_guard<std::mutex> lock(archive.mutex);
  auto it = archive.fixture->failures.find(op);
  return it == archive.fixture->failures.end() ? S_OK : static_cast<HRESULT>(it->second);
}

template <class T>
HRESULT PutInterface(T* object, REFIID riid, void** ppv) {
  if (!object) return E_OUTOFMEMORY;
  HRESULT hr = object->QueryInterface(riid, ppv);
  object->Release();
  return hr;
}

// ---- attachment ------------------------------------------------------------------------------

class Attachment final : public ComObject<IZT4ArchiveAttachment> {
 public:
  Attachment(std::shared_ptr<Archive> archive, std::shared_ptr<const AttachmentRecord> rec, std::string who)
      : m_archive(std::move(archive)), m_rec(std::move(rec)), m_who(std::move(who)) {}

  HRESULT STDMETHODCALLTYPE raw_Text(BSTR* p) override { return Text("Text", p); }
  HRESULT STDMETHODCALLTYPE raw_MimeFlagA(VARIANT_BOOL* p) override { return Flag("MimeFlagA", m_rec->mimeFlagA, p); }
  HRESULT STDMETHODCALLTYPE raw_MimeFlagB(VARIANT_BOOL* p) override { return Flag("MimeFlagB", m_rec->mimeFlagB, p); }
  HRESULT STDMETHODCALLTYPE raw_Data(SAFEARRAY** p) override {
    if (!p) return E_POINTER;
    *p = nullptr;
    if (HRESULT hr = Enter(*m_archive, m_who, "Data"); FAILED(hr)) return hr;
    *p = NewByteArray(m_rec->data);
    return *p ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT STDMETHODCALLTYPE raw_RecordKey(BSTR* p) override { return Text("RecordKey", p); }
  HRESULT STDMETHODCALLTYPE raw_FileName(BSTR* p) override { return Text("FileName", p); }
  HRESULT STDMETHODCALLTYPE raw_MimeTag(BSTR* p) override { return Text("MimeTag", p); }
  HRESULT STDMETHODCALLTYPE raw_Hidden(VARIANT_BOOL* p) override { return Flag("Hidden", m_rec->hidden, p); }
  HRESULT STDMETHODCALLTYPE raw_IsEmbeddedMessage(VARIANT_BOOL* p) override {
    return Flag("IsEmbeddedMessage", m_rec->embedded, p);
  }
  HRESULT STDMETHODCALLTYPE raw_ContentId(BSTR* p) override { return Text("ContentId", p); }
  HRESULT STDMETHODCALLTYPE raw_IsBinary(VARIANT_BOOL* p) override { return Flag("IsBinary", m_rec->binary, p); }

 private:
  HRESULT Text(const char* name, BSTR* p) {
    if (!p) return E_POINTER;
    *p = nullptr;
    if (HRESULT hr = Enter(*m_archive, m_who, name); FAILED(hr)) return hr;
    auto it = m_rec->text.find(name);
    *p = NewBstr(it == m_rec->text.end() ? std::string() : it->second);
    return *p ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT Flag(const char* name, bool value, VARIANT_BOOL* p) {
    if (!p) return E_POINTER;
    *p = VARIANT_FALSE;
    if (HRESULT hr = Enter(*m_archive, m_who, name); FAILED(hr)) return hr;
    *p = Bool(value);
    return S_OK;
  }

  std::shared_ptr<Archive> m_archive;
  std::shared_ptr<const AttachmentRecord> m_rec;
  std::string m_who;
};

std::string AttachmentKey(const AttachmentRecord& a, size_t index) {
  auto it = a.text.find("RecordKey");
  return it != a.text.end() && !it->second.empty() ? it->second : std::to_string(index);
}

// ---- message ---------------------------------------------------------------------------------

class Message final : public ComObject<IZT4ArchiveMessage> {
 public:
  Message(std::shared_ptr<Archive> archive, std::shared_ptr<const MessageRecord> rec)
      : m_archive(std::move(archive)), m_rec(std::move(rec)),
        m_who("IZT4ArchiveMessage[" + m_rec->Text("UniqueId") + "]") {}

  HRESULT STDMETHODCALLTYPE raw_UniqueId(BSTR* p) override { return Text("UniqueId", p); }
  HRESULT STDMETHODCALLTYPE raw_SenderName(BSTR* p) override { return Text("SenderName", p); }
  HRESULT STDMETHODCALLTYPE raw_DisplayTo(BSTR* p) override { return Text("DisplayTo", p); }
  HRESULT STDMETHODCALLTYPE raw_DisplayCc(BSTR* p) override { return Text("DisplayCc", p); }
  HRESULT STDMETHODCALLTYPE raw_DisplayBcc(BSTR* p) override { return Text("DisplayBcc", p); }
  HRESULT STDMETHODCALLTYPE raw_ToList(BSTR* p) override { return Text("ToList", p); }
  HRESULT STDMETHODCALLTYPE raw_CcList(BSTR* p) override { return Text("CcList", p); }
  HRESULT STDMETHODCALLTYPE raw_BccList(BSTR* p) override { return Text("BccList", p); }
  HRESULT STDMETHODCALLTYPE raw_Subject(BSTR* p) override { return Text("Subject", p); }
  HRESULT STDMETHODCALLTYPE raw_NormalizedSubject(BSTR* p) override { return Text("NormalizedSubject", p); }
  HRESULT STDMETHODCALLTYPE raw_SenderEmail(BSTR* p) override { return Text("SenderEmail", p); }
  HRESULT STDMETHODCALLTYPE raw_Size(BSTR* p) override { return Text("Size", p); }
  HRESULT STDMETHODCALLTYPE raw_Priority(BSTR* p) override { return Text("Priority", p); }
  HRESULT STDMETHODCALLTYPE raw_Importance(BSTR* p) override { return Text("Importance", p); }
  HRESULT STDMETHODCALLTYPE raw_Sensitivity(BSTR* p) override { return Text("Sensitivity", p); }
  HRESULT STDMETHODCALLTYPE raw_Keywords(SAFEARRAY** p) override {
    if (!p) return E_POINTER;
    *p = nullptr;
    if (HRESULT hr = Enter(*m_archive, m_who, "Keywords"); FAILED(hr)) return hr;
    *p = NewTextArray(m_rec->keywords);
    return *p ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT STDMETHODCALLTYPE raw_ReceivedTime(BSTR* p) override { return Text("ReceivedTime", p); }
  HRESULT STDMETHODCALLTYPE raw_HasAttachments(VARIANT_BOOL* p) override {
    return Flag("HasAttachments", m_rec->hasAttachments.value_or(!m_rec->attachments.empty()), p);
  }
  HRESULT STDMETHODCALLTYPE raw_AttachmentsVisible(VARIANT_BOOL* p) override {
    return Flag("AttachmentsVisible", m_rec->attachmentsVisible, p);
  }
  HRESULT STDMETHODCALLTYPE raw_Attachments(SAFEARRAY** p) override;
  HRESULT STDMETHODCALLTYPE raw_OpenAttachment(BSTR key, IZT4ArchiveAttachment** pp) override;
  HRESULT STDMETHODCALLTYPE raw_Body(BSTR* p) override { return Text("Body", p); }
  HRESULT STDMETHODCALLTYPE raw_MetaData(BSTR* p) override { return Text("MetaData", p); }
  HRESULT STDMETHODCALLTYPE raw_OrigPathInfo(BSTR* p) override { return Text("OrigPathInfo", p); }
  HRESULT STDMETHODCALLTYPE raw_StubInfo(BSTR* p) override { return Text("StubInfo", p); }
  HRESULT STDMETHODCALLTYPE raw_ConversationTopic(BSTR* p) override { return Text("ConversationTopic", p); }
  HRESULT STDMETHODCALLTYPE raw_ConversationIndex(BSTR* p) override { return Text("ConversationIndex", p); }
  HRESULT STDMETHODCALLTYPE raw_RowKind(LONG* p) override { return Number("RowKind", m_rec->rowKind, p); }
  HRESULT STDMETHODCALLTYPE raw_ConversationCount(LONG* p) override {
    return Number("ConversationCount", m_rec->conversationCount, p);
  }
  HRESULT STDMETHODCALLTYPE raw_IsCustomIcon(VARIANT_BOOL* p) override { return Flag("IsCustomIcon", m_rec->customIcon, p); }
  HRESULT STDMETHODCALLTYPE raw_RtfBody(SAFEARRAY** p) override {
    if (!p) return E_POINTER;
    *p = nullptr;
    if (HRESULT hr = Enter(*m_archive, m_who, "RtfBody"); FAILED(hr)) return hr;
    *p = NewByteArray(m_rec->rtfBody);
    return *p ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT STDMETHODCALLTYPE raw_IsRtfBody(VARIANT_BOOL* p) override { return Flag("IsRtfBody", m_rec->rtf, p); }
  HRESULT STDMETHODCALLTYPE raw_TransportHeaders(BSTR* p) override { return Text("TransportHeaders", p); }
  HRESULT STDMETHODCALLTYPE raw_MessageClass(BSTR* p) override { return Text("MessageClass", p); }

 private:
  HRESULT Text(const char* name, BSTR* p) {
    if (!p) return E_POINTER;
    *p = nullptr;
    if (HRESULT hr = Enter(*m_archive, m_who, name); FAILED(hr)) return hr;
    *p = NewBstr(m_rec->Text(name));
    return *p ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT Flag(const char* name, bool value, VARIANT_BOOL* p) {
    if (!p) return E_POINTER;
    *p = VARIANT_FALSE;
    if (HRESULT hr = Enter(*m_archive, m_who, name); FAILED(hr)) return hr;
    *p = Bool(value);
    return S_OK;
  }
  HRESULT Number(const char* name, long value, LONG* p) {
    if (!p) return E_POINTER;
    *p = 0;
    if (HRESULT hr = Enter(*m_archive, m_who, name); FAILED(hr)) return hr;
    *p = static_cast<LONG>(value);
    return S_OK;
  }
  Attachment* MakeAttachment(size_t index) const {
    const auto& rec = m_rec->attachments[index];
    std::string who = "IZT4ArchiveAttachment[" + m_rec->Text("UniqueId") + "/" + AttachmentKey(*rec, index) + "]";
    return new (std::nothrow) Attachment(m_archive, rec, std::move(who));
  }

  std::shared_ptr<Archive> m_archive;
  std::shared_ptr<const MessageRecord> m_rec;
  std::string m_who;
};

HRESULT Message::raw_Attachments(SAFEARRAY** p) {
  if (!p) return E_POINTER;
  *p = nullptr;
  if (HRESULT hr = Enter(*m_archive, m_who, "Attachments"); FAILED(hr)) return hr;
  SAFEARRAY* psa = SafeArrayCreateVector(VT_DISPATCH, 0, static_cast<ULONG>(m_rec->attachments.size()));
  if (!psa) return E_OUTOFMEMORY;
  for (LONG i = 0; i < static_cast<LONG>(m_rec->attachments.size()); ++i) {
    Attachment* a = MakeAttachment(static_cast<size_t>(i));
    HRESULT hr = a ? SafeArrayPutElement(psa, &i, static_cast<IDispatch*>(a)) : E_OUTOFMEMORY;  // AddRefs
    if (a) a->Release();
    if (FAILED(hr)) {
      SafeArrayDestroy(psa);
      return hr;
    }
  }
  *p = psa;
  return S_OK;
}

HRESULT Message::raw_OpenAttachment(BSTR key, IZT4ArchiveAttachment** pp) {
  if (!pp) return E_POINTER;
  *pp = nullptr;
  if (HRESULT hr = Enter(*m_archive, m_who, "OpenAttachment", Arg(key)); FAILED(hr)) return hr;
  const std::string wanted = BstrToUtf8(key);
  for (size_t i = 0; i < m_rec->attachments.size(); ++i) {
    const auto& rec = *m_rec->attachments[i];
    auto name = rec.text.find("FileName");
    if (AttachmentKey(rec, i) == wanted || (name != rec.text.end() && name->second == wanted))
      return PutInterface(MakeAttachment(i), __uuidof(IZT4ArchiveAttachment), reinterpret_cast<void**>(pp));
  }
  return S_OK;  // not found: a null attachment
}

// ---- search condition ------------------------------------------------------------------------

class Condition final : public ComObject<IZT4SearchCondition> {
 public:
  Condition(std::shared_ptr<Archive> archive, int number)
      : m_archive(std::move(archive)), m_who("IZT4SearchCondition[" + std::to_string(number) + "]") {}

  const std::string& Who() const { return m_who; }
  std::string subject, sender, content, uniqueId;

  HRESULT STDMETHODCALLTYPE raw_SetUniqueId(BSTR v) override { return Keep("SetUniqueId", v, &uniqueId); }
  HRESULT STDMETHODCALLTYPE raw_AddChild(IZT4SearchCondition* child) override {
    auto* mine = dynamic_cast<Condition*>(child);
    return Enter(*m_archive, m_who, "AddChild", child ? (mine ? mine->Who() : "foreign") : "null");
  }
  HRESULT STDMETHODCALLTYPE raw_SetSubject(BSTR v) override { return Keep("SetSubject", v, &subject); }
  HRESULT STDMETHODCALLTYPE raw_SetSender(BSTR v) override { return Keep("SetSender", v, &sender); }
  HRESULT STDMETHODCALLTYPE raw_SetCc(BSTR v) override { return Keep("SetCc", v, nullptr); }
  HRESULT STDMETHODCALLTYPE raw_SetBcc(BSTR v) override { return Keep("SetBcc", v, nullptr); }
  HRESULT STDMETHODCALLTYPE raw_SetTo(BSTR v) override { return Keep("SetTo", v, nullptr); }
  HRESULT STDMETHODCALLTYPE raw_SetOperator(BSTR v) override {
    std::string op = BstrToUtf8(v);
    HRESULT hr = Enter(*m_archive, m_who, "SetOperator", Arg(v));
    if (FAILED(hr)) return hr;
    return op == "AND" || op == "OR" || op == "NOT" ? S_OK : E_INVALIDARG;
  }
  HRESULT STDMETHODCALLTYPE raw_SetContent(BSTR v) override { return Keep("SetContent", v, &content); }
  HRESULT STDMETHODCALLTYPE raw_SetTime(LONG t, LONG relop) override {
    return Enter(*m_archive, m_who, "SetTime", Arg(t) + ", " + Arg(relop));
  }
  HRESULT STDMETHODCALLTYPE raw_SetSize(LONG size, LONG relop) override {
    return Enter(*m_archive, m_who, "SetSize", Arg(size) + ", " + Arg(relop));
  }
  HRESULT STDMETHODCALLTYPE raw_SetHasAttachments(VARIANT_BOOL v) override {
    return Enter(*m_archive, m_who, "SetHasAttachments", ArgBool(v));
  }
  HRESULT STDMETHODCALLTYPE raw_SetSensitivity(LONG v) override { return Enter(*m_archive, m_who, "SetSensitivity", Arg(v)); }
  HRESULT STDMETHODCALLTYPE raw_SetImportance(LONG v) override { return Enter(*m_archive, m_who, "SetImportance", Arg(v)); }
  HRESULT STDMETHODCALLTYPE raw_SetPriority(LONG v) override { return Enter(*m_archive, m_who, "SetPriority", Arg(v)); }
  HRESULT STDMETHODCALLTYPE raw_SetKeywords(BSTR v) override { return Keep("SetKeywords", v, nullptr); }
  HRESULT STDMETHODCALLTYPE raw_SetFolder(BSTR v) override { return Keep("SetFolder", v, nullptr); }
  HRESULT STDMETHODCALLTYPE raw_SetRecursive(VARIANT_BOOL v) override {
    return Enter(*m_archive, m_who, "SetRecursive", ArgBool(v));
  }

  // Subject, sender, content and unique id narrow the hits; other criteria are only recorded.
  bool Matches(const MessageRecord& m) const {
    auto has = [](const std::string& text, const std::string& part) {
      return part.empty() || text.find(part) != std::string::npos;
    };
    return has(m.Text("Subject"), subject) &&
           (has(m.Text("SenderName"), sender) || has(m.Text("SenderEmail"), sender)) &&
           (has(m.Text("Body"), content) || has(m.Text("Subject"), content)) &&
           (uniqueId.empty() || m.Text("UniqueId") == uniqueId);
  }

 private:
  HRESULT Keep(const char* op, BSTR v, std::string* field) {
    HRESULT hr = Enter(*m_archive, m_who, op, Arg(v));
    if (SUCCEEDED(hr) && field) *field = BstrToUtf8(v);
    return hr;
  }

  std::shared_ptr<Archive> m_archive;
  std::string m_who;
};

std::atomic<int> g_conditionNumber{0};

std::string ArgCondition(IZT4SearchCondition* c) {
  if (!c) return "null";
  auto* mine = dynamic_cast<Condition*>(c);
  return mine ? mine->Who() : "foreign";
}

// ---- folder ----------------------------------------------------------------------------------

SAFEARRAY* NewMessageArray(const std::shared_ptr<Archive>& archive,
                           const std::vector<std::shared_ptr<const MessageRecord>>& records) {
  SAFEARRAY* psa = SafeArrayCreateVector(VT_DISPATCH, 0, static_cast<ULONG>(records.size()));
  if (!psa) return nullptr;
  for (LONG i = 0; i < static_cast<LONG>(records.size()); ++i) {
    auto* m = new (std::nothrow) Message(archive, records[static_cast<size_t>(i)]);
    HRESULT hr = m ? SafeArrayPutElement(psa, &i, static_cast<IDispatch*>(m)) : E_OUTOFMEMORY;
    if (m) m->Release();
    if (FAILED(hr)) {
      SafeArrayDestroy(psa);
      return nullptr;
    }
  }
  return psa;
}

std::vector<std::shared_ptr<const MessageRecord>> Page(const std::vector<std::shared_ptr<const MessageRecord>>& all,
                                                       LONG start, LONG count) {
  if (start >= static_cast<LONG>(all.size())) return {};
  auto first = all.begin() + start;
  auto last = count == 0 || count >= static_cast<LONG>(all.end() - first) ? all.end() : first + count;
  return {first, last};
}

void CollectAll(const FolderRecord& folder, const Condition* cond,
                std::vector<std::shared_ptr<const MessageRecord>>& out, bool recurse) {
  for (const auto& m : folder.messages)
    if (!cond || cond->Matches(*m)) out.push_back(m);
  if (recurse)
    for (const auto& child : folder.children) CollectAll(*child, cond, out, true);
}

class Folder final : public ComObject<IZT4ArchiveFolder> {
 public:
  Folder(std::shared_ptr<Archive> archive, FolderRecord* rec, const std::string& path)
      : m_archive(std::move(archive)), m_rec(rec), m_who("IZT4ArchiveFolder[" + path + "]") {}

  HRESULT STDMETHODCALLTYPE raw_ReadMessages(LONG start, LONG count, VARIANT_BOOL allowOld, VARIANT_BOOL conv,
                                             SAFEARRAY** pp) override {
    if (!pp) return E_POINTER;
    *pp = nullptr;
    std::string args = Arg(start) + ", " + Arg(count) + ", " + ArgBool(allowOld) + ", " + ArgBool(conv);
    if (HRESULT hr = Enter(*m_archive, m_who, "ReadMessages", args); FAILED(hr)) return hr;
    if (start < 0 || count < 0) return E_INVALIDARG;
    std::vector<std::shared_ptr<const MessageRecord>> page;
    {
      std::lock_guard<std::mutex> lock(m_archive->mutex);
      page = Page(Sorted(m_rec->messages), start, count);
    }
    *pp = NewMessageArray(m_archive, page);
    return *pp ? S_OK : E_OUTOFMEMORY;
  }

  HRESULT STDMETHODCALLTYPE raw_OpenMessage(BSTR uniqueId, IZT4ArchiveMessage** pp) override {
    if (!pp) return E_POINTER;
    *pp = nullptr;
    if (HRESULT hr = Enter(*m_archive, m_who, "OpenMessage", Arg(uniqueId)); FAILED(hr)) return hr;
    const std::string id = BstrToUtf8(uniqueId);
    std::shared_ptr<const MessageRecord> found;
    {
      std::lock_guard<std::mutex> lock(m_archive->mutex);
      for (const auto& m : m_rec->messages)
        if (m->Text("UniqueId") == id) found = m;
    }
    if (!found) return S_OK;  // not there: a null record
    return PutInterface(new (std::nothrow) Message(m_archive, found), __uuidof(IZT4ArchiveMessage),
                        reinterpret_cast<void**>(pp));
  }

  HRESULT STDMETHODCALLTYPE raw_SearchMessages(LONG start, LONG count, BSTR folder, BSTR smtp,
                                               IZT4SearchCondition* condition, VARIANT_BOOL conv,
                                               SAFEARRAY** pp) override {
    if (!pp) return E_POINTER;
    *pp = nullptr;
    std::string args = Arg(start) + ", " + Arg(count) + ", " + Arg(folder) + ", " + Arg(smtp) + ", " +
                       ArgCondition(condition) + ", " + ArgBool(conv);
    if (HRESULT hr = Enter(*m_archive, m_who, "SearchMessages", args); FAILED(hr)) return hr;
    if (start < 0 || count < 0) return E_INVALIDARG;
    std::vector<std::shared_ptr<const MessageRecord>> hits;
    {
      std::lock_guard<std::mutex> lock(m_archive->mutex);
      hits = Page(Hits(BstrToUtf8(folder), condition), start, count);
    }
    *pp = NewMessageArray(m_archive, hits);
    return *pp ? S_OK : E_OUTOFMEMORY;
  }

  HRESULT STDMETHODCALLTYPE raw_CountMessages(BSTR folder, IZT4SearchCondition* condition, VARIANT_BOOL conv,
                                              LONG* pCount) override {
    if (!pCount) return E_POINTER;
    *pCount = 0;
    std::string args = Arg(folder) + ", " + ArgCondition(condition) + ", " + ArgBool(conv);
    if (HRESULT hr = Enter(*m_archive, m_who, "CountMessages", args); FAILED(hr)) return hr;
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    LONG n = static_cast<LONG>(condition ? Hits(BstrToUtf8(folder), condition).size() : m_rec->messages.size());
    // Beyond the folder's conversation limit the answer is the negated limit.
    LONG limit = static_cast<LONG>(m_rec->conversationLimit);
    *pCount = conv && limit > 0 && n > limit ? -limit : n;
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE raw_SetSortOrder(LONG column, BSTR direction) override {
    if (HRESULT hr = Enter(*m_archive, m_who, "SetSortOrder", Arg(column) + ", " + Arg(direction)); FAILED(hr))
      return hr;
    const std::string dir = BstrToUtf8(direction);
    if (dir != "Ascending" && dir != "Descending") return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    m_descending = dir == "Descending";
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE raw_RemoveMessages(SAFEARRAY* ids, LONG* pResult) override {
    if (!pResult) return E_POINTER;
    *pResult = 0;
    if (HRESULT hr = Enter(*m_archive, m_who, "RemoveMessages", ArgTexts(ids)); FAILED(hr)) return hr;
    std::vector<std::string> wanted;
    if (!ReadTexts(ids, wanted)) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    *pResult = static_cast<LONG>(m_rec->removeResult);
    if (m_rec->removeResult != 0) return S_OK;  // a refusal leaves the records in place
    std::erase_if(m_rec->messages, [&](const auto& m) {
      return std::find(wanted.begin(), wanted.end(), m->Text("UniqueId")) != wanted.end();
    });
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE raw_SetInitialSyncCompleted(VARIANT_BOOL completed) override {
    return Enter(*m_archive, m_who, "SetInitialSyncCompleted", ArgBool(completed));
  }

  HRESULT STDMETHODCALLTYPE raw_LocateRow(IZT4SearchCondition* value, LONG comparator, BSTR folder,
                                          IZT4SearchCondition* condition, VARIANT_BOOL conv, LONG* pRow) override {
    if (!pRow) return E_POINTER;
    *pRow = -1;
    std::string args = ArgCondition(value) + ", " + Arg(comparator) + ", " + Arg(folder) + ", " +
                       ArgCondition(condition) + ", " + ArgBool(conv);
    if (HRESULT hr = Enter(*m_archive, m_who, "LocateRow", args); FAILED(hr)) return hr;
    auto* wanted = dynamic_cast<Condition*>(value);
    if (!wanted) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    auto rows = Sorted(m_rec->messages);
    for (size_t i = 0; i < rows.size(); ++i)
      if (wanted->Matches(*rows[i])) {
        *pRow = static_cast<LONG>(i);
        break;
      }
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE raw_ClearCache() override { return Enter(*m_archive, m_who, "ClearCache"); }

 private:
  // Callers hold the archive lock.
  std::vector<std::shared_ptr<const MessageRecord>> Sorted(std::vector<std::shared_ptr<const MessageRecord>> v) const {
    if (m_descending) std::reverse(v.begin(), v.end());
    return v;
  }
  std::vector<std::shared_ptr<const MessageRecord>> Hits(const std::string& folder, IZT4SearchCondition* c) const {
    std::vector<std::shared_ptr<const MessageRecord>> hits;
    const FolderRecord* scope = folder.empty() ? &m_archive->fixture->root : m_archive->fixture->Find(folder);
    if (scope) CollectAll(*scope, dynamic_cast<Condition*>(c), hits, folder.empty());
    return hits;
  }

  std::shared_ptr<Archive> m_archive;
  FolderRecord* m_rec;
  std::string m_who;
  bool m_descending = false;
};

// ---- configuration ---------------------------------------------------------------------------

std::string DefaultLogFolder() {
  PWSTR pwszFolder = nullptr;
  std::string folder;
  if (SUCCEEDED(SHGetKnownFolderPath(FOLDERID_LocalAppData, 0, nullptr, &pwszFolder)) && pwszFolder)
    folder = adp::Utf16ToUtf8(pwszFolder) + "\\Larkmoor Systems\\Nimbrel\\LogFiles";
  CoTaskMemFree(pwszFolder);
  return folder;
}

class Config final : public ComObject<IZT4ProviderConfig> {
 public:
  explicit Config(std::shared_ptr<Archive> archive) : m_archive(std::move(archive)) {}

  HRESULT STDMETHODCALLTYPE raw_GetLogLevel(LONG* p) override { return Number("GetLogLevel", "LogLevel", p); }
  // Without a folder of its own the fixture logs where the product keeps its logs.
  HRESULT STDMETHODCALLTYPE raw_GetLogFileName(BSTR* p) override {
    HRESULT hr = Text("GetLogFileName", "LogFileName", p);
    if (FAILED(hr) || SysStringLen(*p) != 0) return hr;
    SysFreeString(*p);
    *p = NewBstr(DefaultLogFolder());
    return *p ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT STDMETHODCALLTYPE raw_MaxListCount(LONG* p) override { return Number("MaxListCount", "MaxListCount", p); }
  HRESULT STDMETHODCALLTYPE raw_MaxSearchCount(LONG* p) override { return Number("MaxSearchCount", "MaxSearchCount", p); }
  HRESULT STDMETHODCALLTYPE raw_LogSize(LONG* p) override { return Number("LogSize", "LogSize", p); }
  HRESULT STDMETHODCALLTYPE raw_MaxFiles(LONG* p) override { return Number("MaxFiles", "MaxFiles", p); }
  HRESULT STDMETHODCALLTYPE raw_FolderHomePageUrl(BSTR* p) override {
    return Text("FolderHomePageUrl", "FolderHomePageUrl", p);
  }
  HRESULT STDMETHODCALLTYPE raw_SyncIntervalMinutes(LONG* p) override {
    return Number("SyncIntervalMinutes", "SyncIntervalMinutes", p);
  }
  HRESULT STDMETHODCALLTYPE raw_QueryUserDetails(BSTR legacyDN, BSTR* pUser, BSTR* pDisplay, BSTR* pSmtp,
                                                 VARIANT_BOOL* pResult) override;
  HRESULT STDMETHODCALLTYPE raw_UseLocalizedFolderNames(LONG* p) override {
    return Number("UseLocalizedFolderNames", "UseLocalizedFolderNames", p);
  }

 private:
  HRESULT Number(const char* op, const char* key, LONG* p) {
    if (!p) return E_POINTER;
    *p = 0;
    if (HRESULT hr = Enter(*m_archive, "IZT4ProviderConfig", op); FAILED(hr)) return hr;
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    *p = static_cast<LONG>(m_archive->fixture->Value(key));
    return S_OK;
  }
  HRESULT Text(const char* op, const char* key, BSTR* p) {
    if (!p) return E_POINTER;
    *p = nullptr;
    if (HRESULT hr = Enter(*m_archive, "IZT4ProviderConfig", op); FAILED(hr)) return hr;
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    auto it = m_archive->fixture->texts.find(key);
    *p = NewBstr(it == m_archive->fixture->texts.end() ? std::string() : it->second);
    return *p ? S_OK : E_OUTOFMEMORY;
  }

  std::shared_ptr<Archive> m_archive;
};

HRESULT Config::raw_QueryUserDetails(BSTR legacyDN, BSTR* pUser, BSTR* pDisplay, BSTR* pSmtp, VARIANT_BOOL* pResult) {
  if (!pUser || !pDisplay || !pSmtp || !pResult) return E_POINTER;
  *pUser = *pDisplay = *pSmtp = nullptr;
  *pResult = VARIANT_FALSE;
  if (HRESULT hr = Enter(*m_archive, "IZT4ProviderConfig", "QueryUserDetails", Arg(legacyDN)); FAILED(hr)) return hr;
  std::lock_guard<std::mutex> lock(m_archive->mutex);
  auto it = m_archive->fixture->users.find(BstrToUtf8(legacyDN));
  if (it == m_archive->fixture->users.end()) return S_OK;
  *pUser = NewBstr(it->second.userName);
  *pDisplay = NewBstr(it->second.displayName);
  *pSmtp = NewBstr(it->second.smtp);
  if (!*pUser || !*pDisplay || !*pSmtp) {
    SysFreeString(*pUser), SysFreeString(*pDisplay), SysFreeString(*pSmtp);
    *pUser = *pDisplay = *pSmtp = nullptr;
    return E_OUTOFMEMORY;
  }
  *pResult = VARIANT_TRUE;
  return S_OK;
}

// ---- provider --------------------------------------------------------------------------------

const char* const kProvider = "IZT4DataProvider";

class Provider final : public ComObject<IZT4DataProvider> {
 public:
  explicit Provider(std::shared_ptr<Archive> archive) : m_archive(std::move(archive)) {}

  HRESULT STDMETHODCALLTYPE raw_GetFolderNames(BSTR folder, BSTR smtp, SAFEARRAY** pp) override {
    if (!pp) return E_POINTER;
    *pp = nullptr;
    if (HRESULT hr = Enter(*m_archive, kProvider, "GetFolderNames", Arg(folder) + ", " + Arg(smtp)); FAILED(hr))
      return hr;
    std::vector<std::string> names;
    {
      std::lock_guard<std::mutex> lock(m_archive->mutex);
      const FolderRecord* f = m_archive->fixture->Find(BstrToUtf8(folder));
      if (!f || f->children.empty()) return S_OK;  // null array: no children known
      for (const auto& c : f->children) names.push_back(c->name);
    }
    *pp = NewTextArray(names);
    return *pp ? S_OK : E_OUTOFMEMORY;
  }

  HRESULT STDMETHODCALLTYPE raw_GetServerFolder(BSTR folder, BSTR smtp, IZT4ArchiveFolder** pp) override {
    if (!pp) return E_POINTER;
    *pp = nullptr;
    if (HRESULT hr = Enter(*m_archive, kProvider, "GetServerFolder", Arg(folder) + ", " + Arg(smtp)); FAILED(hr))
      return hr;
    const std::string path = BstrToUtf8(folder);
    FolderRecord* f = nullptr;
    {
      std::lock_guard<std::mutex> lock(m_archive->mutex);
      f = SplitPath(path).empty() ? nullptr : m_archive->fixture->Find(path);
    }
    if (!f) return S_OK;  // a folder the server lacks is a null folder, not an error
    return PutInterface(new (std::nothrow) Folder(m_archive, f, path), __uuidof(IZT4ArchiveFolder),
                        reinterpret_cast<void**>(pp));
  }

  HRESULT STDMETHODCALLTYPE raw_RegisterMailbox(BSTR store, BSTR smtp, LONG* p) override {
    return Number("RegisterMailbox", "RegisterMailboxResult", p, Arg(store) + ", " + Arg(smtp));
  }

  HRESULT STDMETHODCALLTYPE raw_CreateSearchCondition(IZT4SearchCondition** pp) override {
    if (!pp) return E_POINTER;
    *pp = nullptr;
    if (HRESULT hr = Enter(*m_archive, kProvider, "CreateSearchCondition"); FAILED(hr)) return hr;
    return PutInterface(new (std::nothrow) Condition(m_archive, ++g_conditionNumber), __uuidof(IZT4SearchCondition),
                        reinterpret_cast<void**>(pp));
  }

  HRESULT STDMETHODCALLTYPE raw_GetConfigurationParams(IZT4ProviderConfig** pp) override {
    if (!pp) return E_POINTER;
    *pp = nullptr;
    if (HRESULT hr = Enter(*m_archive, kProvider, "GetConfigurationParams"); FAILED(hr)) return hr;
    if (!Is("ConfigurationAvailable")) return S_OK;
    return PutInterface(new (std::nothrow) Config(m_archive), __uuidof(IZT4ProviderConfig),
                        reinterpret_cast<void**>(pp));
  }

  HRESULT STDMETHODCALLTYPE raw_GetLastProviderError(LONG* p) override {
    return Number("GetLastProviderError", "LastProviderError", p);
  }
  HRESULT STDMETHODCALLTYPE raw_IsCachedMode(VARIANT_BOOL* p) override { return Flag("IsCachedMode", p); }
  HRESULT STDMETHODCALLTYPE raw_IsFirstSyncDue(VARIANT_BOOL* p) override { return Flag("IsFirstSyncDue", p); }
  HRESULT STDMETHODCALLTYPE raw_ShowConfigurationDialog() override {
    return Enter(*m_archive, kProvider, "ShowConfigurationDialog");
  }
  HRESULT STDMETHODCALLTYPE raw_IsLoggedIn(VARIANT_BOOL* p) override { return Flag("IsLoggedIn", p); }
  HRESULT STDMETHODCALLTYPE raw_IsShuttingDown(VARIANT_BOOL* p) override { return Flag("IsShuttingDown", p); }
  HRESULT STDMETHODCALLTYPE raw_NotifySyncThreadStarted() override {
    return Enter(*m_archive, kProvider, "NotifySyncThreadStarted");
  }
  HRESULT STDMETHODCALLTYPE raw_NotifySyncRound() override { return Enter(*m_archive, kProvider, "NotifySyncRound"); }
  HRESULT STDMETHODCALLTYPE raw_IsConversationViewEnabled(VARIANT_BOOL* p) override {
    return Flag("IsConversationViewEnabled", p);
  }
  HRESULT STDMETHODCALLTYPE raw_IsConversationDataAvailable(VARIANT_BOOL* p) override {
    return Flag("IsConversationDataAvailable", p);
  }
  // Never blocks: the scripted network is always back.
  HRESULT STDMETHODCALLTYPE raw_WaitForNetwork() override { return Enter(*m_archive, kProvider, "WaitForNetwork"); }
  HRESULT STDMETHODCALLTYPE raw_PrepareInitialSync() override {
    return Enter(*m_archive, kProvider, "PrepareInitialSync");
  }

  HRESULT STDMETHODCALLTYPE raw_SaveDefaultFolderNames(SAFEARRAY* names) override {
    if (HRESULT hr = Enter(*m_archive, kProvider, "SaveDefaultFolderNames", ArgTexts(names)); FAILED(hr)) return hr;
    std::vector<std::string> items;
    if (!ReadTexts(names, items)) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    m_archive->savedDefaultNames = std::move(items);
    m_archive->defaultNamesSaved = true;
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE raw_LoadDefaultFolderNames(SAFEARRAY** pp) override {
    if (!pp) return E_POINTER;
    *pp = nullptr;
    if (HRESULT hr = Enter(*m_archive, kProvider, "LoadDefaultFolderNames"); FAILED(hr)) return hr;
    std::vector<std::string> names;
    {
      std::lock_guard<std::mutex> lock(m_archive->mutex);
      names = m_archive->defaultNamesSaved ? m_archive->savedDefaultNames : m_archive->fixture->defaultFolderNames;
    }
    *pp = NewTextArray(names);
    return *pp ? S_OK : E_OUTOFMEMORY;
  }

  HRESULT STDMETHODCALLTYPE raw_IsSearchReady(VARIANT_BOOL* p) override { return Flag("IsSearchReady", p); }

 private:
  bool Is(const char* name) {
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    return m_archive->fixture->Switch(name);
  }
  HRESULT Flag(const char* name, VARIANT_BOOL* p) {
    if (!p) return E_POINTER;
    *p = VARIANT_FALSE;
    if (HRESULT hr = Enter(*m_archive, kProvider, name); FAILED(hr)) return hr;
    *p = Bool(Is(name));
    return S_OK;
  }
  HRESULT Number(const char* op, const char* key, LONG* p, const std::string& args = {}) {
    if (!p) return E_POINTER;
    *p = 0;
    if (HRESULT hr = Enter(*m_archive, kProvider, op, args); FAILED(hr)) return hr;
    std::lock_guard<std::mutex> lock(m_archive->mutex);
    *p = static_cast<LONG>(m_archive->fixture->Value(key));
    return S_OK;
  }

  std::shared_ptr<Archive> m_archive;
};

}  // namespace

HRESULT CreateProvider(std::shared_ptr<Archive> archive, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  return PutInterface(new (std::nothrow) Provider(std::move(archive)), riid, ppv);
}

}  // namespace scriptarchive
