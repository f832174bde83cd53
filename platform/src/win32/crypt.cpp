// CryptoAPI over OpenSSL's libcrypto: provider contexts, in-process key containers, hashes and
// random bytes. Handles are numbers looked up in tables, so stale or foreign ones are refused.
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <strings.h>

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "adplatform.h"
#include "errhandlingapi.h"
#include "wincrypt.h"
#include "winerror.h"

#ifndef NTE_PROV_TYPE_NO_MATCH
#define NTE_PROV_TYPE_NO_MATCH _HRESULT_TYPEDEF_(0x8009001BL)
#endif

namespace {

struct Provider {
  DWORD type;
  int refs = 1;  // CryptContextAddRef / CryptReleaseContext; guarded by the registry lock
};

struct MdContextDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

struct Hash {
  std::mutex lock;  // a caller may share a hash between threads; taken after the registry lock is released
  ALG_ID algorithm = 0;
  std::unique_ptr<EVP_MD_CTX, MdContextDeleter> context;
  bool finished = false;
  std::vector<BYTE> value;
};

// Handle tables and key containers. Lock order: the registry lock is never held while a
// Hash::lock is taken.
struct Registry {
  std::mutex lock;
  ULONG_PTR next = 0x1000;
  std::map<ULONG_PTR, std::shared_ptr<Provider>> providers;
  std::map<ULONG_PTR, std::shared_ptr<Hash>> hashes;
  std::set<std::string> containers;
};

Registry& TheRegistry() {
  static auto* registry = new Registry;  // outlives static destructors
  return *registry;
}

BOOL Fail(HRESULT error) {
  SetLastError(static_cast<DWORD>(error));
  return FALSE;
}

std::shared_ptr<Provider> FindProvider(HCRYPTPROV h) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> guard(r.lock);
  auto it = r.providers.find(h);
  return it == r.providers.end() ? nullptr : it->second;
}

std::shared_ptr<Hash> FindHash(HCRYPTHASH h) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> guard(r.lock);
  auto it = r.hashes.find(h);
  return it == r.hashes.end() ? nullptr : it->second;
}

ULONG_PTR AddHash(std::shared_ptr<Hash> hash) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> guard(r.lock);
  ULONG_PTR h = (r.next += 8);
  r.hashes.emplace(h, std::move(hash));
  return h;
}

bool SupportedType(DWORD type) { return type == PROV_RSA_FULL || type == PROV_RSA_AES; }

// NULL or a provider name that serves the type.
HRESULT CheckProviderName(const char* name, DWORD type) {
  if (!name) return S_OK;
  struct Known {
    const char* name;
    DWORD type;
  };
  static const Known kNames[] = {{MS_DEF_PROV_A, PROV_RSA_FULL},
                                 {MS_ENHANCED_PROV_A, PROV_RSA_FULL},
                                 {MS_STRONG_PROV_A, PROV_RSA_FULL},
                                 {MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES},
                                 {"Microsoft Enhanced RSA and AES Cryptographic Provider (Prototype)", PROV_RSA_AES}};
  for (const Known& k : kNames)
    if (strcasecmp(k.name, name) == 0) return k.type == type ? S_OK : NTE_PROV_TYPE_NO_MATCH;
  return NTE_KEYSET_NOT_DEF;
}

std::string ContainerKey(const char* container, DWORD flags) {
  std::string key = (flags & CRYPT_MACHINE_KEYSET) ? "machine:" : "user:";
  std::string name = container && *container ? container : "default";
  for (char& c : name)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);  // container names ignore case
  return key + name;
}

// Validates the request and applies its effect on the containers; S_OK when a handle is due.
HRESULT OpenContainerLocked(Registry& r, const char* container, DWORD flags, bool& giveHandle) {
  giveHandle = true;
  if (flags & CRYPT_VERIFYCONTEXT) {
    if (container || (flags & (CRYPT_NEWKEYSET | CRYPT_DELETEKEYSET))) return NTE_BAD_FLAGS;
    return S_OK;
  }
  const std::string key = ContainerKey(container, flags);
  const bool exists = r.containers.count(key) != 0;
  if ((flags & CRYPT_NEWKEYSET) && (flags & CRYPT_DELETEKEYSET)) return NTE_BAD_FLAGS;
  if (flags & CRYPT_DELETEKEYSET) {
    if (!exists) return NTE_BAD_KEYSET;
    r.containers.erase(key);
    giveHandle = false;
    return S_OK;
  }
  if (flags & CRYPT_NEWKEYSET) {
    if (exists) return NTE_EXISTS;
    r.containers.insert(key);
    return S_OK;
  }
  return exists ? S_OK : NTE_BAD_KEYSET;
}

