// The name of whoever signed the host executable, read from the signature that the file carries. Runs on the
// collection thread: it reads the file, which can take its time.
#include <winsock2.h>

#include <windows.h>

#include <wincrypt.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/trace.h"
#include "identity/process_identity.h"

namespace {

constexpr DWORD kPathSize = 260;

struct StoreCloser {
    void operator()(void* store) const { CertCloseStore(store, 0); }
};
struct MessageCloser {
    void operator()(void* message) const { CryptMsgClose(message); }
};
struct CertificateFreer {
    void operator()(const CERT_CONTEXT* certificate) const { CertFreeCertificateContext(certificate); }
};
struct LocalFreer {
    void operator()(void* memory) const { LocalFree(memory); }
};
using LocalMemory = std::unique_ptr<void, LocalFreer>;

/// What the signature of a file consists of.
struct Signature {
    DWORD encoding = 0;
    std::unique_ptr<void, StoreCloser> store;
    std::unique_ptr<void, MessageCloser> message;
};

LocalMemory AllocateZeroed(DWORD size) {
    return LocalMemory(LocalAlloc(LPTR, size));
}

int LastError() {
    return static_cast<int>(GetLastError());
}

/// The standard library's wide characters may be wider than Windows' own; what lies beyond 16 bits becomes a
/// pair.
bool ToUtf16(const char* text, WCHAR (&out)[kPathSize]) {
    wchar_t wide[kPathSize];
    const std::size_t length = std::mbstowcs(wide, text, kPathSize);
    if (length >= kPathSize) return false;
    std::size_t used = 0;
    for (std::size_t i = 0; i < length; ++i) {
        std::uint32_t character = std::char_traits<wchar_t>::to_int_type(wide[i]);
        const bool isPair = character > 0xFFFF;
        if (used + (isPair ? 2 : 1) >= kPathSize) return false;
        if (isPair) {
            character -= 0x10000;
            out[used++] = static_cast<WCHAR>(0xD800 + (character >> 10));
            character = 0xDC00 + (character & 0x3FF);
        }
        out[used++] = static_cast<WCHAR>(character);
    }
    out[used] = 0;
    return true;
}

bool HostExecutablePath(WCHAR (&path)[kPathSize]) {
    char narrow[kPathSize];
    const DWORD length = GetModuleFileNameA(nullptr, narrow, kPathSize);
    if (length == 0 || length >= kPathSize) {
        Trace("ERROR:Can't get module file name while getting cert subject. Error = %d.\n", LastError());
        return false;
    }
    if (!ToUtf16(narrow, path)) {
        Trace("ERROR:Can't read file certificate. Unable to convert the filename to unicode.\n");
        return false;
    }
    return true;
}

/// False without a line for a file that isn't signed.
bool ReadSignature(const WCHAR* path, Signature& signature) {
    HCERTSTORE store = nullptr;
    HCRYPTMSG message = nullptr;
    const BOOL read = CryptQueryObject(
        CERT_QUERY_OBJECT_FILE, path, CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
        CERT_QUERY_FORMAT_FLAG_BINARY, 0, &signature.encoding, nullptr, nullptr, &store, &message, nullptr);
    signature.store.reset(store);
    signature.message.reset(message);
    return read != FALSE;
}

LocalMemory ReadSignerInfo(void* message) {
    DWORD size = 0;
    if (!CryptMsgGetParam(message, CMSG_SIGNER_INFO_PARAM, 0, nullptr, &size)) {
        Trace("ERROR:Unable to get Signer Info size. Error = %d\n", LastError());
        return nullptr;
    }
    LocalMemory info = AllocateZeroed(size);
    if (!info) {
        Trace("ERROR:Unable to allocate memory for Cert Info.\n");
        return nullptr;
    }
    if (!CryptMsgGetParam(message, CMSG_SIGNER_INFO_PARAM, 0, info.get(), &size)) {
        Trace("ERROR:CryptMsgGetParam failed with %d while getting cert info\n", LastError());
        return nullptr;
    }
    return info;
}

std::string DisplayName(const CERT_CONTEXT* certificate) {
    const DWORD length =
        CertGetNameStringA(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, nullptr, 0);
    if (length == 0) {
        Trace("ERROR:Couldn't get subject length. %x\n", static_cast<unsigned>(GetLastError()));
        return {};
    }
    const LocalMemory name = AllocateZeroed(length);
    if (!name) {
        Trace("ERROR:Couldn't alloc subject. %x\n", static_cast<unsigned>(GetLastError()));
        return {};
    }
    if (!CertGetNameStringA(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr,
                            static_cast<char*>(name.get()), length)) {
        Trace("ERROR:Couldn't get subject. %x\n", static_cast<unsigned>(GetLastError()));
        return {};
    }
    return static_cast<const char*>(name.get());
}

}  // namespace

std::string GetImageSignerSubject() {
    WCHAR path[kPathSize];
    if (!HostExecutablePath(path)) return {};
    Signature signature;
    if (!ReadSignature(path, signature)) return {};
    const LocalMemory signer = ReadSignerInfo(signature.message.get());
    if (!signer) return {};

    const auto* info = static_cast<const CMSG_SIGNER_INFO*>(signer.get());
    CERT_INFO wanted{};
    wanted.Issuer = info->Issuer;
    wanted.SerialNumber = info->SerialNumber;
    const std::unique_ptr<const CERT_CONTEXT, CertificateFreer> certificate(CertFindCertificateInStore(
        signature.store.get(), signature.encoding, 0, CERT_FIND_SUBJECT_CERT, &wanted, nullptr));
    if (!certificate) {
        Trace("ERROR:Couldn't find certificate in store. %x\n", static_cast<unsigned>(GetLastError()));
        return {};
    }
    return DisplayName(certificate.get());
}
