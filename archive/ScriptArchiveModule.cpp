// Entry points of the ZT4ScriptArchive in-process server. The fixture is named by
// ARCHIVEDEPOT_ARCHIVE_FIXTURE, else by the "Fixture" value under the CLSID's registry key; with
// neither the archive is empty and answers with its defaults. Each new provider reads it afresh.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include <windows.h>
#include <adplatform_com.h>

#include "ScriptArchiveObjects.h"
#include "ScriptJournal.h"

namespace scriptarchive {
namespace {

std::atomic<LONG> g_locks{0};

// HRESULT_FROM_WIN32(ERROR_BAD_FORMAT): the fixture could not be read or parsed.
constexpr HRESULT kBadFixture = static_cast<HRESULT>(0x8007000BL);

std::string RegistryFixturePath() {
  const std::string key = "CLSID\\" + adp::GuidToRegistryString(CLSID_ZT4DataProvider);
  HKEY hkey = nullptr;
  if (RegOpenKeyExA(HKEY_CLASSES_ROOT, key.c_str(), 0, KEY_READ, &hkey) != ERROR_SUCCESS) return {};
  char buffer[4096] = {};
  DWORD size = sizeof(buffer) - 1, type = 0;
  LSTATUS status = RegQueryValueExA(hkey, "Fixture", nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size);
  RegCloseKey(hkey);
  return status == ERROR_SUCCESS && type == REG_SZ ? std::string(buffer) : std::string();
}

std::string FixturePath() {
  const char* env = std::getenv("ARCHIVEDEPOT_ARCHIVE_FIXTURE");
  return env && *env ? std::string(env) : RegistryFixturePath();
}

HRESULT LoadArchive(std::shared_ptr<Archive>& archive) {
  archive = std::make_shared<Archive>();
  const std::string path = FixturePath();
  if (path.empty()) {
    archive->fixture = DefaultFixture();
    Journal::Instance().Record("load: no fixture, empty archive");
    return S_OK;
  }
  ParseResult parsed = LoadFixtureFile(path);
  if (!parsed.fixture) {
    Journal::Instance().Record("load error: " + parsed.error);
    return kBadFixture;
  }
  archive->fixture = std::move(parsed.fixture);
  Journal::Instance().Record("load: " + path);
  return S_OK;
}

class Factory final : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != IID_IClassFactory) return E_NOINTERFACE;
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG left = --m_refs;
    if (!left) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    std::shared_ptr<Archive> archive;
    if (HRESULT hr = LoadArchive(archive); FAILED(hr)) return hr;
    return CreateProvider(std::move(archive), riid, ppv);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    lock ? ++g_locks : --g_locks;
    return S_OK;
  }

 private:
  std::atomic<ULONG> m_refs{1};
};

}  // namespace
}  // namespace scriptarchive

extern "C" DECLSPEC_EXPORT HRESULT DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (rclsid != CLSID_ZT4DataProvider) return CLASS_E_CLASSNOTAVAILABLE;
  auto* factory = new (std::nothrow) scriptarchive::Factory;
  if (!factory) return E_OUTOFMEMORY;
  HRESULT hr = factory->QueryInterface(riid, ppv);
  factory->Release();
  return hr;
}

// Objects hand out shared state the loader can't see, so the module stays once loaded.
extern "C" DECLSPEC_EXPORT HRESULT DllCanUnloadNow() { return S_FALSE; }

// The journal as text: copies up to size-1 bytes and a NUL, returns the full length + 1.
extern "C" DECLSPEC_EXPORT size_t ZT4ScriptArchiveJournal(char* buffer, size_t size) {
  const std::string text = scriptarchive::Journal::Instance().Text();
  if (buffer && size) {
    size_t n = std::min(size - 1, text.size());
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
  }
  return text.size() + 1;
}

extern "C" DECLSPEC_EXPORT void ZT4ScriptArchiveClearJournal() { scriptarchive::Journal::Instance().Clear(); }
