#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "direct.h"
#include "test_home.h"
#include "windows.h"

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

HANDLE Open(const std::string& path, DWORD disposition, DWORD access = kReadWrite, DWORD flags = FILE_ATTRIBUTE_NORMAL) {
  return CreateFileA(path.c_str(), access, kShareAll, nullptr, disposition, flags, nullptr);
}

void Write(HANDLE h, const std::string& text) {
  DWORD written = 0;
  ASSERT_TRUE(WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
  ASSERT_EQ(written, text.size());
}

std::string Read(HANDLE h, DWORD count) {
  std::string buf(count, '\0');
  DWORD read = 0;
  EXPECT_TRUE(ReadFile(h, buf.data(), count, &read, nullptr));
  buf.resize(read);
  return buf;
}

std::string Contents(const std::string& path) {
  HANDLE h = Open(path, OPEN_EXISTING, GENERIC_READ);
  if (h == INVALID_HANDLE_VALUE) return "<missing>";
  std::string text = Read(h, 1 << 16);
  CloseHandle(h);
  return text;
}

void MakeFile(const std::string& path, const std::string& text) {
  HANDLE h = Open(path, CREATE_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  Write(h, text);
  CloseHandle(h);
}

bool Exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

DWORD Error() { return GetLastError(); }

class FileTest : public ::testing::Test {
 protected:
  std::string P(const std::string& name) const { return home.Temp() + name; }
  adtest::TempHome home;
};

}  // namespace

TEST_F(FileTest, DispositionsCreateOpenAndReportWhatExisted) {
  std::string path = P("disp.bin");
  SetLastError(1234);
  HANDLE h = Open(path, OPEN_ALWAYS);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), 0u);  // created: the logger writes its header on this
  Write(h, "hello");
  CloseHandle(h);

  h = Open(path, OPEN_ALWAYS);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(Read(h, 100), "hello");
  CloseHandle(h);

  EXPECT_EQ(Open(path, CREATE_NEW), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_FILE_EXISTS));
  EXPECT_EQ(Contents(path), "hello");  // the collision leaves the file alone

  h = Open(path, CREATE_ALWAYS);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(GetFileSize(h, nullptr), 0u);
  CloseHandle(h);
  h = Open(P("fresh.bin"), CREATE_ALWAYS);
  EXPECT_EQ(Error(), 0u);
  CloseHandle(h);

  MakeFile(path, "0123456789");
  h = Open(path, TRUNCATE_EXISTING);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetFileSize(h, nullptr), 0u);
  CloseHandle(h);
  EXPECT_EQ(Open(path, TRUNCATE_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

  EXPECT_EQ(Open(P("none.bin"), OPEN_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(Open(P("nodir/none.bin"), OPEN_EXISTING), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(Open(P("nodir/new.bin"), CREATE_NEW), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(Open(path, 0), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(Open(path, 6), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(Open(home.Temp(), OPEN_EXISTING, GENERIC_READ), INVALID_HANDLE_VALUE);  // a folder
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(FileTest, BackslashPathsAsTheStoreBuildsThem) {
  char temp[MAX_PATH];
  GetTempPathA(sizeof temp, temp);
  char storePath[MAX_PATH + 16];
  std::snprintf(storePath, sizeof storePath, "%s\\%d.CST", temp, 4711);  // "<temp>/\4711.CST"
  HANDLE h = CreateFileA(storePath, kReadWrite, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW,
                         FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH | FILE_FLAG_RANDOM_ACCESS, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  Write(h, "node");
  CloseHandle(h);
  EXPECT_EQ(Contents(P("4711.CST")), "node");
  EXPECT_NE(GetFileAttributesA(storePath), INVALID_FILE_ATTRIBUTES);

  std::string dir = "C:" + home.Temp() + "sub";
  for (char& c : dir) c = c == '/' ? '\\' : c;
  EXPECT_TRUE(CreateDirectoryA(dir.c_str(), nullptr));
  EXPECT_EQ(GetFileAttributesA(dir.c_str()), static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY));
  MakeFile(dir + "\\inner.txt", "x");
  EXPECT_EQ(Contents(P("sub/inner.txt")), "x");
  EXPECT_TRUE(DeleteFileA((dir + "\\inner.txt").c_str()));
  EXPECT_TRUE(RemoveDirectoryA(dir.c_str()));
}

TEST_F(FileTest, ReadWriteAtTheFilePointer) {
  HANDLE h = Open(P("rw.bin"), CREATE_NEW);
  Write(h, "abcdef");
  EXPECT_EQ(Read(h, 10), "");  // at the end: success with 0 bytes
  EXPECT_EQ(SetFilePointer(h, 2, nullptr, FILE_BEGIN), 2u);
  EXPECT_EQ(Read(h, 2), "cd");
  Write(h, "XY");
  EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), 6u);
  EXPECT_EQ(SetFilePointer(h, 10, nullptr, FILE_BEGIN), 10u);  // beyond the end is allowed
  Write(h, "!");
  EXPECT_EQ(GetFileSize(h, nullptr), 11u);
  SetFilePointer(h, 0, nullptr, FILE_BEGIN);
  EXPECT_EQ(Read(h, 20), std::string("abcdXY\0\0\0\0!", 11));  // the gap reads as zeros

  // An OVERLAPPED gives the offset, and the pointer follows the transfer.
  OVERLAPPED ov{};
  ov.Offset = 1;
  char two[2];
  DWORD read = 0;
  EXPECT_TRUE(ReadFile(h, two, 2, &read, &ov));
  EXPECT_EQ(std::string(two, 2), "bc");
  EXPECT_EQ(ov.InternalHigh, 2u);
  EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), 3u);
  CloseHandle(h);

  // Two handles keep their own pointers.
  HANDLE a = Open(P("rw.bin"), OPEN_EXISTING);
  HANDLE b = Open(P("rw.bin"), OPEN_EXISTING);
  EXPECT_EQ(Read(a, 3), "abc");
  EXPECT_EQ(Read(b, 2), "ab");
  CloseHandle(a);
  CloseHandle(b);
}

TEST_F(FileTest, SetFilePointerTakesASigned32BitDistance) {
  HANDLE h = Open(P("seek.bin"), CREATE_NEW);
  Write(h, std::string(100, 'x'));
  EXPECT_EQ(SetFilePointer(h, -10, nullptr, FILE_END), 90u);
  EXPECT_EQ(SetFilePointer(h, -30, nullptr, FILE_CURRENT), 60u);
  SetLastError(0);
  EXPECT_EQ(SetFilePointer(h, -61, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
  EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_CURRENT), 60u);  // unmoved by the failure

  // An offset of 2 GiB or more, passed without a high part, is a negative distance.
  EXPECT_EQ(SetFilePointer(h, static_cast<LONG>(0x80000000u), nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
  EXPECT_EQ(SetFilePointer(h, 0x7FFFFFFF, nullptr, FILE_BEGIN), 0x7FFFFFFFu);
  // Without a high part the result must fit 32 bits.
  EXPECT_EQ(SetFilePointer(h, 0x7FFFFFFF, nullptr, FILE_CURRENT), 0xFFFFFFFEu);
  EXPECT_EQ(SetFilePointer(h, 2, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  // 0xFFFFFFFF is a valid position too: the last error tells it from a failure.
  EXPECT_EQ(SetFilePointer(h, 1, nullptr, FILE_CURRENT), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(Error(), 0u);

  LONG high = 1;
  EXPECT_EQ(SetFilePointer(h, 5, &high, FILE_BEGIN), 5u);  // 4 GiB + 5
  EXPECT_EQ(high, 1);
  LARGE_INTEGER pos{}, dist{};
  dist.QuadPart = -5;
  EXPECT_TRUE(SetFilePointerEx(h, dist, &pos, FILE_CURRENT));
  EXPECT_EQ(pos.QuadPart, 0x100000000LL);
  dist.QuadPart = -0x100000001LL;
  EXPECT_FALSE(SetFilePointerEx(h, dist, &pos, FILE_CURRENT));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
  EXPECT_EQ(SetFilePointer(h, 0, nullptr, 7), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  CloseHandle(h);
}

TEST_F(FileTest, SetEndOfFileTruncatesAndExtends) {
  HANDLE h = Open(P("trunc.bin"), CREATE_NEW);
  Write(h, std::string(4640, 'n'));
  SetFilePointer(h, 2064, nullptr, FILE_BEGIN);
  ASSERT_TRUE(SetEndOfFile(h));
  EXPECT_EQ(GetFileSize(h, nullptr), 2064u);
  SetFilePointer(h, 4640 + 2064, nullptr, FILE_BEGIN);  // grow by one node, as the record file does
  ASSERT_TRUE(SetEndOfFile(h));
  DWORD high = 7;
  EXPECT_EQ(GetFileSize(h, &high), 6704u);
  EXPECT_EQ(high, 0u);
  LARGE_INTEGER size{};
  EXPECT_TRUE(GetFileSizeEx(h, &size));
  EXPECT_EQ(size.QuadPart, 6704);
  SetFilePointer(h, 6000, nullptr, FILE_BEGIN);
  EXPECT_EQ(Read(h, 4), std::string(4, '\0'));
  EXPECT_TRUE(FlushFileBuffers(h));
  CloseHandle(h);

  HANDLE ro = Open(P("trunc.bin"), OPEN_EXISTING, GENERIC_READ);
  EXPECT_FALSE(SetEndOfFile(ro));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  DWORD written = 0;
  EXPECT_FALSE(WriteFile(ro, "x", 1, &written, nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  CloseHandle(ro);
}

TEST_F(FileTest, AppendAccessWritesAtTheEndAsTheLoggerUsesIt) {
  std::string path = P("log.log");
  HANDLE h = CreateFileA(path.c_str(), 4, 3, nullptr, OPEN_ALWAYS, 0x80, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), 0u);
  Write(h, "one\r\n");
  SetFilePointer(h, 0, nullptr, FILE_BEGIN);
  Write(h, "two\r\n");  // still at the end
  HANDLE other = CreateFileA(path.c_str(), 4, 3, nullptr, OPEN_ALWAYS, 0x80, nullptr);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  Write(other, "three\r\n");
  Write(h, "four\r\n");
  char c;
  DWORD read = 0;
  EXPECT_FALSE(ReadFile(h, &c, 1, &read, nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_FALSE(SetEndOfFile(h));
  CloseHandle(other);
  CloseHandle(h);
  EXPECT_EQ(Contents(path), "one\r\ntwo\r\nthree\r\nfour\r\n");
}

TEST_F(FileTest, DeleteOnCloseAndOverlappedRefusal) {
  std::string path = P("scratch.tmp");
  HANDLE h = Open(path, CREATE_NEW, kReadWrite, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  Write(h, "gone soon");
  EXPECT_TRUE(Exists(path));
  CloseHandle(h);
  EXPECT_FALSE(Exists(path));

  EXPECT_EQ(Open(path, CREATE_NEW, kReadWrite, FILE_FLAG_OVERLAPPED), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
  EXPECT_FALSE(Exists(path));
}

TEST_F(FileTest, BadHandlesAndPointersAreRefused) {
  char buf[4];
  DWORD n = 0;
  HANDLE bogus = reinterpret_cast<HANDLE>(0x1234);
  EXPECT_FALSE(ReadFile(bogus, buf, 4, &n, nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(WriteFile(INVALID_HANDLE_VALUE, buf, 4, &n, nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(SetFilePointer(nullptr, 0, nullptr, FILE_BEGIN), INVALID_SET_FILE_POINTER);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(GetFileSize(bogus, nullptr), INVALID_FILE_SIZE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(SetEndOfFile(bogus));
  EXPECT_FALSE(FlushFileBuffers(bogus));
  EXPECT_FALSE(LockFile(bogus, 0, 0, 1, 0));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

  HANDLE h = Open(P("closed.bin"), CREATE_NEW);
  ASSERT_TRUE(CloseHandle(h));
  EXPECT_FALSE(ReadFile(h, buf, 4, &n, nullptr));  // a closed handle is stale, not reused memory
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(CloseHandle(h));

  h = Open(P("closed.bin"), OPEN_EXISTING);
  EXPECT_FALSE(ReadFile(h, buf, 4, nullptr, nullptr));  // neither a count nor an OVERLAPPED
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(WriteFile(h, nullptr, 4, &n, nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NOACCESS));
  EXPECT_TRUE(WriteFile(h, nullptr, 0, &n, nullptr));  // a null write is fine
  EXPECT_FALSE(GetFileSizeEx(h, nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  CloseHandle(h);

  EXPECT_EQ(CreateFileA(nullptr, kReadWrite, 0, nullptr, OPEN_EXISTING, 0, nullptr), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(CreateFileA("", kReadWrite, 0, nullptr, OPEN_EXISTING, 0, nullptr), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(GetFileAttributesA(nullptr), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(MoveFileA(nullptr, "x"));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(FileTest, RegionLocksConflictBetweenHandles) {
  std::string path = P("locks.bin");
  HANDLE a = Open(path, CREATE_NEW);
  HANDLE b = Open(path, OPEN_EXISTING);
  ASSERT_TRUE(LockFile(a, 256, 0, 12, 0));
  EXPECT_FALSE(LockFile(b, 260, 0, 1, 0));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
  EXPECT_FALSE(LockFile(a, 250, 0, 10, 0));  // an exclusive lock overlaps nothing, not even our own
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
  EXPECT_TRUE(LockFile(b, 268, 0, 4, 0));  // right behind it is free
  EXPECT_FALSE(UnlockFile(a, 256, 0, 11, 0));  // must name the region exactly
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NOT_LOCKED));
  EXPECT_TRUE(UnlockFile(a, 256, 0, 12, 0));
  EXPECT_FALSE(UnlockFile(a, 256, 0, 12, 0));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NOT_LOCKED));
  EXPECT_TRUE(LockFile(b, 256, 0, 12, 0));

  // Shared locks coexist; an exclusive one waits for all of them.
  OVERLAPPED ov{};
  ov.Offset = 1000;
  EXPECT_TRUE(LockFileEx(a, LOCKFILE_FAIL_IMMEDIATELY, 0, 10, 0, &ov));
  EXPECT_TRUE(LockFileEx(b, LOCKFILE_FAIL_IMMEDIATELY, 0, 10, 0, &ov));
  EXPECT_FALSE(LockFileEx(b, LOCKFILE_FAIL_IMMEDIATELY | LOCKFILE_EXCLUSIVE_LOCK, 0, 10, 0, &ov));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
  EXPECT_TRUE(LockFileEx(a, LOCKFILE_FAIL_IMMEDIATELY, 0, 5, 0, &ov));  // shared over our shared
  EXPECT_TRUE(UnlockFileEx(a, 0, 5, 0, &ov));
  EXPECT_FALSE(LockFileEx(b, LOCKFILE_FAIL_IMMEDIATELY | LOCKFILE_EXCLUSIVE_LOCK, 0, 10, 0, &ov));
  EXPECT_TRUE(UnlockFileEx(a, 0, 10, 0, &ov));
  EXPECT_TRUE(UnlockFileEx(b, 0, 10, 0, &ov));

  // A waiting lock is granted when the holder lets go.
  ov.Offset = 2000;
  ASSERT_TRUE(LockFileEx(a, LOCKFILE_EXCLUSIVE_LOCK, 0, 100, 0, &ov));
  bool granted = false;
  std::thread waiter([&] {
    OVERLAPPED wov{};
    wov.Offset = 2050;
    granted = LockFileEx(b, LOCKFILE_EXCLUSIVE_LOCK, 0, 10, 0, &wov);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(UnlockFileEx(a, 0, 100, 0, &ov));
  waiter.join();
  EXPECT_TRUE(granted);

  // The whole-file idiom, and closing a handle drops its locks.
  EXPECT_TRUE(UnlockFile(b, 2050, 0, 10, 0));
  EXPECT_TRUE(UnlockFile(b, 256, 0, 12, 0));
  EXPECT_TRUE(UnlockFile(b, 268, 0, 4, 0));
  ASSERT_TRUE(LockFile(a, 0, 0, 0xFFFFFFFF, 0xFFFFFFFF));
  EXPECT_FALSE(LockFile(b, 5, 0, 1, 0));
  EXPECT_FALSE(LockFile(b, 0, 0x100, 1, 0));  // far beyond the end of the file too
  CloseHandle(a);
  EXPECT_TRUE(LockFile(b, 5, 0, 1, 0));
  EXPECT_FALSE(LockFileEx(b, 0, 1, 1, 0, &ov));  // reserved must be 0
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(LockFileEx(b, 0, 0, 1, 0, nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  CloseHandle(b);
}

TEST_F(FileTest, AttributesAndFolders) {
  std::string dir = P("d");
  EXPECT_EQ(GetFileAttributesA(dir.c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(GetFileAttributesA((dir + "/x/y").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_TRUE(CreateDirectoryA(dir.c_str(), nullptr));
  EXPECT_FALSE(CreateDirectoryA(dir.c_str(), nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_FALSE(CreateDirectoryA((dir + "/a/b").c_str(), nullptr));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));

  MakeFile(dir + "/f.txt", "12345");
  EXPECT_EQ(GetFileAttributesA((dir + "/f.txt").c_str()), static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL));
  WIN32_FILE_ATTRIBUTE_DATA info{};
  ASSERT_TRUE(GetFileAttributesExA((dir + "/f.txt").c_str(), GetFileExInfoStandard, &info));
  EXPECT_EQ(info.nFileSizeLow, 5u);
  EXPECT_GT(info.ftLastWriteTime.dwHighDateTime, 0x01D00000u);  // a date after 2014
  EXPECT_FALSE(GetFileAttributesExA((dir + "/f.txt").c_str(), GetFileExMaxInfoLevel, &info));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_TRUE(SetFileAttributesA((dir + "/f.txt").c_str(), FILE_ATTRIBUTE_READONLY));
  EXPECT_EQ(GetFileAttributesA((dir + "/f.txt").c_str()), static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
  EXPECT_TRUE(SetFileAttributesA((dir + "/f.txt").c_str(), FILE_ATTRIBUTE_NORMAL));

  EXPECT_FALSE(RemoveDirectoryA(dir.c_str()));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
  EXPECT_FALSE(RemoveDirectoryA((dir + "/f.txt").c_str()));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_DIRECTORY));
  EXPECT_FALSE(DeleteFileA(dir.c_str()));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_TRUE(DeleteFileA((dir + "\\f.txt").c_str()));
  EXPECT_FALSE(DeleteFileA((dir + "\\f.txt").c_str()));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_TRUE(RemoveDirectoryA(dir.c_str()));

  // The C runtime's _mkdir reports through errno.
  EXPECT_EQ(_mkdir((dir + "\\one").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(_mkdir(dir.c_str()), 0);
  EXPECT_EQ(_mkdir((dir + "\\one").c_str()), 0);
  EXPECT_EQ(_mkdir((dir + "\\one").c_str()), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(_mkdir(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(_rmdir((dir + "\\one").c_str()), 0);
}

TEST_F(FileTest, MoveAndCopy) {
  std::string a = P("a.txt"), b = P("b.txt"), c = P("c.txt");
  MakeFile(a, "alpha");
  MakeFile(b, "beta");
  EXPECT_FALSE(MoveFileA(a.c_str(), b.c_str()));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(Contents(b), "beta");
  EXPECT_TRUE(MoveFileExA(a.c_str(), b.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
  EXPECT_EQ(Contents(b), "alpha");
  EXPECT_FALSE(Exists(a));
  EXPECT_TRUE(MoveFileA(b.c_str(), c.c_str()));
  EXPECT_EQ(Contents(c), "alpha");
  EXPECT_FALSE(MoveFileA(a.c_str(), b.c_str()));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_FALSE(MoveFileExA(c.c_str(), b.c_str(), MOVEFILE_DELAY_UNTIL_REBOOT));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
  ASSERT_TRUE(CreateDirectoryA(P("dir").c_str(), nullptr));
  EXPECT_FALSE(MoveFileExA(c.c_str(), P("dir").c_str(), MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_ACCESS_DENIED));

  EXPECT_TRUE(CopyFileA(c.c_str(), a.c_str(), TRUE));
  EXPECT_EQ(Contents(a), "alpha");
  MakeFile(b, "other");
  EXPECT_FALSE(CopyFileA(c.c_str(), b.c_str(), TRUE));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_FILE_EXISTS));
  EXPECT_EQ(Contents(b), "other");
  EXPECT_TRUE(CopyFileA(c.c_str(), b.c_str(), FALSE));
  EXPECT_EQ(Contents(b), "alpha");
  EXPECT_FALSE(CopyFileA(c.c_str(), c.c_str(), FALSE));  // never destroys the source
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(Contents(c), "alpha");
  EXPECT_FALSE(CopyFileA(P("missing").c_str(), b.c_str(), FALSE));
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(FileTest, FindFilesWithWildcards) {
  ASSERT_TRUE(CreateDirectoryA(P("f").c_str(), nullptr));
  for (const char* name : {"DedupCache.bin0", "DedupCache.bin1", "dedupcache.bin12", "other.txt", "x.CST"})
    MakeFile(P("f/") + name, name);
  ASSERT_TRUE(CreateDirectoryA(P("f/sub").c_str(), nullptr));

  auto find = [&](const std::string& pattern) {
    std::vector<std::string> names;
    WIN32_FIND_DATAA data;
    HANDLE h = FindFirstFileA((P("f\\") + pattern).c_str(), &data);
    if (h == INVALID_HANDLE_VALUE) return names;
    do {
      names.push_back(data.cFileName);
    } while (FindNextFileA(h, &data));
    EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_NO_MORE_FILES));
    EXPECT_TRUE(FindClose(h));
    return names;
  };
  EXPECT_EQ(find("DedupCache.bin?"), (std::vector<std::string>{"DedupCache.bin0", "DedupCache.bin1"}));
  EXPECT_EQ(find("dedup*"),
            (std::vector<std::string>{"DedupCache.bin0", "DedupCache.bin1", "dedupcache.bin12"}));
  EXPECT_EQ(find("*.cst"), (std::vector<std::string>{"x.CST"}));
  EXPECT_EQ(find("*.*").size(), 8u);  // ".", "..", five files and "sub"
  EXPECT_EQ(find("OTHER.TXT"), (std::vector<std::string>{"other.txt"}));

  WIN32_FIND_DATAA data;
  HANDLE h = FindFirstFileA(P("f/sub").c_str(), &data);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(data.dwFileAttributes, static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY));
  FindClose(h);
  h = FindFirstFileA(P("f/x.CST").c_str(), &data);
  EXPECT_EQ(data.nFileSizeLow, 5u);
  FindClose(h);

  EXPECT_EQ(FindFirstFileA(P("f/*.none").c_str(), &data), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(FindFirstFileA(P("nodir/*").c_str(), &data), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(FindFirstFileA(P("f/*").c_str(), nullptr), INVALID_HANDLE_VALUE);
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  HANDLE file = Open(P("f/other.txt"), OPEN_EXISTING);
  EXPECT_FALSE(FindNextFileA(file, &data));  // a file handle is not a search
  EXPECT_EQ(Error(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(FindClose(file));
  EXPECT_TRUE(CloseHandle(file));
}

TEST_F(FileTest, ConcurrentWritersOnOneHandleLoseNothing) {
  HANDLE h = CreateFileA(P("shared.log").c_str(), FILE_APPEND_DATA, 3, nullptr, OPEN_ALWAYS, 0, nullptr);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([h] {
      for (int i = 0; i < 200; ++i) {
        DWORD n = 0;
        WriteFile(h, "0123456789", 10, &n, nullptr);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(GetFileSize(h, nullptr), 8000u);
  CloseHandle(h);
}
