#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "test_home.h"
#include "windows.h"

namespace {

const char kPerfModeKey[] = "SOFTWARE\\Microsoft\\Office\\Outlook\\Addins\\TQArchiverAddin";

// Closes a key at the end of a scope.
struct Key {
  HKEY h = nullptr;
  ~Key() {
    if (h) RegCloseKey(h);
  }
  HKEY* operator&() { return &h; }
  operator HKEY() const { return h; }
};

LONG SetDword(HKEY key, const char* name, DWORD value) {
  return RegSetValueExA(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

LONG SetString(HKEY key, const char* name, const std::string& value, DWORD type = REG_SZ) {
  return RegSetValueExA(key, name, 0, type, reinterpret_cast<const BYTE*>(value.c_str()),
                        static_cast<DWORD>(value.size() + 1));
}

std::string Query(HKEY key, const char* name, DWORD* type = nullptr) {
  DWORD size = 0;
  if (RegQueryValueExA(key, name, nullptr, type, nullptr, &size) != ERROR_SUCCESS) return "<missing>";
  std::string data(size, '\0');
  EXPECT_EQ(RegQueryValueExA(key, name, nullptr, type, reinterpret_cast<BYTE*>(data.data()), &size), ERROR_SUCCESS);
  return data;
}

std::vector<std::string> SubKeys(HKEY key) {
  std::vector<std::string> names;
  char name[256];
  for (DWORD i = 0;; ++i) {
    DWORD size = sizeof name;
    LONG rc = RegEnumKeyExA(key, i, name, &size, nullptr, nullptr, nullptr, nullptr);
    if (rc == ERROR_NO_MORE_ITEMS) break;
    EXPECT_EQ(rc, ERROR_SUCCESS);
    if (rc != ERROR_SUCCESS) break;
    names.emplace_back(name, size);
  }
  return names;
}

std::vector<std::string> ValueNames(HKEY key) {
  std::vector<std::string> names;
  char name[256];
  for (DWORD i = 0;; ++i) {
    DWORD size = sizeof name;
    LONG rc = RegEnumValueA(key, i, name, &size, nullptr, nullptr, nullptr, nullptr);
    if (rc == ERROR_NO_MORE_ITEMS) break;
    EXPECT_EQ(rc, ERROR_SUCCESS);
    if (rc != ERROR_SUCCESS) break;
    names.emplace_back(name, size);
  }
  return names;
}

}  // namespace

TEST(Registry, CreateOpenAndCaseInsensitiveNames) {
  adtest::TempHome home;
  Key created;
  DWORD disposition = 0;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, kPerfModeKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                            nullptr, &created, &disposition),
            ERROR_SUCCESS);
  EXPECT_EQ(disposition, static_cast<DWORD>(REG_CREATED_NEW_KEY));
  ASSERT_EQ(SetDword(created, "PerfMode", 1), ERROR_SUCCESS);

  Key again;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "software\\MICROSOFT\\office\\outlook\\addins\\tqarchiveraddin", 0,
                            nullptr, 0, KEY_READ, nullptr, &again, &disposition),
            ERROR_SUCCESS);
  EXPECT_EQ(disposition, static_cast<DWORD>(REG_OPENED_EXISTING_KEY));
  DWORD type = 0, value = 0, size = sizeof value;
  ASSERT_EQ(RegQueryValueExA(again, "PERFMODE", nullptr, &type, reinterpret_cast<BYTE*>(&value), &size),
            ERROR_SUCCESS);
  EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(size, 4u);

  Key software;
  ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Microsoft\\", 0, KEY_READ, &software), ERROR_SUCCESS);
  EXPECT_EQ(SubKeys(software), (std::vector<std::string>{"Office"}));  // case as created
  Key missing;
  EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Nowhere", 0, KEY_READ, &missing), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(missing.h, nullptr);
  // Each hive is its own.
  EXPECT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, kPerfModeKey, 0, KEY_READ, &missing), ERROR_FILE_NOT_FOUND);
  Key relative;
  ASSERT_EQ(RegOpenKeyExA(software, "office\\Outlook", 0, KEY_READ, &relative), ERROR_SUCCESS);
  Key self;
  ASSERT_EQ(RegOpenKeyExA(relative, nullptr, 0, KEY_READ, &self), ERROR_SUCCESS);
  EXPECT_EQ(SubKeys(self), (std::vector<std::string>{"Addins"}));
}

