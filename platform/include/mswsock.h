// The extension functions of a provider, their ids, and the socket options that go with them, as on Windows.
#pragma once

#include <winsock2.h>

#define SO_OPENTYPE 0x7008
#define SO_UPDATE_ACCEPT_CONTEXT 0x700B
#define SO_CONNECT_TIME 0x700C
#define SO_UPDATE_CONNECT_CONTEXT 0x7010

#define SIO_UDP_CONNRESET _WSAIOW(IOC_VENDOR, 12)
#define SIO_BSP_HANDLE _WSAIOR(IOC_WS2, 27)
#define SIO_BSP_HANDLE_SELECT _WSAIOR(IOC_WS2, 28)
#define SIO_BSP_HANDLE_POLL _WSAIOR(IOC_WS2, 29)
#define SIO_BASE_HANDLE _WSAIOR(IOC_WS2, 34)

#define TF_DISCONNECT 0x01
#define TF_REUSE_SOCKET 0x02
#define TF_WRITE_BEHIND 0x04
#define TF_USE_DEFAULT_WORKER 0x00
#define TF_USE_SYSTEM_THREAD 0x10
#define TF_USE_KERNEL_APC 0x20
#define TP_DISCONNECT TF_DISCONNECT
#define TP_REUSE_SOCKET TF_REUSE_SOCKET

#define MSG_TRUNC 0x0100
#define MSG_CTRUNC 0x0200

typedef struct TRANSMIT_FILE_BUFFERS {
    LPVOID Head;
    DWORD HeadLength;
    LPVOID Tail;
    DWORD TailLength;
} * PTRANSMIT_FILE_BUFFERS, *LPTRANSMIT_FILE_BUFFERS;

#define TP_ELEMENT_MEMORY 1
#define TP_ELEMENT_FILE 2
#define TP_ELEMENT_EOP 4

// The unnamed struct is Windows' own layout and an extension of every compiler that builds this.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
typedef struct TRANSMIT_PACKETS_ELEMENT {
    ULONG dwElFlags;
    ULONG cLength;
    union {
        struct {
            LARGE_INTEGER nFileOffset;
            HANDLE hFile;
        };
        PVOID pBuffer;
    };
} * PTRANSMIT_PACKETS_ELEMENT, *LPTRANSMIT_PACKETS_ELEMENT;
#pragma GCC diagnostic pop

typedef BOOL(WINAPI* LPFN_TRANSMITFILE)(SOCKET hSocket, HANDLE hFile, DWORD nNumberOfBytesToWrite,
                                        DWORD nNumberOfBytesPerSend, LPOVERLAPPED lpOverlapped,
                                        LPTRANSMIT_FILE_BUFFERS lpTransmitBuffers, DWORD dwReserved);
typedef BOOL(WINAPI* LPFN_ACCEPTEX)(SOCKET sListenSocket, SOCKET sAcceptSocket, PVOID lpOutputBuffer,
                                    DWORD dwReceiveDataLength, DWORD dwLocalAddressLength,
                                    DWORD dwRemoteAddressLength, LPDWORD lpdwBytesReceived,
                                    LPOVERLAPPED lpOverlapped);
typedef VOID(WINAPI* LPFN_GETACCEPTEXSOCKADDRS)(PVOID lpOutputBuffer, DWORD dwReceiveDataLength,
                                                DWORD dwLocalAddressLength, DWORD dwRemoteAddressLength,
                                                struct sockaddr** LocalSockaddr, LPINT LocalSockaddrLength,
                                                struct sockaddr** RemoteSockaddr, LPINT RemoteSockaddrLength);
typedef BOOL(WINAPI* LPFN_TRANSMITPACKETS)(SOCKET hSocket, LPTRANSMIT_PACKETS_ELEMENT lpPacketArray,
                                           DWORD nElementCount, DWORD nSendSize, LPOVERLAPPED lpOverlapped,
                                           DWORD dwFlags);
typedef BOOL(WINAPI* LPFN_CONNECTEX)(SOCKET s, const struct sockaddr* name, int namelen, PVOID lpSendBuffer,
                                     DWORD dwSendDataLength, LPDWORD lpdwBytesSent,
                                     LPOVERLAPPED lpOverlapped);
