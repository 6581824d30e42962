// The scripted signature of a file. The functions are those of Windows under names of their own, so that a
// Windows program can carry them beside the system's; arguments, results and last errors are the same.
#pragma once

#include <windows.h>

#include <wincrypt.h>

BOOL StandInCryptQueryObject(DWORD objectType, const void* object, DWORD contentFlags, DWORD formatFlags,
                             DWORD flags, DWORD* encoding, DWORD* contentType, DWORD* formatType,
                             HCERTSTORE* store, HCRYPTMSG* message, const void** context);
BOOL StandInCryptMsgGetParam(HCRYPTMSG message, DWORD parameter, DWORD index, void* data, DWORD* size);
BOOL StandInCryptMsgClose(HCRYPTMSG message);
PCCERT_CONTEXT StandInCertFindCertificateInStore(HCERTSTORE store, DWORD encoding, DWORD flags,
                                                 DWORD findType, const void* findParameter,
                                                 PCCERT_CONTEXT previous);
DWORD StandInCertGetNameStringA(PCCERT_CONTEXT certificate, DWORD type, DWORD flags, void* parameter,
                                LPSTR name, DWORD size);
BOOL StandInCertFreeCertificateContext(PCCERT_CONTEXT certificate);
BOOL StandInCertCloseStore(HCERTSTORE store, DWORD flags);

namespace platform {

/// The certificate stores, messages and contexts in use.
int CountCryptObjects() noexcept;

}  // namespace platform