BOOL Acquire(HCRYPTPROV* phProv, const char* container, const char* provider, DWORD type, DWORD flags) {
  const DWORD known = CRYPT_VERIFYCONTEXT | CRYPT_NEWKEYSET | CRYPT_DELETEKEYSET | CRYPT_MACHINE_KEYSET |
                      CRYPT_SILENT | CRYPT_DEFAULT_CONTAINER_OPTIONAL;
  if (!phProv) return Fail(ERROR_INVALID_PARAMETER);
  *phProv = 0;
  if (flags & ~known) return Fail(NTE_BAD_FLAGS);
  if (type == 0 || type > 999) return Fail(NTE_BAD_PROV_TYPE);
  if (!SupportedType(type)) return Fail(NTE_PROV_TYPE_NOT_DEF);
  if (HRESULT hr = CheckProviderName(provider, type); FAILED(hr)) return Fail(hr);
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> guard(r.lock);
  bool giveHandle = false;
  if (HRESULT hr = OpenContainerLocked(r, container, flags, giveHandle); FAILED(hr)) return Fail(hr);
  if (!giveHandle) return TRUE;
  auto p = std::make_shared<Provider>();
  p->type = type;
  ULONG_PTR h = (r.next += 8);
  r.providers.emplace(h, std::move(p));
  *phProv = h;
  return TRUE;
}

const EVP_MD* Digest(ALG_ID algorithm, DWORD providerType) {
  switch (algorithm) {
    case CALG_MD5: return EVP_md5();
    case CALG_SHA1: return EVP_sha1();
    default: break;
  }
  if (providerType != PROV_RSA_AES) return nullptr;
  switch (algorithm) {
    case CALG_SHA_256: return EVP_sha256();
    case CALG_SHA_384: return EVP_sha384();
    case CALG_SHA_512: return EVP_sha512();
    default: return nullptr;
  }
}

bool FinishLocked(Hash& hash) {
  if (hash.finished) return true;
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(hash.context.get(), out, &len) != 1) return false;
  hash.value.assign(out, out + len);
  hash.finished = true;
  return true;
}

// Copies a parameter value with the size-query rules.
// False when nothing is to be copied: a size query, or a buffer too small (ERROR_MORE_DATA);
// result is then the call's answer.
bool Room(DWORD size, BYTE* pbData, DWORD* pdwDataLen, BOOL& result) {
  if (pbData && *pdwDataLen >= size) return true;
  *pdwDataLen = size;
  result = pbData ? Fail(ERROR_MORE_DATA) : TRUE;
  return false;
}

BOOL Deliver(const void* value, DWORD size, BYTE* pbData, DWORD* pdwDataLen) {
  BOOL result = FALSE;
  if (!Room(size, pbData, pdwDataLen, result)) return result;
  std::memcpy(pbData, value, size);
  *pdwDataLen = size;
  return TRUE;
}

}  // namespace

extern "C" {

BOOL CryptAcquireContextA(HCRYPTPROV* phProv, LPCSTR szContainer, LPCSTR szProvider, DWORD dwProvType, DWORD dwFlags) {
  try {
    return Acquire(phProv, szContainer, szProvider, dwProvType, dwFlags);
  } catch (...) {
    return Fail(NTE_NO_MEMORY);
  }
}

BOOL CryptAcquireContextW(HCRYPTPROV* phProv, LPCWSTR szContainer, LPCWSTR szProvider, DWORD dwProvType,
                          DWORD dwFlags) {
  try {
    std::string container = adp::Utf16ToUtf8(szContainer);
    std::string provider = adp::Utf16ToUtf8(szProvider);
    return Acquire(phProv, szContainer ? container.c_str() : nullptr, szProvider ? provider.c_str() : nullptr,
                   dwProvType, dwFlags);
  } catch (...) {
    return Fail(NTE_NO_MEMORY);
  }
}

BOOL CryptContextAddRef(HCRYPTPROV hProv, DWORD* pdwReserved, DWORD dwFlags) {
  if (pdwReserved) return Fail(ERROR_INVALID_PARAMETER);
  if (dwFlags) return Fail(NTE_BAD_FLAGS);
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> guard(r.lock);
  auto it = r.providers.find(hProv);
  if (it == r.providers.end()) return Fail(NTE_BAD_UID);
  ++it->second->refs;
  return TRUE;
}

BOOL CryptReleaseContext(HCRYPTPROV hProv, DWORD dwFlags) {
  {
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.providers.find(hProv);
    if (it == r.providers.end()) return Fail(NTE_BAD_UID);
    if (--it->second->refs == 0) r.providers.erase(it);
  }
  // Published: flags other than zero fail the call, yet the context is released.
  return dwFlags ? Fail(NTE_BAD_FLAGS) : TRUE;
}

BOOL CryptCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash) {
  if (!phHash) return Fail(ERROR_INVALID_PARAMETER);
  *phHash = 0;
  std::shared_ptr<Provider> provider = FindProvider(hProv);
  if (!provider) return Fail(NTE_BAD_UID);
  if (dwFlags) return Fail(NTE_BAD_FLAGS);
  if (hKey) return Fail(NTE_BAD_KEY);
  const EVP_MD* md = Digest(Algid, provider->type);
  if (!md) return Fail(NTE_BAD_ALGID);
  try {
    auto hash = std::make_shared<Hash>();
    hash->algorithm = Algid;
    hash->context.reset(EVP_MD_CTX_new());
    if (!hash->context || EVP_DigestInit_ex(hash->context.get(), md, nullptr) != 1) return Fail(NTE_FAIL);
    *phHash = AddHash(std::move(hash));
    return TRUE;
  } catch (...) {
    return Fail(NTE_NO_MEMORY);
  }
}