TEST(Registry, ValueTypesRoundTrip) {
  adtest::TempHome home;
  Key key;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\TQProfile", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                            nullptr),
            ERROR_SUCCESS);
  ASSERT_EQ(SetDword(key, "DumpRow", 2), ERROR_SUCCESS);
  ASSERT_EQ(SetString(key, "Name", "Orvanta Store"), ERROR_SUCCESS);
  ASSERT_EQ(SetString(key, "Path", "%TEMP%\\x", REG_EXPAND_SZ), ERROR_SUCCESS);
  const char multi[] = "one\0two\0\0";
  ASSERT_EQ(RegSetValueExA(key, "List", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(multi), sizeof multi - 1),
            ERROR_SUCCESS);
  const BYTE binary[] = {0x00, 0xFF, 0x25, 0x0A, 0x20, 0x5C};  // NUL, '%', LF, ' ', '\' survive
  ASSERT_EQ(RegSetValueExA(key, "Blob", 0, REG_BINARY, binary, sizeof binary), ERROR_SUCCESS);
  ULONGLONG big = 0x0123456789ABCDEFULL;
  ASSERT_EQ(RegSetValueExA(key, "Big", 0, REG_QWORD, reinterpret_cast<const BYTE*>(&big), sizeof big), ERROR_SUCCESS);
  ASSERT_EQ(SetString(key, nullptr, "default value"), ERROR_SUCCESS);
  ASSERT_EQ(RegSetValueExA(key, "Unterminated", 0, REG_SZ, reinterpret_cast<const BYTE*>("abc"), 3), ERROR_SUCCESS);
  ASSERT_EQ(RegSetValueExA(key, "Empty", 0, REG_BINARY, nullptr, 0), ERROR_SUCCESS);

  // Read back through a new handle, from the file.
  Key reader;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "SOFTWARE\\tqprofile", 0, KEY_READ, &reader), ERROR_SUCCESS);
  DWORD type = 0;
  EXPECT_EQ(Query(reader, "dumprow", &type), std::string("\2\0\0\0", 4));
  EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
  EXPECT_EQ(Query(reader, "Name", &type), std::string("Orvanta Store\0", 14));  // with its NUL
  EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
  EXPECT_EQ(Query(reader, "Path", &type), std::string("%TEMP%\\x\0", 9));
  EXPECT_EQ(type, static_cast<DWORD>(REG_EXPAND_SZ));
  EXPECT_EQ(Query(reader, "List", &type), std::string(multi, sizeof multi - 1));
  EXPECT_EQ(type, static_cast<DWORD>(REG_MULTI_SZ));
  EXPECT_EQ(Query(reader, "Blob"), std::string(reinterpret_cast<const char*>(binary), sizeof binary));
  EXPECT_EQ(Query(reader, "Big"), std::string(reinterpret_cast<const char*>(&big), sizeof big));
  EXPECT_EQ(Query(reader, ""), std::string("default value\0", 14));
  EXPECT_EQ(Query(reader, nullptr), std::string("default value\0", 14));
  EXPECT_EQ(Query(reader, "Unterminated"), std::string("abc\0", 4));
  EXPECT_EQ(Query(reader, "Empty"), "");

  // Sizes: a NULL buffer asks, a short one gets ERROR_MORE_DATA and the size.
  DWORD size = 0;
  EXPECT_EQ(RegQueryValueExA(reader, "Name", nullptr, nullptr, nullptr, &size), ERROR_SUCCESS);
  EXPECT_EQ(size, 14u);
  char small[4] = "xyz";
  size = sizeof small;
  EXPECT_EQ(RegQueryValueExA(reader, "Name", nullptr, nullptr, reinterpret_cast<BYTE*>(small), &size),
            ERROR_MORE_DATA);
  EXPECT_EQ(size, 14u);
  EXPECT_EQ(RegQueryValueExA(reader, "Nope", nullptr, nullptr, nullptr, &size), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RegQueryValueExA(reader, "Name", nullptr, nullptr, reinterpret_cast<BYTE*>(small), nullptr),
            ERROR_INVALID_PARAMETER);

  // Replacing keeps the value's place; values enumerate in order of creation.
  ASSERT_EQ(SetDword(key, "NAME", 7), ERROR_SUCCESS);
  std::vector<std::string> names = ValueNames(reader);
  ASSERT_EQ(names.size(), 9u);
  EXPECT_EQ(names[0], "DumpRow");
  EXPECT_EQ(names[1], "Name");
  EXPECT_EQ(Query(reader, "name", &type), std::string("\7\0\0\0", 4));
  EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));

  char name[8];
  DWORD nameSize = 4, dataSize = 0;
  EXPECT_EQ(RegEnumValueA(reader, 0, name, &nameSize, nullptr, nullptr, nullptr, &dataSize), ERROR_MORE_DATA);
  nameSize = sizeof name;
  BYTE data[2];
  dataSize = sizeof data;
  EXPECT_EQ(RegEnumValueA(reader, 0, name, &nameSize, nullptr, &type, data, &dataSize), ERROR_MORE_DATA);
  EXPECT_EQ(dataSize, 4u);
  EXPECT_STREQ(name, "DumpRow");
  EXPECT_EQ(RegEnumValueA(reader, 99, name, &nameSize, nullptr, nullptr, nullptr, nullptr), ERROR_NO_MORE_ITEMS);

  DWORD subKeys = 9, values = 0, maxName = 0, maxData = 0;
  EXPECT_EQ(RegQueryInfoKeyA(reader, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values, &maxName,
                             &maxData, nullptr, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(subKeys, 0u);
  EXPECT_EQ(values, 9u);
  EXPECT_EQ(maxName, 12u);  // "Unterminated"
  EXPECT_EQ(maxData, 14u);
  EXPECT_EQ(RegFlushKey(key), ERROR_SUCCESS);
}

TEST(Registry, DeletingValuesAndKeys) {
  adtest::TempHome home;
  Key root;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CLASSES_ROOT, "CLSID\\{1}\\InprocServer32", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                            &root, nullptr),
            ERROR_SUCCESS);
  ASSERT_EQ(SetString(root, nullptr, "/opt/x.so"), ERROR_SUCCESS);
  ASSERT_EQ(SetString(root, "ThreadingModel", "Both"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteValueA(root, "threadingmodel"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteValueA(root, "ThreadingModel"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(ValueNames(root), (std::vector<std::string>{""}));

  Key clsid;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, "CLSID", 0, KEY_ALL_ACCESS, &clsid), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteKeyA(clsid, "{1}"), ERROR_ACCESS_DENIED);  // it has a subkey
  EXPECT_EQ(RegDeleteKeyA(clsid, "{1}\\INPROCSERVER32"), ERROR_SUCCESS);
  // The open handle on the deleted key says so, even after a key of that name comes back.
  EXPECT_EQ(Query(root, nullptr), "<missing>");
  DWORD size = 0;
  EXPECT_EQ(RegQueryValueExA(root, nullptr, nullptr, nullptr, nullptr, &size), ERROR_KEY_DELETED);
  Key recreated;
  ASSERT_EQ(RegCreateKeyExA(clsid, "{1}\\InprocServer32", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &recreated, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(SetDword(root, "x", 1), ERROR_KEY_DELETED);
  EXPECT_EQ(RegDeleteKeyA(clsid, "{1}\\InprocServer32"), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteKeyA(clsid, "{1}\\InprocServer32"), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RegDeleteKeyA(clsid, "{1}"), ERROR_SUCCESS);
  EXPECT_TRUE(SubKeys(clsid).empty());

  // A whole tree goes at once; a key may delete itself with "".
  Key deep;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CLASSES_ROOT, "T\\a\\b\\c", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &deep, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteTreeA(HKEY_CLASSES_ROOT, "T\\a"), ERROR_SUCCESS);
  Key t;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, "T", 0, KEY_ALL_ACCESS, &t), ERROR_SUCCESS);
  EXPECT_TRUE(SubKeys(t).empty());
  EXPECT_EQ(RegDeleteKeyA(t, ""), ERROR_SUCCESS);
  Key gone;
  EXPECT_EQ(RegOpenKeyExA(HKEY_CLASSES_ROOT, "T", 0, KEY_READ, &gone), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RegDeleteKeyA(HKEY_CLASSES_ROOT, ""), ERROR_ACCESS_DENIED);  // a hive stays
}

