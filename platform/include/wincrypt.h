// CryptoAPI: providers, key containers and hashes (MD5, SHA-1, SHA-2) over OpenSSL's libcrypto.
// Key containers are kept in memory for the life of the process; only hashing and random bytes
// are offered. Errors are reported through SetLastError with NTE_* codes.
#pragma once
#include "winnt.h"
#include "winerror.h"

typedef ULONG_PTR HCRYPTPROV;
typedef ULONG_PTR HCRYPTKEY;
typedef ULONG_PTR HCRYPTHASH;
typedef unsigned int ALG_ID;

// Codes of the providers that are missing from winerror.h.
#ifndef NTE_BAD_PROVIDER
#define NTE_BAD_PROVIDER _HRESULT_TYPEDEF_(0x80090013L)
#endif
#ifndef NTE_BAD_PROV_TYPE
#define NTE_BAD_PROV_TYPE _HRESULT_TYPEDEF_(0x80090014L)
#endif
#ifndef NTE_KEYSET_NOT_DEF
#define NTE_KEYSET_NOT_DEF _HRESULT_TYPEDEF_(0x80090019L)
#endif
#ifndef NTE_NOT_SUPPORTED
#define NTE_NOT_SUPPORTED _HRESULT_TYPEDEF_(0x80090029L)
#endif

// Algorithm classes, types and identifiers.
#define ALG_CLASS_HASH (4 << 13)
#define ALG_TYPE_ANY 0
#define ALG_SID_MD5 3
#define ALG_SID_SHA1 4
#define ALG_SID_SHA_256 12
#define ALG_SID_SHA_384 13
#define ALG_SID_SHA_512 14
#define CALG_MD5 (ALG_CLASS_HASH | ALG_TYPE_ANY | ALG_SID_MD5)
#define CALG_SHA (ALG_CLASS_HASH | ALG_TYPE_ANY | ALG_SID_SHA1)
#define CALG_SHA1 CALG_SHA
#define CALG_SHA_256 (ALG_CLASS_HASH | ALG_TYPE_ANY | ALG_SID_SHA_256)
#define CALG_SHA_384 (ALG_CLASS_HASH | ALG_TYPE_ANY | ALG_SID_SHA_384)
#define CALG_SHA_512 (ALG_CLASS_HASH | ALG_TYPE_ANY | ALG_SID_SHA_512)

// Provider types.
#define PROV_RSA_FULL 1
#define PROV_RSA_SIG 2
#define PROV_DSS 3
#define PROV_RSA_SCHANNEL 12
#define PROV_DSS_DH 13
#define PROV_RSA_AES 24

// Provider names.
#define MS_DEF_PROV_A "Microsoft Base Cryptographic Provider v1.0"
#define MS_DEF_PROV_W u"Microsoft Base Cryptographic Provider v1.0"
#define MS_ENHANCED_PROV_A "Microsoft Enhanced Cryptographic Provider v1.0"
#define MS_ENHANCED_PROV_W u"Microsoft Enhanced Cryptographic Provider v1.0"
#define MS_STRONG_PROV_A "Microsoft Strong Cryptographic Provider"
#define MS_STRONG_PROV_W u"Microsoft Strong Cryptographic Provider"
#define MS_ENH_RSA_AES_PROV_A "Microsoft Enhanced RSA and AES Cryptographic Provider"
#define MS_ENH_RSA_AES_PROV_W u"Microsoft Enhanced RSA and AES Cryptographic Provider"
#define MS_DEF_PROV MS_DEF_PROV_A
#define MS_ENHANCED_PROV MS_ENHANCED_PROV_A
#define MS_STRONG_PROV MS_STRONG_PROV_A
#define MS_ENH_RSA_AES_PROV MS_ENH_RSA_AES_PROV_A

// CryptAcquireContext flags.
#define CRYPT_VERIFYCONTEXT 0xF0000000
#define CRYPT_NEWKEYSET 0x00000008
#define CRYPT_DELETEKEYSET 0x00000010
#define CRYPT_MACHINE_KEYSET 0x00000020
#define CRYPT_SILENT 0x00000040
#define CRYPT_DEFAULT_CONTAINER_OPTIONAL 0x00000080

// CryptHashData flags.
#define CRYPT_USERDATA 1

// CryptGetHashParam parameters.
#define HP_ALGID 0x0001
#define HP_HASHVAL 0x0002
#define HP_HASHSIZE 0x0004

extern "C" {

// A named container (NULL names the default one) must exist unless CRYPT_NEWKEYSET creates it:
// NTE_BAD_KEYSET when missing, NTE_EXISTS when it is there already. CRYPT_VERIFYCONTEXT needs
// no container. CRYPT_DELETEKEYSET removes one and gives no handle.
BOOL WINAPI CryptAcquireContextA(HCRYPTPROV* phProv, LPCSTR szContainer, LPCSTR szProvider, DWORD dwProvType,
                                 DWORD dwFlags);
BOOL WINAPI CryptAcquireContextW(HCRYPTPROV* phProv, LPCWSTR szContainer, LPCWSTR szProvider, DWORD dwProvType,
                                 DWORD dwFlags);
BOOL WINAPI CryptContextAddRef(HCRYPTPROV hProv, DWORD* pdwReserved, DWORD dwFlags);
BOOL WINAPI CryptReleaseContext(HCRYPTPROV hProv, DWORD dwFlags);

// CALG_MD5 and CALG_SHA1 with every provider type; the SHA-2 family needs PROV_RSA_AES, as
// published (NTE_BAD_ALGID otherwise). A hash stays usable after its provider is released.
BOOL WINAPI CryptCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash);
BOOL WINAPI CryptHashData(HCRYPTHASH hHash, const BYTE* pbData, DWORD dwDataLen, DWORD dwFlags);
// HP_HASHVAL finishes the hash (later CryptHashData: NTE_BAD_HASH_STATE). pbData NULL asks for
// the size; a short buffer gives ERROR_MORE_DATA with the size in *pdwDataLen.
BOOL WINAPI CryptGetHashParam(HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags);
BOOL WINAPI CryptDuplicateHash(HCRYPTHASH hHash, DWORD* pdwReserved, DWORD dwFlags, HCRYPTHASH* phHash);
BOOL WINAPI CryptDestroyHash(HCRYPTHASH hHash);
BOOL WINAPI CryptGenRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer);

}  // extern "C"

#define CryptAcquireContext CryptAcquireContextA
