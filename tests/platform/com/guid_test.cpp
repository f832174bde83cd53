#include <gtest/gtest.h>

#include <set>
#include <string>

#include <objbase.h>

namespace {

// D4660088-308E-49FB-AB1A-77224F3FF851
constexpr GUID kSample = {0xD4660088, 0x308E, 0x49FB, {0xAB, 0x1A, 0x77, 0x22, 0x4F, 0x3F, 0xF8, 0x51}};

std::u16string StringFromGuid(REFGUID g) {
  OLECHAR buffer[39];
  int n = StringFromGUID2(g, buffer, 39);
  EXPECT_EQ(n, 39);
  return std::u16string(buffer);
}

TEST(GuidText, BracedUpperCaseForm) {
  EXPECT_EQ(StringFromGuid(kSample), u"{D4660088-308E-49FB-AB1A-77224F3FF851}");
  OLECHAR small[38];
  EXPECT_EQ(StringFromGUID2(kSample, small, 38), 0);
  EXPECT_EQ(StringFromGUID2(kSample, nullptr, 39), 0);

  LPOLESTR allocated = nullptr;
  ASSERT_EQ(StringFromCLSID(kSample, &allocated), S_OK);
  EXPECT_EQ(std::u16string(allocated), u"{D4660088-308E-49FB-AB1A-77224F3FF851}");
  CoTaskMemFree(allocated);
  ASSERT_EQ(StringFromIID(GUID_NULL, &allocated), S_OK);
  EXPECT_EQ(std::u16string(allocated), u"{00000000-0000-0000-0000-000000000000}");
  CoTaskMemFree(allocated);
  EXPECT_EQ(StringFromCLSID(kSample, nullptr), E_INVALIDARG);
}

TEST(GuidText, ClsidFromStringRoundTripsAndRejectsMalformedText) {
  CLSID clsid;
  ASSERT_EQ(CLSIDFromString(u"{D4660088-308E-49FB-AB1A-77224F3FF851}", &clsid), NOERROR);
  EXPECT_EQ(clsid, kSample);
  ASSERT_EQ(CLSIDFromString(u"{d4660088-308e-49fb-ab1a-77224f3ff851}", &clsid), NOERROR);
  EXPECT_EQ(clsid, kSample);
  ASSERT_EQ(CLSIDFromString(nullptr, &clsid), NOERROR);
  EXPECT_EQ(clsid, CLSID_NULL);

  const char16_t* malformed[] = {
      u"{D4660088-308E-49FB-AB1A-77224F3FF851",    // no closing brace
      u"{D4660088-308E-49FB-AB1A-77224F3FF851}x",  // trailing text
      u"{D4660088-308E-49FB-AB1A-77224F3FF85}",    // short
      u"{D4660088-308E-49FB-AB1A-77224F3FF8511}",  // long
      u"{D4660088+308E-49FB-AB1A-77224F3FF851}",   // wrong separator
      u"{D466008G-308E-49FB-AB1A-77224F3FF851}",   // not hex
      u"{D4660088-308E49FB-AB1A-77224F3FF851-}",   // misplaced dash
      u"{}",
      u"{",
      u"",
  };
  for (const char16_t* text : malformed) {
    clsid = kSample;
    EXPECT_EQ(CLSIDFromString(text, &clsid), CO_E_CLASSSTRING);
    EXPECT_EQ(clsid, kSample);  // untouched on failure
  }
  EXPECT_EQ(CLSIDFromString(u"{D4660088-308E-49FB-AB1A-77224F3FF851}", nullptr), E_INVALIDARG);

  IID iid;
  ASSERT_EQ(IIDFromString(u"{D4660088-308E-49FB-AB1A-77224F3FF851}", &iid), S_OK);
  EXPECT_EQ(iid, kSample);
  EXPECT_EQ(IIDFromString(u"D4660088-308E-49FB-AB1A-77224F3FF851", &iid), E_INVALIDARG);
}

TEST(GuidText, RpcFormWithoutBraces) {
  UUID uuid;
  ASSERT_EQ(UuidFromStringA(reinterpret_cast<RPC_CSTR>(const_cast<char*>("d4660088-308e-49fb-ab1a-77224f3ff851")),
                            &uuid),
            RPC_S_OK);
  EXPECT_EQ(uuid, kSample);
  ASSERT_EQ(UuidFromStringA(nullptr, &uuid), RPC_S_OK);
  EXPECT_EQ(uuid, GUID_NULL);

  const char* malformed[] = {
      "{d4660088-308e-49fb-ab1a-77224f3ff851}", "d4660088-308e-49fb-ab1a-77224f3ff85",
      "d4660088-308e-49fb-ab1a-77224f3ff8511", "d4660088-308e-49fb-ab1a77224f3ff8511", "",
      "zzzzzzzz-308e-49fb-ab1a-77224f3ff851",
  };
  for (const char* text : malformed) {
    EXPECT_EQ(UuidFromStringA(reinterpret_cast<RPC_CSTR>(const_cast<char*>(text)), &uuid),
              RPC_S_INVALID_STRING_UUID)
        << text;
  }

  RPC_CSTR narrow = nullptr;
  ASSERT_EQ(UuidToStringA(&kSample, &narrow), RPC_S_OK);
  EXPECT_STREQ(reinterpret_cast<char*>(narrow), "d4660088-308e-49fb-ab1a-77224f3ff851");
  ASSERT_EQ(RpcStringFreeA(&narrow), RPC_S_OK);
  EXPECT_EQ(narrow, nullptr);

  RPC_WSTR wide = nullptr;
  ASSERT_EQ(UuidToStringW(&kSample, &wide), RPC_S_OK);
  std::u16string text;
  for (const unsigned short* p = wide; *p; ++p) text.push_back(static_cast<char16_t>(*p));
  EXPECT_EQ(text, u"d4660088-308e-49fb-ab1a-77224f3ff851");
  ASSERT_EQ(UuidFromStringW(wide, &uuid), RPC_S_OK);
  EXPECT_EQ(uuid, kSample);
  RpcStringFreeW(&wide);
  EXPECT_EQ(UuidToStringA(nullptr, &narrow), RPC_S_INVALID_ARG);
}

TEST(GuidText, CreatedGuidsAreRandomVersionFour) {
  std::set<std::u16string> seen;
  for (int i = 0; i < 64; ++i) {
    GUID g;
    ASSERT_EQ(CoCreateGuid(&g), S_OK);
    EXPECT_EQ(g.Data3 >> 12, 4);
    EXPECT_EQ(g.Data4[0] & 0xC0, 0x80);
    std::u16string text = StringFromGuid(g);
    seen.insert(text);
    CLSID back;
    ASSERT_EQ(CLSIDFromString(text.c_str(), &back), NOERROR);
    EXPECT_EQ(back, g);
  }
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_EQ(CoCreateGuid(nullptr), E_INVALIDARG);
}

}  // namespace