TEST(Registry, EnumerationOrderAndSizes) {
  adtest::TempHome home;
  Key parent;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "E", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &parent, nullptr),
            ERROR_SUCCESS);
  for (const char* name : {"beta", "Alpha", "gamma", "ALPHA2"}) {
    Key child;
    ASSERT_EQ(RegCreateKeyExA(parent, name, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &child, nullptr), ERROR_SUCCESS);
  }
  EXPECT_EQ(SubKeys(parent), (std::vector<std::string>{"Alpha", "ALPHA2", "beta", "gamma"}));
  char name[8];
  DWORD size = 5;  // "Alpha" needs 6 with its NUL
  EXPECT_EQ(RegEnumKeyExA(parent, 0, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
  size = sizeof name;
  FILETIME written{};
  EXPECT_EQ(RegEnumKeyExA(parent, 2, name, &size, nullptr, nullptr, nullptr, &written), ERROR_SUCCESS);
  EXPECT_STREQ(name, "beta");
  EXPECT_GT(written.dwHighDateTime, 0x01D00000u);
  EXPECT_EQ(RegEnumKeyExA(parent, 4, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_NO_MORE_ITEMS);
}

TEST(Registry, AccessRightsAndBadInput) {
  adtest::TempHome home;
  Key readOnly;
  ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "R", 0, nullptr, 0, KEY_READ, nullptr, &readOnly, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(SetDword(readOnly, "x", 1), ERROR_ACCESS_DENIED);
  EXPECT_EQ(RegDeleteValueA(readOnly, "x"), ERROR_ACCESS_DENIED);
  Key child;
  EXPECT_EQ(RegCreateKeyExA(readOnly, "sub", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &child, nullptr),
            ERROR_ACCESS_DENIED);
  Key writeOnly;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "R", 0, KEY_SET_VALUE, &writeOnly), ERROR_SUCCESS);
  EXPECT_EQ(SetDword(writeOnly, "x", 1), ERROR_SUCCESS);
  DWORD size = 0;
  EXPECT_EQ(RegQueryValueExA(writeOnly, "x", nullptr, nullptr, nullptr, &size), ERROR_ACCESS_DENIED);
  EXPECT_EQ(SubKeys(readOnly).size(), 0u);

  HKEY bogus = reinterpret_cast<HKEY>(0x1234);
  EXPECT_EQ(RegQueryValueExA(bogus, "x", nullptr, nullptr, nullptr, &size), ERROR_INVALID_HANDLE);
  EXPECT_EQ(RegCloseKey(bogus), ERROR_INVALID_HANDLE);
  EXPECT_EQ(RegOpenKeyExA(HKEY_PERFORMANCE_DATA, "x", 0, KEY_READ, &child), ERROR_INVALID_HANDLE);
  EXPECT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "R", 0, KEY_READ, nullptr), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, nullptr, 0, nullptr, 0, KEY_READ, nullptr, &child, nullptr),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "\\lead", 0, nullptr, 0, KEY_READ, nullptr, &child, nullptr),
            ERROR_BAD_PATHNAME);
  EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "a\\\\b", 0, nullptr, 0, KEY_READ, nullptr, &child, nullptr),
            ERROR_BAD_PATHNAME);
  std::string longName(256, 'k');
  EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, longName.c_str(), 0, nullptr, 0, KEY_READ, nullptr, &child, nullptr),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(RegSetValueExA(HKEY_CURRENT_USER, "x", 0, REG_BINARY, nullptr, 4), ERROR_NOACCESS);
  EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, nullptr), ERROR_INVALID_PARAMETER);
  char name[8];
  EXPECT_EQ(RegEnumKeyExA(HKEY_CURRENT_USER, 0, name, nullptr, nullptr, nullptr, nullptr, nullptr),
            ERROR_INVALID_PARAMETER);
  EXPECT_EQ(RegCloseKey(HKEY_LOCAL_MACHINE), ERROR_SUCCESS);  // predefined keys close harmlessly
  EXPECT_EQ(child.h, nullptr);
}

