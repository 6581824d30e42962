// The signature of a file, as the machine scripts it: one signer, whose certificate carries the machine's
// subject. Issuer and serial number are made up; they only have to find the certificate again.
#include "platform/system/certificates.h"

#include <wincrypt.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <new>
#include <string>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/system/machine.h"

namespace platform {

namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
std::array<BYTE, 4> Issuer = {0x30, 0x02, 0x31, 0x00};
std::array<BYTE, 2> SerialNumber = {0x51, 0x58};

std::atomic<int> CryptObjects{0};

/// A certificate store or a signed message; what the handle points to.
struct CryptObject {
    explicit CryptObject(std::string signer) : subject(std::move(signer)) { ++CryptObjects; }
    ~CryptObject() { --CryptObjects; }
    const std::string subject;
};

/// A certificate context with all it points to.
struct Certificate {
    explicit Certificate(std::string signer, HCERTSTORE store) : object(std::move(signer)) {
        info.Issuer = {static_cast<DWORD>(Issuer.size()), Issuer.data()};
        info.SerialNumber = {static_cast<DWORD>(SerialNumber.size()), SerialNumber.data()};
        context.dwCertEncodingType = X509_ASN_ENCODING;
        context.pCertInfo = &info;
        context.hCertStore = store;
    }
    CERT_CONTEXT context = {};  // first: the handle is this field's address
    CERT_INFO info = {};
    const CryptObject object;
};

CryptObject* FromHandle(void* handle) {
    return static_cast<CryptObject*>(handle);
}

template <class Blob, class Bytes>
bool Equals(const Blob& blob, const Bytes& bytes) {
    return blob.cbData == bytes.size() && std::memcmp(blob.pbData, bytes.data(), bytes.size()) == 0;
}

BOOL QueryFile(DWORD* encoding, DWORD* contentType, DWORD* formatType, HCERTSTORE* store,
               HCRYPTMSG* message) {
    const std::string subject = TheMachine()->certificateSubject;
    if (subject.empty()) return Fail(static_cast<DWORD>(CRYPT_E_NO_MATCH));
    if (encoding != nullptr) *encoding = kEncoding;
    if (contentType != nullptr) *contentType = CERT_QUERY_CONTENT_PKCS7_SIGNED_EMBED;
    if (formatType != nullptr) *formatType = CERT_QUERY_FORMAT_BINARY;
    std::unique_ptr<CryptObject> newStore = std::make_unique<CryptObject>(subject);
    if (message != nullptr) *message = new CryptObject(subject);
    if (store != nullptr) *store = newStore.release();
    return TRUE;
}

/// The signer's information is one block: the structure, and behind it what it points to.
BOOL DeliverSigner(void* data, DWORD* size) {
    constexpr DWORD kNeeded = sizeof(CMSG_SIGNER_INFO) + sizeof(Issuer) + sizeof(SerialNumber);
    const DWORD room = *size;
    *size = kNeeded;
    if (data == nullptr) return TRUE;
    if (room < kNeeded) return Fail(ERROR_MORE_DATA);
    auto* signer = static_cast<CMSG_SIGNER_INFO*>(data);
    BYTE* behind = static_cast<BYTE*>(data) + sizeof(CMSG_SIGNER_INFO);
    std::memset(signer, 0, sizeof(*signer));
    signer->dwVersion = 1;
    signer->Issuer = {static_cast<DWORD>(Issuer.size()), behind};
    signer->SerialNumber = {static_cast<DWORD>(SerialNumber.size()), behind + Issuer.size()};
    std::copy(Issuer.begin(), Issuer.end(), behind);
    std::copy(SerialNumber.begin(), SerialNumber.end(), behind + Issuer.size());
    return TRUE;
}

}  // namespace

int CountCryptObjects() noexcept {
    return CryptObjects.load(std::memory_order_relaxed);
}

}  // namespace platform

using platform::Fail;
using platform::PlatformCall;

