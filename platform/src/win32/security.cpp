// Security descriptors: built and checked, never enforced (see securitybaseapi.h).
#include <cstring>

#include "windows.h"

extern "C" {

BOOL WINAPI InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR pSecurityDescriptor, DWORD dwRevision) {
  if (!pSecurityDescriptor) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (dwRevision != SECURITY_DESCRIPTOR_REVISION) {
    SetLastError(ERROR_UNKNOWN_REVISION);
    return FALSE;
  }
  auto* sd = static_cast<SECURITY_DESCRIPTOR*>(pSecurityDescriptor);
  std::memset(sd, 0, sizeof(*sd));
  sd->Revision = SECURITY_DESCRIPTOR_REVISION;
  return TRUE;
}

BOOL WINAPI IsValidSecurityDescriptor(PSECURITY_DESCRIPTOR pSecurityDescriptor) {
  auto* sd = static_cast<SECURITY_DESCRIPTOR*>(pSecurityDescriptor);
  if (sd && sd->Revision == SECURITY_DESCRIPTOR_REVISION) return TRUE;
  SetLastError(ERROR_INVALID_SECURITY_DESCR);
  return FALSE;
}

BOOL WINAPI SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR pSecurityDescriptor, BOOL bDaclPresent, PACL pDacl,
                                      BOOL bDaclDefaulted) {
  if (!IsValidSecurityDescriptor(pSecurityDescriptor)) return FALSE;
  auto* sd = static_cast<SECURITY_DESCRIPTOR*>(pSecurityDescriptor);
  sd->Control &= static_cast<SECURITY_DESCRIPTOR_CONTROL>(~(SE_DACL_PRESENT | SE_DACL_DEFAULTED));
  sd->Dacl = nullptr;
  if (bDaclPresent) {
    sd->Control |= SE_DACL_PRESENT;
    sd->Dacl = pDacl;
    if (bDaclDefaulted) sd->Control |= SE_DACL_DEFAULTED;
  }
  return TRUE;
}

}  // extern "C"