TEST(Registry, CorruptHiveIsReportedAndNotOverwritten) {
  adtest::TempHome home;
  Key key;
  ASSERT_EQ(RegCreateKeyExA(HKEY_USERS, "u", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr), ERROR_SUCCESS);
  std::string hive = home.Home() + "/registry/HKEY_USERS.reg";
  std::ofstream(hive) << "garbage\n";
  DWORD size = 0;
  EXPECT_EQ(RegQueryValueExA(key, "x", nullptr, nullptr, nullptr, &size), ERROR_REGISTRY_CORRUPT);
  EXPECT_EQ(SetDword(key, "x", 1), ERROR_REGISTRY_CORRUPT);
  std::ifstream in(hive);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, "garbage\n");
}

TEST(Registry, AnotherProcessSeesWhatWasWritten) {
  adtest::TempHome home;
  Key key;
  ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, kPerfModeKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  ASSERT_EQ(SetDword(key, "PerfMode", 0), ERROR_SUCCESS);
  EXPECT_EQ(adtest::RunChild("registry_child", {"check", "PerfMode", "0"}), 0);
  EXPECT_EQ(adtest::RunChild("registry_child", {"check", "PerfMode", "1"}), 1);

  ASSERT_EQ(adtest::RunChild("registry_child", {"write", "child", "3"}), 0);
  Key shared;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\ADTest\\Shared", 0, KEY_READ, &shared), ERROR_SUCCESS);
  EXPECT_EQ(Query(shared, "child-2"), std::string("\2\0\0\0", 4));
}