typedef BOOL(WINAPI* LPFN_DISCONNECTEX)(SOCKET s, LPOVERLAPPED lpOverlapped, DWORD dwFlags, DWORD dwReserved);
typedef INT(WINAPI* LPFN_WSARECVMSG)(SOCKET s, LPWSAMSG lpMsg, LPDWORD lpdwNumberOfBytesRecvd,
                                     LPWSAOVERLAPPED lpOverlapped,
                                     LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine);
typedef INT(WSAAPI* LPFN_WSASENDMSG)(SOCKET s, LPWSAMSG lpMsg, DWORD dwFlags, LPDWORD lpNumberOfBytesSent,
                                     LPWSAOVERLAPPED lpOverlapped,
                                     LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine);

#define WSAID_TRANSMITFILE                                 \
    {                                                      \
        0xb5367df0, 0xcbac, 0x11cf, {                      \
            0x95, 0xca, 0x00, 0x80, 0x5f, 0x48, 0xa1, 0x92 \
        }                                                  \
    }
#define WSAID_ACCEPTEX                                     \
    {                                                      \
        0xb5367df1, 0xcbac, 0x11cf, {                      \
            0x95, 0xca, 0x00, 0x80, 0x5f, 0x48, 0xa1, 0x92 \
        }                                                  \
    }
#define WSAID_GETACCEPTEXSOCKADDRS                         \
    {                                                      \
        0xb5367df2, 0xcbac, 0x11cf, {                      \
            0x95, 0xca, 0x00, 0x80, 0x5f, 0x48, 0xa1, 0x92 \
        }                                                  \
    }
#define WSAID_TRANSMITPACKETS                              \
    {                                                      \
        0xd9689da0, 0x1f90, 0x11d3, {                      \
            0x99, 0x71, 0x00, 0xc0, 0x4f, 0x68, 0xc8, 0x76 \
        }                                                  \
    }
#define WSAID_CONNECTEX                                    \
    {                                                      \
        0x25a207b9, 0xddf3, 0x4660, {                      \
            0x8e, 0xe9, 0x76, 0xe5, 0x8c, 0x74, 0x06, 0x3e \
        }                                                  \
    }
#define WSAID_DISCONNECTEX                                 \
    {                                                      \
        0x7fda2e11, 0x8630, 0x436f, {                      \
            0xa0, 0x31, 0xf5, 0x36, 0xa6, 0xee, 0xc1, 0x57 \
        }                                                  \
    }
#define WSAID_WSARECVMSG                                   \
    {                                                      \
        0xf689d7c8, 0x6f1f, 0x436b, {                      \
            0x8a, 0x53, 0xe5, 0x4f, 0xe3, 0x51, 0xc3, 0x22 \
        }                                                  \
    }
#define WSAID_WSASENDMSG                                   \
    {                                                      \
        0xa441e712, 0x754f, 0x43ca, {                      \
            0x84, 0xa7, 0x0d, 0xee, 0x44, 0xcf, 0x60, 0x6d \
        }                                                  \
    }

BOOL WINAPI AcceptEx(SOCKET sListenSocket, SOCKET sAcceptSocket, PVOID lpOutputBuffer,
                     DWORD dwReceiveDataLength, DWORD dwLocalAddressLength, DWORD dwRemoteAddressLength,
                     LPDWORD lpdwBytesReceived, LPOVERLAPPED lpOverlapped);
VOID WINAPI GetAcceptExSockaddrs(PVOID lpOutputBuffer, DWORD dwReceiveDataLength, DWORD dwLocalAddressLength,
                                 DWORD dwRemoteAddressLength, struct sockaddr** LocalSockaddr,
                                 LPINT LocalSockaddrLength, struct sockaddr** RemoteSockaddr,
                                 LPINT RemoteSockaddrLength);
BOOL WINAPI TransmitFile(SOCKET hSocket, HANDLE hFile, DWORD nNumberOfBytesToWrite,
                         DWORD nNumberOfBytesPerSend, LPOVERLAPPED lpOverlapped,
                         LPTRANSMIT_FILE_BUFFERS lpTransmitBuffers, DWORD dwReserved);
