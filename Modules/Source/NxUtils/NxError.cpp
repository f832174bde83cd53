#include "NxError.h"

#include "NxText.h"

namespace {

struct ErrorName {
  DWORD dwError;
  LPCSTR pszName;
};

const ErrorName kErrorNames[] = {
    {ERROR_SUCCESS, "The operation completed successfully"},
    {ERROR_FILE_NOT_FOUND, "The system cannot find the file specified"},
    {ERROR_PATH_NOT_FOUND, "The system cannot find the path specified"},
    {ERROR_TOO_MANY_OPEN_FILES, "The system cannot open the file"},
    {ERROR_ACCESS_DENIED, "Access is denied"},
    {ERROR_INVALID_HANDLE, "The handle is invalid"},
    {ERROR_NOT_ENOUGH_MEMORY, "Not enough memory resources are available"},
    {ERROR_SHARING_VIOLATION, "The process cannot access the file because it is being used by another process"},
    {ERROR_LOCK_VIOLATION, "Another process has locked a portion of the file"},
    {ERROR_HANDLE_DISK_FULL, "The disk is full"},
    {ERROR_FILE_EXISTS, "The file exists"},
    {ERROR_INVALID_PARAMETER, "The parameter is incorrect"},
    {ERROR_DISK_FULL, "There is not enough space on the disk"},
    {ERROR_INVALID_NAME, "The filename, directory name, or volume label syntax is incorrect"},
    {ERROR_ALREADY_EXISTS, "Cannot create a file when that file already exists"},
};

}  // namespace

std::string NxErrorText(DWORD dwError) {
  for (const ErrorName& entry : kErrorNames)
    if (entry.dwError == dwError) return NxFormat("%s (%u)", entry.pszName, static_cast<unsigned>(dwError));
  return NxFormat("error %u", static_cast<unsigned>(dwError));
}
