// COM runtime: per-thread initialisation, activation of in-process servers from the registry,
// ProgIDs, the active-object table, task memory and per-thread error objects.
#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "adplatform.h"
#include "adplatform_com.h"
#include "guid_text.h"
#include "libloaderapi.h"
#include "objbase.h"
#include "winreg.h"

namespace {

// ---- Apartments -------------------------------------------------------------------------------

// Threads currently initialised into the multithreaded apartment; while there is one, an
// uninitialised thread uses COM as a member of it (the published implicit MTA).
std::atomic<int> g_mtaThreads{0};

struct ThreadApartment {
  ULONG inits = 0;
  bool multithreaded = false;
  ~ThreadApartment() {
    if (inits && multithreaded) g_mtaThreads.fetch_sub(1);
  }
};
thread_local ThreadApartment t_apartment;

bool ComUsable() { return t_apartment.inits > 0 || g_mtaThreads.load() > 0; }

// ---- Registry ---------------------------------------------------------------------------------

class RegKey {
 public:
  RegKey() = default;
  ~RegKey() {
    if (m_key) RegCloseKey(m_key);
  }
  RegKey(const RegKey&) = delete;
  RegKey& operator=(const RegKey&) = delete;
  PHKEY Receive() { return &m_key; }
  HKEY Get() const { return m_key; }

