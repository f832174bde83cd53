// Second process for the profile store tests. Through the MAPI interfaces:
//   profstore_child write <profile> <uid hex> <text>     sets PROP_TAG(PT_STRING8, 0x6650) and saves
//   profstore_child read <profile> <uid hex> <text>      exits 0 when the section holds that text
//   profstore_child count <profile> <uid hex> <id> <n>   n times: open, add 1 to PT_LONG <id>, save
//   profstore_child create <prefix> <n>                  creates profiles <prefix>0..<prefix>n-1
// Exit status: 0 on success, 1 on a failed call, 2 on a wrong value, 3 on bad arguments.
#include <cstdlib>
#include <cstring>
#include <string>

#include "mapicode.h"
#include "mapitags.h"
#include "mapix.h"

namespace {

constexpr ULONG kText = PROP_TAG(PT_STRING8, 0x6650);

bool ParseUid(const char* hex, MAPIUID* uid) {
  if (std::strlen(hex) != 32) return false;
  for (int i = 0; i < 16; ++i) {
    char byte[3] = {hex[2 * i], hex[2 * i + 1], 0};
    uid->ab[i] = static_cast<BYTE>(std::strtoul(byte, nullptr, 16));
  }
  return true;
}

struct Admin {
  LPPROFADMIN prof = nullptr;
  LPSERVICEADMIN svc = nullptr;
  ~Admin() {
    if (svc) svc->Release();
    if (prof) prof->Release();
  }
};

int WithSection(const char* profile, const char* hex, ULONG flags, int (*body)(LPPROFSECT, char**), char** rest) {
  MAPIUID uid;
  if (!ParseUid(hex, &uid)) return 3;
  Admin a;
  if (MAPIAdminProfiles(0, &a.prof) != S_OK) return 1;
  if (a.prof->AdminServices(const_cast<LPTSTR>(profile), nullptr, 0, 0, &a.svc) != S_OK) return 1;
  LPPROFSECT section = nullptr;
  if (a.svc->OpenProfileSection(&uid, nullptr, flags, &section) != S_OK) return 1;
  int rc = body(section, rest);
  section->Release();
  return rc;
}

int Write(LPPROFSECT s, char** rest) {
  SPropValue v{};
  v.ulPropTag = kText;
  v.Value.lpszA = rest[0];
  return s->SetProps(1, &v, nullptr) == S_OK && s->SaveChanges(0) == S_OK ? 0 : 1;
}

int Read(LPPROFSECT s, char** rest) {
  SizedSPropTagArray(1, tags) = {1, {kText}};
  ULONG n = 0;
  LPSPropValue v = nullptr;
  if (s->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &v) != S_OK) return 1;
  int rc = std::strcmp(v->Value.lpszA, rest[0]) == 0 ? 0 : 2;
  MAPIFreeBuffer(v);
  return rc;
}

int AddOne(LPPROFSECT s, char** rest) {
  ULONG tag = PROP_TAG(PT_LONG, std::strtoul(rest[0], nullptr, 16));
  SizedSPropTagArray(1, tags) = {1, {tag}};
  ULONG n = 0;
  LPSPropValue v = nullptr;
  HRESULT hr = s->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &n, &v);
  if (FAILED(hr)) return 1;
  SPropValue next{};
  next.ulPropTag = tag;
  next.Value.l = (v->ulPropTag == tag ? v->Value.l : 0) + 1;
  MAPIFreeBuffer(v);
  return s->SetProps(1, &next, nullptr) == S_OK && s->SaveChanges(0) == S_OK ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 3;
  if (MAPIInitialize(nullptr) != S_OK) return 1;
  std::string verb = argv[1];
  int rc = 3;
  if (verb == "write" && argc == 5) rc = WithSection(argv[2], argv[3], MAPI_MODIFY, Write, argv + 4);
  if (verb == "read" && argc == 5) rc = WithSection(argv[2], argv[3], 0, Read, argv + 4);
  if (verb == "count" && argc == 6) {
    // Each round opens the section afresh, so every save merges with the other process's.
    int n = std::atoi(argv[5]);
    rc = 0;
    for (int i = 0; i < n && rc == 0; ++i) rc = WithSection(argv[2], argv[3], MAPI_MODIFY, AddOne, argv + 4);
  }
  if (verb == "create" && argc == 4) {
    Admin a;
    rc = MAPIAdminProfiles(0, &a.prof) == S_OK ? 0 : 1;
    for (int i = 0; rc == 0 && i < std::atoi(argv[3]); ++i) {
      std::string name = std::string(argv[2]) + std::to_string(i);
      if (a.prof->CreateProfile(const_cast<LPTSTR>(name.c_str()), nullptr, 0, 0) != S_OK) rc = 1;
    }
  }
  MAPIUninitialize();
  return rc;
}
