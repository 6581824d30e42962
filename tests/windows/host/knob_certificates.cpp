// The machine's scripted signature under names of its own.
#include "tests/windows/host/stand_in_knobs.h"

#define CryptQueryObject StandInCryptQueryObject
#define CryptMsgGetParam StandInCryptMsgGetParam
#define CryptMsgClose StandInCryptMsgClose
#define CertFindCertificateInStore StandInCertFindCertificateInStore
#undef CertGetNameString
#define CertGetNameStringA StandInCertGetNameStringA
#define CertFreeCertificateContext StandInCertFreeCertificateContext
#define CertCloseStore StandInCertCloseStore

#include "platform/system/certificates.cpp"