BOOL CryptHashData(HCRYPTHASH hHash, const BYTE* pbData, DWORD dwDataLen, DWORD dwFlags) {
  std::shared_ptr<Hash> hash = FindHash(hHash);
  if (!hash) return Fail(NTE_BAD_HASH);
  if (dwFlags & ~static_cast<DWORD>(CRYPT_USERDATA)) return Fail(NTE_BAD_FLAGS);
  if (!pbData && dwDataLen) return Fail(ERROR_INVALID_PARAMETER);
  std::lock_guard<std::mutex> guard(hash->lock);
  if (hash->finished) return Fail(NTE_BAD_HASH_STATE);
  if (dwDataLen && EVP_DigestUpdate(hash->context.get(), pbData, dwDataLen) != 1) return Fail(NTE_FAIL);
  return TRUE;
}

BOOL CryptGetHashParam(HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
  std::shared_ptr<Hash> hash = FindHash(hHash);
  if (!hash) return Fail(NTE_BAD_HASH);
  if (dwFlags) return Fail(NTE_BAD_FLAGS);
  if (!pdwDataLen) return Fail(ERROR_INVALID_PARAMETER);
  std::lock_guard<std::mutex> guard(hash->lock);
  const DWORD size = static_cast<DWORD>(EVP_MD_CTX_get_size(hash->context.get()));
  switch (dwParam) {
    case HP_ALGID: {
      const DWORD algorithm = hash->algorithm;
      return Deliver(&algorithm, sizeof algorithm, pbData, pdwDataLen);
    }
    case HP_HASHSIZE:
      return Deliver(&size, sizeof size, pbData, pdwDataLen);
    case HP_HASHVAL: {
      BOOL result = FALSE;
      if (!Room(size, pbData, pdwDataLen, result)) return result;
      if (!FinishLocked(*hash)) return Fail(NTE_FAIL);
      return Deliver(hash->value.data(), static_cast<DWORD>(hash->value.size()), pbData, pdwDataLen);
    }
    default:
      return Fail(NTE_BAD_TYPE);
  }
}

BOOL CryptDuplicateHash(HCRYPTHASH hHash, DWORD* pdwReserved, DWORD dwFlags, HCRYPTHASH* phHash) {
  if (pdwReserved || !phHash) return Fail(ERROR_INVALID_PARAMETER);
  if (dwFlags) return Fail(NTE_BAD_FLAGS);
  std::shared_ptr<Hash> hash = FindHash(hHash);
  if (!hash) return Fail(NTE_BAD_HASH);
  try {
    auto copy = std::make_shared<Hash>();
    {
      std::lock_guard<std::mutex> guard(hash->lock);
      copy->algorithm = hash->algorithm;
      copy->finished = hash->finished;
      copy->value = hash->value;
      copy->context.reset(EVP_MD_CTX_new());
      if (!copy->context || EVP_MD_CTX_copy_ex(copy->context.get(), hash->context.get()) != 1) return Fail(NTE_FAIL);
    }
    *phHash = AddHash(std::move(copy));
    return TRUE;
  } catch (...) {
    return Fail(NTE_NO_MEMORY);
  }
}

BOOL CryptDestroyHash(HCRYPTHASH hHash) {
  std::shared_ptr<Hash> removed;  // freed after the registry lock is released
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> guard(r.lock);
  auto it = r.hashes.find(hHash);
  if (it == r.hashes.end()) return Fail(NTE_BAD_HASH);
  removed = std::move(it->second);
  r.hashes.erase(it);
  return TRUE;
}

BOOL CryptGenRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer) {
  if (!FindProvider(hProv)) return Fail(NTE_BAD_UID);
  if (!pbBuffer && dwLen) return Fail(ERROR_INVALID_PARAMETER);
  for (DWORD done = 0; done < dwLen;) {
    const DWORD chunk = dwLen - done < (1u << 30) ? dwLen - done : (1u << 30);
    if (RAND_bytes(pbBuffer + done, static_cast<int>(chunk)) != 1) return Fail(NTE_FAIL);
    done += chunk;
  }
  return TRUE;
}

}  // extern "C"