 private:
  HKEY m_key = nullptr;
};

// The default REG_SZ value of root\subkey, or false.
bool ReadDefaultString(HKEY root, const std::string& subkey, std::string* out) {
  RegKey key;
  if (RegOpenKeyExA(root, subkey.c_str(), 0, KEY_READ, key.Receive()) != ERROR_SUCCESS) return false;
  DWORD type = 0, cb = 0;
  if (RegQueryValueExA(key.Get(), nullptr, nullptr, &type, nullptr, &cb) != ERROR_SUCCESS) return false;
  if ((type != REG_SZ && type != REG_EXPAND_SZ) || cb == 0) return false;
  std::vector<char> data(cb + 1, 0);
  if (RegQueryValueExA(key.Get(), nullptr, nullptr, &type, reinterpret_cast<LPBYTE>(data.data()), &cb) !=
      ERROR_SUCCESS)
    return false;
  out->assign(data.data());
  return !out->empty();
}

HRESULT WriteDefaultString(HKEY root, const std::string& subkey, const std::string& value) {
  RegKey key;
  LSTATUS rc = RegCreateKeyExA(root, subkey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_WRITE, nullptr,
                               key.Receive(), nullptr);
  if (rc == ERROR_SUCCESS)
    rc = RegSetValueExA(key.Get(), nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                        static_cast<DWORD>(value.size() + 1));
  return rc == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(rc);
}

std::string InprocServerKey(REFCLSID clsid) { return "CLSID\\" + adp::com::FormatBraced(clsid) + "\\InprocServer32"; }

// ---- Server libraries -------------------------------------------------------------------------

struct ServerLibraries {
  // Guards `entries` only; not held while a library loads, since a module's initialisers may
  // use COM themselves.
  std::mutex lock;
  std::map<std::string, LPFNGETCLASSOBJECT> entries;
};

ServerLibraries& Libraries() {
  static ServerLibraries* libraries = new ServerLibraries;  // libraries stay loaded for the process
  return *libraries;
}

// DllGetClassObject of the library at path, loading it the first time.
HRESULT EntryOf(const std::string& path, LPFNGETCLASSOBJECT* entry) {
  ServerLibraries& libs = Libraries();
  {
    std::lock_guard<std::mutex> guard(libs.lock);
    auto it = libs.entries.find(path);
    if (it != libs.entries.end()) {
      *entry = it->second;
      return S_OK;
    }
  }
  HMODULE module = LoadLibraryA(path.c_str());
  if (!module) return CO_E_DLLNOTFOUND;
  auto found = reinterpret_cast<LPFNGETCLASSOBJECT>(reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
  if (!found) {
    FreeLibrary(module);
    return CO_E_ERRORINDLL;
  }
  std::lock_guard<std::mutex> guard(libs.lock);
  // A racing first caller may have stored it already; the loader counts both loads.
  *entry = libs.entries.emplace(path, found).first->second;
  return S_OK;
}

HRESULT ClassObjectOf(REFCLSID rclsid, DWORD dwClsContext, REFIID riid, LPVOID* ppv) {
  if (!(dwClsContext & (CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER))) return REGDB_E_CLASSNOTREG;
  std::string path;
  if (!ReadDefaultString(HKEY_CLASSES_ROOT, InprocServerKey(rclsid), &path)) return REGDB_E_CLASSNOTREG;
  LPFNGETCLASSOBJECT entry;
  HRESULT hr = EntryOf(path, &entry);
  if (FAILED(hr)) return hr;
  hr = entry(rclsid, riid, ppv);
  if (SUCCEEDED(hr) && !*ppv) return CO_E_ERRORINDLL;
  return hr;
}

// ---- Active objects ---------------------------------------------------------------------------

struct ActiveEntry {
  CLSID clsid;
  IUnknown* object;
  bool strong;
};

struct ActiveObjects {
  // Guards the table. Held across AddRef of a found object only, so a concurrent revoke can't
  // release it in between.
  std::mutex lock;
  std::map<DWORD, ActiveEntry> entries;
  DWORD nextKey = 1;
};

ActiveObjects& Actives() {
  static ActiveObjects* actives = new ActiveObjects;
  return *actives;
}

// ---- Error objects ----------------------------------------------------------------------------

struct ThreadErrorInfo {
  IErrorInfo* info = nullptr;
  ~ThreadErrorInfo() {
    if (info) info->Release();
  }
};
thread_local ThreadErrorInfo t_errorInfo;

}  // namespace

// ---- Exports ----------------------------------------------------------------------------------

extern "C" HRESULT CoInitializeEx(LPVOID pvReserved, DWORD dwCoInit) {
  constexpr DWORD known = COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE | COINIT_SPEED_OVER_MEMORY;
  if (pvReserved || (dwCoInit & ~known)) return E_INVALIDARG;
  bool multithreaded = !(dwCoInit & COINIT_APARTMENTTHREADED);
  ThreadApartment& apt = t_apartment;
  if (apt.inits > 0) {
    if (apt.multithreaded != multithreaded) return RPC_E_CHANGED_MODE;
    ++apt.inits;
    return S_FALSE;
  }
  apt.inits = 1;
  apt.multithreaded = multithreaded;
  if (multithreaded) g_mtaThreads.fetch_add(1);
  return S_OK;
}

extern "C" HRESULT CoInitialize(LPVOID pvReserved) { return CoInitializeEx(pvReserved, COINIT_APARTMENTTHREADED); }

extern "C" void CoUninitialize() {
  ThreadApartment& apt = t_apartment;
  if (apt.inits == 0) return;
  if (--apt.inits == 0 && apt.multithreaded) g_mtaThreads.fetch_sub(1);
}

extern "C" HRESULT CoGetClassObject(REFCLSID rclsid, DWORD dwClsContext, LPVOID, REFIID riid, LPVOID* ppv) {
  if (!ppv) return E_INVALIDARG;
  *ppv = nullptr;
  if (!ComUsable()) return CO_E_NOTINITIALIZED;
  return ClassObjectOf(rclsid, dwClsContext, riid, ppv);
}

extern "C" HRESULT CoCreateInstance(REFCLSID rclsid, LPUNKNOWN pUnkOuter, DWORD dwClsContext, REFIID riid,
                                    LPVOID* ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (!ComUsable()) return CO_E_NOTINITIALIZED;
  IClassFactory* factory = nullptr;
  HRESULT hr = ClassObjectOf(rclsid, dwClsContext, IID_IClassFactory, reinterpret_cast<void**>(&factory));
  if (FAILED(hr)) return hr;
  hr = factory->CreateInstance(pUnkOuter, riid, ppv);
  factory->Release();
  if (FAILED(hr)) *ppv = nullptr;
  return hr;
}

extern "C" HRESULT CLSIDFromProgID(LPCOLESTR lpszProgID, LPCLSID lpclsid) {
  if (!lpszProgID || !lpclsid) return E_INVALIDARG;
  std::string progId = adp::Utf16ToUtf8(lpszProgID);
  std::string text;
  CLSID clsid;
  if (progId.empty() || !ReadDefaultString(HKEY_CLASSES_ROOT, progId + "\\CLSID", &text) ||
      !adp::com::ParseBraced(text.c_str(), &clsid))
    return CO_E_CLASSSTRING;
  *lpclsid = clsid;
  return S_OK;
}

extern "C" HRESULT ProgIDFromCLSID(REFCLSID clsid, LPOLESTR* lplpszProgID) {
  if (!lplpszProgID) return E_INVALIDARG;
  *lplpszProgID = nullptr;
  std::string progId;
  if (!ReadDefaultString(HKEY_CLASSES_ROOT, "CLSID\\" + adp::com::FormatBraced(clsid) + "\\ProgID", &progId))
    return REGDB_E_CLASSNOTREG;
  std::u16string wide = adp::Utf8ToUtf16(progId.c_str());
  auto* out = static_cast<LPOLESTR>(CoTaskMemAlloc((wide.size() + 1) * sizeof(OLECHAR)));
  if (!out) return E_OUTOFMEMORY;
  wide.copy(out, wide.size());
  out[wide.size()] = 0;
  *lplpszProgID = out;
  return S_OK;
}

extern "C" HRESULT RegisterActiveObject(IUnknown* punk, REFCLSID rclsid, DWORD dwFlags, DWORD* pdwRegister) {
  if (!punk || !pdwRegister || (dwFlags & ~DWORD(ACTIVEOBJECT_WEAK))) return E_INVALIDARG;
  bool strong = !(dwFlags & ACTIVEOBJECT_WEAK);
  if (strong) punk->AddRef();
  ActiveObjects& actives = Actives();
  std::lock_guard<std::mutex> guard(actives.lock);
  DWORD key = actives.nextKey++;
  actives.entries[key] = ActiveEntry{rclsid, punk, strong};
  *pdwRegister = key;
  return S_OK;
}

extern "C" HRESULT RevokeActiveObject(DWORD dwRegister, void*) {
  ActiveEntry entry;
  {
    ActiveObjects& actives = Actives();
    std::lock_guard<std::mutex> guard(actives.lock);
    auto it = actives.entries.find(dwRegister);
    if (it == actives.entries.end()) return E_INVALIDARG;
    entry = it->second;
    actives.entries.erase(it);
  }
  if (entry.strong) entry.object->Release();
  return S_OK;
}

extern "C" HRESULT GetActiveObject(REFCLSID rclsid, void*, IUnknown** ppunk) {
  if (!ppunk) return E_INVALIDARG;
  *ppunk = nullptr;
  ActiveObjects& actives = Actives();
  std::lock_guard<std::mutex> guard(actives.lock);
  // The latest registration of the class wins.
  for (auto it = actives.entries.rbegin(); it != actives.entries.rend(); ++it) {
    if (it->second.clsid == rclsid) {
      it->second.object->AddRef();
      *ppunk = it->second.object;
      return S_OK;
    }
  }
  return MK_E_UNAVAILABLE;
}

extern "C" HRESULT SetErrorInfo(ULONG, IErrorInfo* perrinfo) {
  if (perrinfo) perrinfo->AddRef();
  IErrorInfo* old = std::exchange(t_errorInfo.info, perrinfo);
  if (old) old->Release();
  return S_OK;
}

extern "C" HRESULT GetErrorInfo(ULONG, IErrorInfo** pperrinfo) {
  if (!pperrinfo) return E_INVALIDARG;
  // Taking the error object clears it, as published.
  *pperrinfo = std::exchange(t_errorInfo.info, nullptr);
  return *pperrinfo ? S_OK : S_FALSE;
}

extern "C" LPVOID CoTaskMemAlloc(SIZE_T cb) { return std::malloc(cb ? cb : 1); }

extern "C" LPVOID CoTaskMemRealloc(LPVOID pv, SIZE_T cb) {
  if (cb == 0) {
    std::free(pv);
    return nullptr;
  }
  return std::realloc(pv, cb);
}

extern "C" void CoTaskMemFree(LPVOID pv) { std::free(pv); }

namespace adp {

std::string GuidToRegistryString(const GUID& guid) { return com::FormatBraced(guid); }

HRESULT RegisterInprocServer(const CLSID& clsid, const char* libraryPath) {
  if (!libraryPath || !*libraryPath) return E_INVALIDARG;
  return WriteDefaultString(HKEY_CLASSES_ROOT, InprocServerKey(clsid), libraryPath);
}

HRESULT UnregisterInprocServer(const CLSID& clsid) {
  LSTATUS rc = RegDeleteTreeA(HKEY_CLASSES_ROOT, InprocServerKey(clsid).c_str());
  if (rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND) return S_OK;
  return HRESULT_FROM_WIN32(rc);
}

HRESULT RegisterProgID(const char* progId, const CLSID& clsid) {
  if (!progId || !*progId) return E_INVALIDARG;
  std::string text = com::FormatBraced(clsid);
  HRESULT hr = WriteDefaultString(HKEY_CLASSES_ROOT, std::string(progId) + "\\CLSID", text);
  if (SUCCEEDED(hr)) hr = WriteDefaultString(HKEY_CLASSES_ROOT, "CLSID\\" + text + "\\ProgID", progId);
  return hr;
}

}  // namespace adp
