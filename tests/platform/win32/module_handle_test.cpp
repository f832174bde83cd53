#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "test_home.h"
#include "windows.h"

namespace {

using HandleProc = HMODULE (*)();
using AddressProc = const void* (*)();

const DWORD kFromAddress = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS;
const DWORD kUnchanged = GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;

int ProgramFunction() { return 7; }

}  // namespace

TEST(ModuleHandleEx, AnAddressOfTheProgramGivesTheProgramsHandle) {
  HMODULE h = nullptr;
  ASSERT_TRUE(GetModuleHandleExA(kFromAddress | kUnchanged, reinterpret_cast<LPCSTR>(&ProgramFunction), &h));
  EXPECT_EQ(h, GetModuleHandleA(nullptr));
  EXPECT_EQ(ProgramFunction(), 7);
}

TEST(ModuleHandleEx, AModuleFindsItsOwnHandleWhileItLoads) {
  HMODULE loaded = LoadLibraryA("loader_ctor_module.dll");
  ASSERT_NE(loaded, nullptr) << GetLastError();
  auto constructed = reinterpret_cast<HandleProc>(GetProcAddress(loaded, "ConstructedHandle"));
  auto marker = reinterpret_cast<AddressProc>(GetProcAddress(loaded, "MarkerAddress"));
  ASSERT_NE(constructed, nullptr);
  ASSERT_NE(marker, nullptr);
  EXPECT_EQ(constructed(), loaded);

  HMODULE h = nullptr;
  ASSERT_TRUE(GetModuleHandleExA(kFromAddress | kUnchanged, static_cast<LPCSTR>(marker()), &h));
  EXPECT_EQ(h, loaded);
  ASSERT_TRUE(GetModuleHandleExA(kUnchanged, "LOADER_CTOR_MODULE", &h));  // by name, as GetModuleHandleA
  EXPECT_EQ(h, loaded);

  // What it registered while loading is found under the handle LoadLibraryA gave.
  WCHAR sz[64] = {};
  EXPECT_GT(LoadStringW(loaded, 1, sz, 64), 0);
  EXPECT_EQ(std::u16string(sz), u"registered while loading");
  EXPECT_TRUE(FreeLibrary(loaded));
}

TEST(ModuleHandleEx, WithoutUnchangedRefcountTheModuleGetsAReference) {
  HMODULE loaded = LoadLibraryA("loader_plain_module.dll");
  ASSERT_NE(loaded, nullptr);
  FARPROC multiply = GetProcAddress(loaded, "Multiply");
  ASSERT_NE(multiply, nullptr);
  HMODULE h = nullptr;
  ASSERT_TRUE(GetModuleHandleExA(kFromAddress, reinterpret_cast<LPCSTR>(multiply), &h));
  EXPECT_EQ(h, loaded);
  EXPECT_TRUE(FreeLibrary(loaded));
  EXPECT_NE(GetProcAddress(loaded, "Multiply"), nullptr);  // still held by the second reference
  EXPECT_TRUE(FreeLibrary(h));
  EXPECT_EQ(GetProcAddress(loaded, "Multiply"), nullptr);  // gone: the handle is no longer known
}

TEST(ModuleHandleEx, BadArgumentsFailAsPublished) {
  HMODULE h = reinterpret_cast<HMODULE>(1);
  SetLastError(0);
  EXPECT_FALSE(GetModuleHandleExA(kFromAddress, reinterpret_cast<LPCSTR>(&ProgramFunction), nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | kUnchanged, nullptr, &h));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(h, nullptr);
  EXPECT_FALSE(GetModuleHandleExA(kFromAddress | kUnchanged, nullptr, &h));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(GetModuleHandleExA(0x100, nullptr, &h));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

  void* heap = std::malloc(16);  // no module's image holds the heap
  EXPECT_FALSE(GetModuleHandleExA(kFromAddress | kUnchanged, static_cast<LPCSTR>(heap), &h));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  std::free(heap);
  EXPECT_FALSE(GetModuleHandleExA(kUnchanged, "no_such_module.dll", &h));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
}
