#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "wincrypt.h"
#include "windows.h"

namespace {

std::string Hex(const BYTE* data, DWORD len) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s;
  for (DWORD i = 0; i < len; ++i) s += kDigits[data[i] >> 4], s += kDigits[data[i] & 15];
  return s;
}

// A digest through the calls the system makes, with a given provider type.
std::string Digest(ALG_ID alg, const std::string& data, DWORD provType = PROV_RSA_FULL) {
  HCRYPTPROV prov = 0;
  HCRYPTHASH hash = 0;
  if (!CryptAcquireContextA(&prov, nullptr, nullptr, provType, CRYPT_VERIFYCONTEXT)) return "<acquire>";
  std::string result = "<hash>";
  if (CryptCreateHash(prov, alg, 0, 0, &hash)) {
    BYTE value[64];
    DWORD len = sizeof value;
    if (CryptHashData(hash, reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), 0) &&
        CryptGetHashParam(hash, HP_HASHVAL, value, &len, 0))
      result = Hex(value, len);
    CryptDestroyHash(hash);
  }
  CryptReleaseContext(prov, 0);
  return result;
}

DWORD LastError() { return GetLastError(); }

}  // namespace

TEST(CryptoApi, Md5MatchesRfc1321) {
  EXPECT_EQ(Digest(CALG_MD5, ""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(Digest(CALG_MD5, "a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(Digest(CALG_MD5, "abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Digest(CALG_MD5, "message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(Digest(CALG_MD5, "abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(Digest(CALG_MD5, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(Digest(CALG_MD5, "12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(CryptoApi, ShaFamilyFollowsTheProviderType) {
  EXPECT_EQ(Digest(CALG_SHA1, "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(Digest(CALG_SHA_256, "abc", PROV_RSA_AES),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  // The base RSA provider has no SHA-2, as published.
  HCRYPTPROV prov = 0;
  HCRYPTHASH hash = 0;
  ASSERT_TRUE(CryptAcquireContextA(&prov, nullptr, MS_DEF_PROV, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
  SetLastError(0);
  EXPECT_FALSE(CryptCreateHash(prov, CALG_SHA_256, 0, 0, &hash));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_ALGID));
  EXPECT_FALSE(CryptCreateHash(prov, 0x1234, 0, 0, &hash));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_ALGID));
  EXPECT_TRUE(CryptReleaseContext(prov, 0));
}

TEST(CryptoApi, HashParametersFollowThePublishedSizeRules) {
  HCRYPTPROV prov = 0;
  HCRYPTHASH hash = 0;
  ASSERT_TRUE(CryptAcquireContextA(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
  ASSERT_TRUE(CryptCreateHash(prov, CALG_MD5, 0, 0, &hash));
  DWORD value = 0, len = sizeof value;
  ASSERT_TRUE(CryptGetHashParam(hash, HP_ALGID, reinterpret_cast<BYTE*>(&value), &len, 0));
  EXPECT_EQ(value, static_cast<DWORD>(CALG_MD5));
  ASSERT_TRUE(CryptGetHashParam(hash, HP_HASHSIZE, reinterpret_cast<BYTE*>(&value), &len, 0));
  EXPECT_EQ(value, 16u);
  // Pieces hash as the whole does; a size query and a short buffer leave the hash open.
  ASSERT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("message "), 8, 0));
  len = 0;
  ASSERT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, nullptr, &len, 0));
  EXPECT_EQ(len, 16u);
  BYTE digest[32];
  len = 8;
  SetLastError(0);
  EXPECT_FALSE(CryptGetHashParam(hash, HP_HASHVAL, digest, &len, 0));
  EXPECT_EQ(LastError(), static_cast<DWORD>(ERROR_MORE_DATA));
  EXPECT_EQ(len, 16u);
  ASSERT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("digest"), 6, 0));
  ASSERT_TRUE(CryptHashData(hash, nullptr, 0, 0));
  len = sizeof digest;  // the system hands a 32-byte buffer
  ASSERT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, digest, &len, 0));
  EXPECT_EQ(len, 16u);
  EXPECT_EQ(Hex(digest, len), "f96b697d7cb7938d525a2f31aaf161d0");
  // Finished: the value stays, more data is refused.
  ASSERT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, digest, &len, 0));
  EXPECT_EQ(Hex(digest, len), "f96b697d7cb7938d525a2f31aaf161d0");
  SetLastError(0);
  EXPECT_FALSE(CryptHashData(hash, reinterpret_cast<const BYTE*>("x"), 1, 0));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_HASH_STATE));
  SetLastError(0);
  EXPECT_FALSE(CryptGetHashParam(hash, 99, digest, &len, 0));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_TYPE));
  EXPECT_FALSE(CryptGetHashParam(hash, HP_HASHVAL, digest, nullptr, 0));
  EXPECT_EQ(LastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(CryptGetHashParam(hash, HP_HASHVAL, digest, &len, 1));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_FLAGS));
  EXPECT_FALSE(CryptHashData(hash, nullptr, 5, 0));
  EXPECT_TRUE(CryptDestroyHash(hash));
  EXPECT_TRUE(CryptReleaseContext(prov, 0));
}

