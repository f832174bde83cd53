// Holders and helpers for the MAPI calls the commands make: references released, MAPI memory
// freed and rows freed at scope end, failures turned into MapiFailure with the object's own
// GetLastError text, and property values parsed from the command line.
#pragma once
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "mapidefs.h"
#include "mapix.h"

namespace adcli {

// One reference to a MAPI or COM object.
template <class T>
class Ref {
 public:
  Ref() = default;
  ~Ref() { Reset(); }
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  Ref(Ref&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
  Ref& operator=(Ref&& other) noexcept {
    if (this != &other) {
      Reset();
      m_p = std::exchange(other.m_p, nullptr);
    }
    return *this;
  }

  T* Get() const { return m_p; }
  T* operator->() const { return m_p; }
  explicit operator bool() const { return m_p != nullptr; }
  T** Out() {
    Reset();
    return &m_p;
  }
  void Reset() {
    if (m_p) std::exchange(m_p, nullptr)->Release();
  }

 private:
  T* m_p = nullptr;
};

// A block from MAPIAllocateBuffer (with whatever is chained to it).
template <class T>
class MapiBuffer {
 public:
  MapiBuffer() = default;
  ~MapiBuffer() { MAPIFreeBuffer(m_p); }
  MapiBuffer(const MapiBuffer&) = delete;
  MapiBuffer& operator=(const MapiBuffer&) = delete;

  T* Get() const { return m_p; }
  T* operator->() const { return m_p; }
  T** Out() {
    MAPIFreeBuffer(m_p);
    m_p = nullptr;
    return &m_p;
  }

 private:
  T* m_p = nullptr;
};

// Rows from QueryRows or HrQueryAllRows.
class Rows {
 public:
  Rows() = default;
  ~Rows();
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;
  Rows(Rows&& other) noexcept : m_rows(std::exchange(other.m_rows, nullptr)) {}

  LPSRowSet* Out();
  ULONG Count() const { return m_rows ? m_rows->cRows : 0; }
  const SRow& operator[](ULONG i) const { return m_rows->aRow[i]; }

 private:
  LPSRowSet m_rows = nullptr;
};

// COM (a multithreaded apartment) and MAPIInitialize for the life of the object.
class MapiInit {
 public:
  MapiInit();
  ~MapiInit();
  MapiInit(const MapiInit&) = delete;
  MapiInit& operator=(const MapiInit&) = delete;

 private:
  bool m_com;
};

std::string WideToUtf8(const WCHAR* text);

// Throws MapiFailure for a failed hr: "<what>: <the object's error text>".
void Check(HRESULT hr, const std::string& what);
template <class T>
void Check(HRESULT hr, T* object, const std::string& what);

// Every row of a table, with the given columns.
Rows QueryAll(IMAPITable* table, const std::vector<ULONG>& columns);

// Row and property lookups; PT_ERROR values count as absent.
const SPropValue* FindProp(const SRow& row, ULONG ulPropTag);
std::string RowText(const SRow& row, ULONG ulPropTag);
bool RowBool(const SRow& row, ULONG ulPropTag);

// Property values given on the command line as TAG=VALUE. TAG: a property name (PR_DISPLAY_NAME,
// PR_COMMENT, ...) or a tag in hex (0x6601001E); VALUE parsed for the tag's type. Texts are kept
// by the set, so its values stay valid while it lives.
class PropArgs {
 public:
  // Throws UsageError naming the bad argument.
  void Add(const std::string& assignment);
  void AddText(ULONG ulPropTag, const std::string& text);
  ULONG Count() const { return static_cast<ULONG>(m_values.size()); }
  LPSPropValue Values() { return m_values.empty() ? nullptr : m_values.data(); }
  const std::vector<SPropValue>& All() const { return m_values; }

 private:
  void Put(SPropValue value);

  std::vector<SPropValue> m_values;
  std::deque<std::string> m_texts;
  std::deque<std::u16string> m_wide;
};

// A tag from its name or hex form; 0 when unknown.
ULONG ParsePropTag(const std::string& text);

// The profile's service table rows (PR_SERVICE_UID, PR_SERVICE_NAME_A, PR_DISPLAY_NAME_A).
Rows ServiceRows(IMsgServiceAdmin* admin);

template <class T>
void Check(HRESULT hr, T* object, const std::string& what) {
  if (!FAILED(hr)) return;
  std::string detail;
  MapiBuffer<MAPIERROR> error;
  // Asked for wide text: some objects give nothing else whatever the flags say.
  if (object && object->GetLastError(hr, MAPI_UNICODE, error.Out()) == S_OK && error.Get() && error->lpszError) {
    detail = WideToUtf8(reinterpret_cast<const WCHAR*>(error->lpszError));
  }
  throw MapiFailure(hr, detail.empty() ? what : what + ": " + detail);
}

}  // namespace adcli

namespace adcli {

// A MAPI session, logged off and released at scope end.
class Session {
 public:
  // MAPILogonEx on the named profile, or the default one for "". MapiFailure when it fails.
  explicit Session(const std::string& profile);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  IMAPISession* operator->() const { return m_session.Get(); }
  IMAPISession* Get() const { return m_session.Get(); }
  // The profile's own name, from its global section.
  std::string ProfileName() const;

 private:
  Ref<IMAPISession> m_session;
};

// The session's default store (else its only one), opened as a client opens it; *displayName
// receives the store's name from the stores table.
Ref<IMsgStore> OpenDefaultStore(IMAPISession* session, std::string* displayName);

}  // namespace adcli