TEST(Registry, ConcurrentWritersInSeveralProcessesLoseNothing) {
  adtest::TempHome home;
  constexpr int kPerWriter = 40;
  std::vector<std::unique_ptr<adtest::ChildProcess>> children;
  for (const char* prefix : {"a", "b", "c"}) {
    children.push_back(std::make_unique<adtest::ChildProcess>(
        adtest::BinPath("registry_child"), std::vector<std::string>{"write", prefix, std::to_string(kPerWriter)}));
  }
  for (int i = 0; i < kPerWriter; ++i) {  // this process writes at the same time
    Key key;
    ASSERT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, "Software\\ADTest\\Shared", 0, nullptr, 0, KEY_WRITE, nullptr, &key,
                              nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(SetDword(key, ("parent-" + std::to_string(i)).c_str(), static_cast<DWORD>(i)), ERROR_SUCCESS);
  }
  for (auto& child : children) EXPECT_EQ(child->Wait(), 0);

  Key shared;
  ASSERT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, "Software\\ADTest\\Shared", 0, KEY_READ, &shared), ERROR_SUCCESS);
  std::vector<std::string> names = ValueNames(shared);
  std::set<std::string> unique(names.begin(), names.end());
  EXPECT_EQ(names.size(), 4u * kPerWriter);
  EXPECT_EQ(unique.size(), 4u * kPerWriter);
  for (const char* prefix : {"a", "b", "c", "parent"}) {
    for (int i = 0; i < kPerWriter; ++i) EXPECT_TRUE(unique.count(prefix + ("-" + std::to_string(i)))) << prefix << i;
  }
}