TEST(CryptoApi, DuplicatesContinueIndependently) {
  HCRYPTPROV prov = 0;
  HCRYPTHASH hash = 0, copy = 0;
  ASSERT_TRUE(CryptAcquireContextA(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
  ASSERT_TRUE(CryptCreateHash(prov, CALG_MD5, 0, 0, &hash));
  ASSERT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("ab"), 2, 0));
  ASSERT_TRUE(CryptDuplicateHash(hash, nullptr, 0, &copy));
  ASSERT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("c"), 1, 0));
  // The hash outlives its provider.
  EXPECT_TRUE(CryptReleaseContext(prov, 0));
  BYTE digest[16];
  DWORD len = sizeof digest;
  ASSERT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, digest, &len, 0));
  EXPECT_EQ(Hex(digest, len), "900150983cd24fb0d6963f7d28e17f72");
  ASSERT_TRUE(CryptGetHashParam(copy, HP_HASHVAL, digest, &len, 0));
  EXPECT_EQ(Hex(digest, len), "187ef4436122d1cc2f40dc2b92f0eba0");  // MD5("ab")
  EXPECT_TRUE(CryptDestroyHash(hash));
  EXPECT_TRUE(CryptDestroyHash(copy));
}

TEST(CryptoApi, NamedKeysetsAsPublished) {
  HCRYPTPROV prov = 0;
  const char* name = "ArchiveDepotTestKeyset";
  CryptAcquireContextA(&prov, name, nullptr, PROV_RSA_FULL, CRYPT_DELETEKEYSET);
  SetLastError(0);
  EXPECT_FALSE(CryptAcquireContextA(&prov, name, nullptr, PROV_RSA_FULL, 0));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_KEYSET));
  ASSERT_TRUE(CryptAcquireContextA(&prov, name, nullptr, PROV_RSA_FULL, CRYPT_NEWKEYSET));
  EXPECT_NE(prov, 0u);
  EXPECT_TRUE(CryptReleaseContext(prov, 0));
  SetLastError(0);
  EXPECT_FALSE(CryptAcquireContextA(&prov, name, nullptr, PROV_RSA_FULL, CRYPT_NEWKEYSET));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_EXISTS));
  ASSERT_TRUE(CryptAcquireContextA(&prov, "ARCHIVEDEPOTTESTKEYSET", nullptr, PROV_RSA_FULL, 0));
  EXPECT_TRUE(CryptReleaseContext(prov, 0));
  EXPECT_TRUE(CryptAcquireContextA(&prov, name, nullptr, PROV_RSA_FULL, CRYPT_DELETEKEYSET));
  EXPECT_EQ(prov, 0u);
  EXPECT_FALSE(CryptAcquireContextA(&prov, name, nullptr, PROV_RSA_FULL, 0));
  // Machine keysets are another namespace.
  EXPECT_FALSE(CryptAcquireContextA(&prov, name, nullptr, PROV_RSA_FULL, CRYPT_MACHINE_KEYSET));

  // The system's pattern on the default keyset: plain first, then with CRYPT_NEWKEYSET.
  CryptAcquireContextA(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_DELETEKEYSET);
  if (!CryptAcquireContextA(&prov, nullptr, nullptr, PROV_RSA_FULL, 0)) {
    EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_KEYSET));
    ASSERT_TRUE(CryptAcquireContextA(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_NEWKEYSET));
  }
  HCRYPTHASH hash = 0;
  ASSERT_TRUE(CryptCreateHash(prov, CALG_MD5, 0, 0, &hash));
  EXPECT_TRUE(CryptDestroyHash(hash));
  EXPECT_TRUE(CryptReleaseContext(prov, 0));
  HCRYPTPROV wide = 0;
  EXPECT_TRUE(CryptAcquireContextW(&wide, nullptr, MS_DEF_PROV_W, PROV_RSA_FULL, 0));
  EXPECT_TRUE(CryptReleaseContext(wide, 0));
}

