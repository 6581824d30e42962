// Windows' functions of signatures under their public names.
#include "platform/system/certificates.h"

BOOL CryptQueryObject(DWORD objectType, const void* object, DWORD contentFlags, DWORD formatFlags,
                      DWORD flags, DWORD* encoding, DWORD* contentType, DWORD* formatType, HCERTSTORE* store,
                      HCRYPTMSG* message, const void** context) {
    return StandInCryptQueryObject(objectType, object, contentFlags, formatFlags, flags, encoding,
                                   contentType, formatType, store, message, context);
}

BOOL CryptMsgGetParam(HCRYPTMSG message, DWORD parameter, DWORD index, void* data, DWORD* size) {
    return StandInCryptMsgGetParam(message, parameter, index, data, size);
}

BOOL CryptMsgClose(HCRYPTMSG message) {
    return StandInCryptMsgClose(message);
}

PCCERT_CONTEXT CertFindCertificateInStore(HCERTSTORE store, DWORD encoding, DWORD flags, DWORD findType,
                                          const void* findParameter, PCCERT_CONTEXT previous) {
    return StandInCertFindCertificateInStore(store, encoding, flags, findType, findParameter, previous);
}

DWORD CertGetNameStringA(PCCERT_CONTEXT certificate, DWORD type, DWORD flags, void* parameter, LPSTR name,
                         DWORD size) {
    return StandInCertGetNameStringA(certificate, type, flags, parameter, name, size);
}

BOOL CertFreeCertificateContext(PCCERT_CONTEXT certificate) {
    return StandInCertFreeCertificateContext(certificate);
}

BOOL CertCloseStore(HCERTSTORE store, DWORD flags) {
    return StandInCertCloseStore(store, flags);
}
