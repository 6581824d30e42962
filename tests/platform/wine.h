// What Wine 8 does otherwise than Windows documents, in one list. Tests make an assertion about it natively
// and on Windows, and leave it out under Wine; docs/windows.md has the same list for readers.
#pragma once

#include <windows.h>

enum class Documented {
    // Streams.

    // 10057. Wine: 10054, and 10022 for datagrams.
    kSendNeedsAConnection,
    // 10049 for no address and for port 0. Wine: what the host system answers.
    kConnectChecksItsAddress,
    // Wine: the next connect fails with 10053.
    kRefusedSocketConnectsAgain,
    // Wine keeps the error.
    kSoErrorIsReadOnce,
    // 10054 for every receive that comes after the reset. Wine: the end of the stream.
    kResetIsToldLate,
    // 10004 or 10038. Wine: 10022, 995, and a select that ends without an error.
    kCloseWakesWithInterrupt,
    // To select, after CF_DEFER, and then in the mode that its listener has by now. Wine: it is not, and
    // keeps
    // the mode of when it came.
    kDeferredConnectionIsReady,
    // 10041 for UDP on a stream. Wine: 10043.
    kWrongProtocolType,

    // Datagrams.

    // 10022. Wine waits.
    kUnboundReceiveFails,
    // 10054 for the next receive. Wine: nothing.
    kUnreachablePortIsTold,
    // MSG_PARTIAL and the count of bytes; an overlapped receive is pending until its packet comes. Wine: no
    // flag, no count, and 10040 besides the packet.
    kPartialDatagramIsMarked,

    // Overlapped requests.

    // Wine: a call that a close overtook fails and queues a packet, too.
    kRefusedCallsQueueNoPacket,
    // 10057 before SO_UPDATE_ACCEPT_CONTEXT and SO_UPDATE_CONNECT_CONTEXT. Wine: works.
    kContextsAreMissing,
    // Options that were set before AcceptEx. Wine: back at their defaults.
    kAcceptSocketsKeepTheirOptions,
    // 10022 for too little room for an address. Wine takes it.
    kAcceptExChecksItsRoom,
    // After DisconnectEx. Wine: cannot connect again.
    kSocketsAreReused,
    // With TF_DISCONNECT. Wine does not.
    kTransmitFileDisconnects,
    // A TransmitFile that finds the way full goes on when the peer reads. Wine: sends no more.
    kTransmissionsGoOn,
    // 87 for notification modes that do not exist. Wine takes them.
    kUnknownModesAreRefused,
    // FD_WRITE when the other end has received. Wine: also when its own buffer grows.
    kRoomIsToldWhenItComes,

    // The kernel.

    // A critical section that a killed thread held ends the process when somebody wants it at the end of the
    // process. Wine: is entered.
    kOrphanedSectionsEndTheProcess,
    // What GetModuleFileName cuts to fit. Wine: without the zero.
    kCutPathsEndWithZero,
    // ReleaseSemaphore with a count of 0: 87. Wine: succeeds.
    kEmptyReleasesFail,
    // The same object twice: 87. Wine: succeeds.
    kWaitForAllWantsDifferentObjects,
    // WideCharToMultiByte to UTF-8 that wants to know of a default character: 87. Wine: succeeds.
    kUtf8TakesNoDefault,

    // Windows.

    // 1407 for a window of a class that does not exist. Wine: 1411.
    kUnknownClassIsNotFound,
    // 10022 for network events to no window. Wine takes it.
    kAsyncSelectChecksItsWindow,

    // Options and others.

    // 10042, 10057, 10038 for those that don't. Wine takes them, or fails with 10022.
    kOptionsFitTheirSocket,
    // TCP_KEEPALIVE. Wine: 10042.
    kKeepAliveTimeIsRead,
    // Wine gives the same handle again.
    kDuplicatesAreMadeOnce,
};

/// Whether the system does what Windows documents: not under Wine.
inline bool Keeps(Documented) {
#ifdef _WIN32
    return GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") == nullptr;
#else
    return true;
#endif
}