TEST(CryptoApi, RefusesBadArgumentsAndStaleHandles) {
  HCRYPTPROV prov = 0;
  HCRYPTHASH hash = 0;
  struct Case {
    const char* container;
    const char* provider;
    DWORD type;
    DWORD flags;
    HRESULT error;
  } cases[] = {
      {nullptr, nullptr, 0, CRYPT_VERIFYCONTEXT, NTE_BAD_PROV_TYPE},
      {nullptr, nullptr, 1000, CRYPT_VERIFYCONTEXT, NTE_BAD_PROV_TYPE},
      {nullptr, nullptr, PROV_DSS, CRYPT_VERIFYCONTEXT, NTE_PROV_TYPE_NOT_DEF},
      {nullptr, "No Such Provider", PROV_RSA_FULL, CRYPT_VERIFYCONTEXT, NTE_KEYSET_NOT_DEF},
      {nullptr, nullptr, PROV_RSA_FULL, 0x4, NTE_BAD_FLAGS},
      {"named", nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT, NTE_BAD_FLAGS},
      {"named", nullptr, PROV_RSA_FULL, CRYPT_NEWKEYSET | CRYPT_DELETEKEYSET, NTE_BAD_FLAGS},
  };
  for (const Case& c : cases) {
    SetLastError(0);
    EXPECT_FALSE(CryptAcquireContextA(&prov, c.container, c.provider, c.type, c.flags)) << c.type << " " << c.flags;
    EXPECT_EQ(LastError(), static_cast<DWORD>(c.error)) << c.type << " " << c.flags;
  }
  EXPECT_FALSE(CryptAcquireContextA(nullptr, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
  EXPECT_EQ(LastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

  SetLastError(0);
  EXPECT_FALSE(CryptCreateHash(0x12345, CALG_MD5, 0, 0, &hash));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_UID));
  SetLastError(0);
  EXPECT_FALSE(CryptHashData(0, reinterpret_cast<const BYTE*>("x"), 1, 0));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_HASH));
  DWORD len = 16;
  BYTE digest[16];
  EXPECT_FALSE(CryptGetHashParam(0x777, HP_HASHVAL, digest, &len, 0));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_HASH));
  EXPECT_FALSE(CryptDestroyHash(0x777));

  ASSERT_TRUE(CryptAcquireContextA(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
  EXPECT_FALSE(CryptCreateHash(prov, CALG_MD5, 0, 0, nullptr));
  EXPECT_EQ(LastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(CryptCreateHash(prov, CALG_MD5, 42, 0, &hash));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_KEY));
  EXPECT_FALSE(CryptHashData(prov, reinterpret_cast<const BYTE*>("x"), 1, 0));  // a provider isn't a hash
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_HASH));
  ASSERT_TRUE(CryptCreateHash(prov, CALG_MD5, 0, 0, &hash));
  EXPECT_TRUE(CryptDestroyHash(hash));
  EXPECT_FALSE(CryptHashData(hash, reinterpret_cast<const BYTE*>("x"), 1, 0));  // destroyed
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_HASH));
  EXPECT_FALSE(CryptDestroyHash(hash));

  // Each reference is released once; the context then goes.
  EXPECT_TRUE(CryptContextAddRef(prov, nullptr, 0));
  EXPECT_TRUE(CryptReleaseContext(prov, 0));
  EXPECT_TRUE(CryptGenRandom(prov, 0, nullptr));
  EXPECT_FALSE(CryptReleaseContext(prov, 1));  // flags fail the call but release all the same
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_FLAGS));
  EXPECT_FALSE(CryptReleaseContext(prov, 0));
  EXPECT_EQ(LastError(), static_cast<DWORD>(NTE_BAD_UID));
  EXPECT_FALSE(CryptContextAddRef(prov, nullptr, 0));
}

TEST(CryptoApi, RandomBytesAndConcurrentHashing) {
  HCRYPTPROV prov = 0;
  ASSERT_TRUE(CryptAcquireContextA(&prov, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
  BYTE a[32] = {}, b[32] = {};
  ASSERT_TRUE(CryptGenRandom(prov, sizeof a, a));
  ASSERT_TRUE(CryptGenRandom(prov, sizeof b, b));
  EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
  EXPECT_FALSE(CryptGenRandom(prov, 4, nullptr));

  // One shared hash fed from several threads, and private hashes alongside.
  HCRYPTHASH shared = 0;
  ASSERT_TRUE(CryptCreateHash(prov, CALG_MD5, 0, 0, &shared));
  std::vector<std::thread> threads;
  std::vector<std::string> results(4);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i) CryptHashData(shared, reinterpret_cast<const BYTE*>("a"), 1, 0);
      results[static_cast<size_t>(t)] = Digest(CALG_MD5, "abc");
    });
  for (auto& t : threads) t.join();
  for (const std::string& r : results) EXPECT_EQ(r, "900150983cd24fb0d6963f7d28e17f72");
  BYTE digest[16];
  DWORD len = sizeof digest;
  ASSERT_TRUE(CryptGetHashParam(shared, HP_HASHVAL, digest, &len, 0));
  EXPECT_EQ(Hex(digest, len), Digest(CALG_MD5, std::string(400, 'a')));
  EXPECT_TRUE(CryptDestroyHash(shared));
  EXPECT_TRUE(CryptReleaseContext(prov, 0));
}