BOOL StandInCryptQueryObject(DWORD objectType, const void* object, DWORD contentFlags, DWORD formatFlags,
                             DWORD, DWORD* encoding, DWORD* contentType, DWORD* formatType, HCERTSTORE* store,
                             HCRYPTMSG* message, const void** context) {
    PlatformCall call("CryptQueryObject", static_cast<DWORD>(CRYPT_E_NO_MATCH));
    if (call.Fails()) return FALSE;
    if (objectType != CERT_QUERY_OBJECT_FILE || object == nullptr)
        return Fail(static_cast<DWORD>(E_INVALIDARG));
    if (context != nullptr) *context = nullptr;
    if ((contentFlags & CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED) == 0 ||
        (formatFlags & CERT_QUERY_FORMAT_FLAG_BINARY) == 0)
        return Fail(static_cast<DWORD>(CRYPT_E_NO_MATCH));
    try {
        return platform::QueryFile(encoding, contentType, formatType, store, message);
    } catch (const std::bad_alloc&) {
        return Fail(static_cast<DWORD>(E_OUTOFMEMORY));
    }
}

BOOL StandInCryptMsgGetParam(HCRYPTMSG message, DWORD parameter, DWORD index, void* data, DWORD* size) {
    PlatformCall call("CryptMsgGetParam", static_cast<DWORD>(CRYPT_E_INVALID_MSG_TYPE));
    if (call.Fails()) return FALSE;
    if (message == nullptr || size == nullptr) return Fail(static_cast<DWORD>(E_INVALIDARG));
    if (parameter != CMSG_SIGNER_INFO_PARAM) return Fail(static_cast<DWORD>(CRYPT_E_INVALID_MSG_TYPE));
    if (index != 0) return Fail(static_cast<DWORD>(CRYPT_E_INVALID_INDEX));
    return platform::DeliverSigner(data, size);
}

BOOL StandInCryptMsgClose(HCRYPTMSG message) {
    PlatformCall call("CryptMsgClose", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    delete platform::FromHandle(message);
    return TRUE;
}

PCCERT_CONTEXT StandInCertFindCertificateInStore(HCERTSTORE store, DWORD, DWORD, DWORD findType,
                                                 const void* findParameter, PCCERT_CONTEXT previous) {
    PlatformCall call("CertFindCertificateInStore", static_cast<DWORD>(CRYPT_E_NOT_FOUND));
    if (call.Fails()) return nullptr;
    if (store == nullptr || findType != CERT_FIND_SUBJECT_CERT || findParameter == nullptr)
        return Fail<PCCERT_CONTEXT>(static_cast<DWORD>(E_INVALIDARG), nullptr);
    const auto* wanted = static_cast<const CERT_INFO*>(findParameter);
    // The store holds one certificate, so nothing comes after a previous one.
    if (previous != nullptr || !platform::Equals(wanted->Issuer, platform::Issuer) ||
        !platform::Equals(wanted->SerialNumber, platform::SerialNumber))
        return Fail<PCCERT_CONTEXT>(static_cast<DWORD>(CRYPT_E_NOT_FOUND), nullptr);
    try {
        return &(new platform::Certificate(platform::FromHandle(store)->subject, store))->context;
    } catch (const std::bad_alloc&) {
        return Fail<PCCERT_CONTEXT>(static_cast<DWORD>(E_OUTOFMEMORY), nullptr);
    }
}

DWORD StandInCertGetNameStringA(PCCERT_CONTEXT certificate, DWORD type, DWORD flags, void*, LPSTR name,
                                DWORD size) {
    // On failure the name is empty: a terminator alone, so the size is 1.
    PlatformCall call("CertGetNameStringA", static_cast<DWORD>(CRYPT_E_NOT_FOUND));
    std::string text;
    if (!call.Fails() && type == CERT_NAME_SIMPLE_DISPLAY_TYPE && flags == 0)
        text = reinterpret_cast<const platform::Certificate*>(certificate)->object.subject;
    if (name == nullptr || size == 0) return call.Faulted() ? 0 : static_cast<DWORD>(text.size() + 1);
    const std::size_t copied = std::min<std::size_t>(text.size(), size - 1);
    std::memcpy(name, text.data(), copied);
    name[copied] = 0;
    return static_cast<DWORD>(copied + 1);
}

BOOL StandInCertFreeCertificateContext(PCCERT_CONTEXT certificate) {
    // Always succeeds, with null as well.
    const platform::PlatformScope scope;
    delete reinterpret_cast<const platform::Certificate*>(certificate);
    return TRUE;
}

BOOL StandInCertCloseStore(HCERTSTORE store, DWORD) {
    PlatformCall call("CertCloseStore", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    delete platform::FromHandle(store);
    return TRUE;
}
