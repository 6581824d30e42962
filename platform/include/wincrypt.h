// Who signed a file: the signed message inside it, its signer and the signer's certificate. All of it is
// scripted by the machine file.
#pragma once

#include <windows.h>

typedef void* HCERTSTORE;
typedef void* HCRYPTMSG;
typedef ULONG_PTR HCRYPTPROV_LEGACY;

#define X509_ASN_ENCODING 0x00000001
#define PKCS_7_ASN_ENCODING 0x00010000
#define CERT_QUERY_OBJECT_FILE 0x00000001
#define CERT_QUERY_CONTENT_PKCS7_SIGNED_EMBED 10
#define CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED (1 << CERT_QUERY_CONTENT_PKCS7_SIGNED_EMBED)
#define CERT_QUERY_FORMAT_BINARY 1
#define CERT_QUERY_FORMAT_FLAG_BINARY (1 << CERT_QUERY_FORMAT_BINARY)
#define CMSG_SIGNER_INFO_PARAM 6
#define CERT_FIND_SUBJECT_CERT 0x000B0000
#define CERT_NAME_SIMPLE_DISPLAY_TYPE 4

typedef struct _CRYPTOAPI_BLOB {
    DWORD cbData;
    BYTE* pbData;
} CRYPT_INTEGER_BLOB, CRYPT_OBJID_BLOB, CRYPT_HASH_BLOB, CRYPT_DATA_BLOB, CERT_NAME_BLOB;

typedef struct _CRYPT_BIT_BLOB {
    DWORD cbData;
    BYTE* pbData;
    DWORD cUnusedBits;
} CRYPT_BIT_BLOB;

typedef struct _CRYPT_ALGORITHM_IDENTIFIER {
    LPSTR pszObjId;
    CRYPT_OBJID_BLOB Parameters;
} CRYPT_ALGORITHM_IDENTIFIER;

typedef struct _CRYPT_ATTRIBUTE {
    LPSTR pszObjId;
    DWORD cValue;
    CRYPT_DATA_BLOB* rgValue;
} CRYPT_ATTRIBUTE;

typedef struct _CRYPT_ATTRIBUTES {
    DWORD cAttr;
    CRYPT_ATTRIBUTE* rgAttr;
} CRYPT_ATTRIBUTES;

typedef struct _CERT_PUBLIC_KEY_INFO {
    CRYPT_ALGORITHM_IDENTIFIER Algorithm;
    CRYPT_BIT_BLOB PublicKey;
} CERT_PUBLIC_KEY_INFO;

typedef struct _CERT_EXTENSION {
    LPSTR pszObjId;
    BOOL fCritical;
    CRYPT_OBJID_BLOB Value;
} CERT_EXTENSION, *PCERT_EXTENSION;

typedef struct _CERT_INFO {
    DWORD dwVersion;
    CRYPT_INTEGER_BLOB SerialNumber;
    CRYPT_ALGORITHM_IDENTIFIER SignatureAlgorithm;
    CERT_NAME_BLOB Issuer;
    FILETIME NotBefore;
    FILETIME NotAfter;
    CERT_NAME_BLOB Subject;
    CERT_PUBLIC_KEY_INFO SubjectPublicKeyInfo;
    CRYPT_BIT_BLOB IssuerUniqueId;
    CRYPT_BIT_BLOB SubjectUniqueId;
    DWORD cExtension;
    PCERT_EXTENSION rgExtension;
} CERT_INFO, *PCERT_INFO;

typedef struct _CERT_CONTEXT {
    DWORD dwCertEncodingType;
    BYTE* pbCertEncoded;
    DWORD cbCertEncoded;
    PCERT_INFO pCertInfo;
    HCERTSTORE hCertStore;
} CERT_CONTEXT, *PCERT_CONTEXT;
typedef const CERT_CONTEXT* PCCERT_CONTEXT;

typedef struct _CMSG_SIGNER_INFO {
    DWORD dwVersion;
    CERT_NAME_BLOB Issuer;
    CRYPT_INTEGER_BLOB SerialNumber;
    CRYPT_ALGORITHM_IDENTIFIER HashAlgorithm;
    CRYPT_ALGORITHM_IDENTIFIER HashEncryptionAlgorithm;
    CRYPT_DATA_BLOB EncryptedHash;
    CRYPT_ATTRIBUTES AuthAttrs;
    CRYPT_ATTRIBUTES UnauthAttrs;
} CMSG_SIGNER_INFO, *PCMSG_SIGNER_INFO;

extern "C" {
BOOL WINAPI CryptQueryObject(DWORD objectType, const void* object, DWORD contentFlags, DWORD formatFlags,
                             DWORD flags, DWORD* encoding, DWORD* contentType, DWORD* formatType,
                             HCERTSTORE* store, HCRYPTMSG* message, const void** context);
BOOL WINAPI CryptMsgGetParam(HCRYPTMSG message, DWORD parameter, DWORD index, void* data, DWORD* size);
BOOL WINAPI CryptMsgClose(HCRYPTMSG message);
PCCERT_CONTEXT WINAPI CertFindCertificateInStore(HCERTSTORE store, DWORD encoding, DWORD findFlags,
                                                 DWORD findType, const void* findParameter,
                                                 PCCERT_CONTEXT previous);
DWORD WINAPI CertGetNameStringA(PCCERT_CONTEXT certificate, DWORD type, DWORD flags, void* typeParameter,
                                LPSTR name, DWORD size);
BOOL WINAPI CertFreeCertificateContext(PCCERT_CONTEXT certificate);
BOOL WINAPI CertCloseStore(HCERTSTORE store, DWORD flags);
}
