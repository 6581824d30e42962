// Looks at the data that the application sends and receives. No operation of a socket that is let through,
// refused or redirected asks for one, so data passes unseen.
#include "provider/interception.h"

void AnalyzeReceived(SocketContext*, const WSABUF*, DWORD, const DWORD*) {}

void AnalyzeSent(SocketContext*, const WSABUF*, DWORD) {}

void AnalyzeReceivedFrom(SocketContext*, const WSABUF*, DWORD, const DWORD*, const sockaddr*) {}

void AnalyzeSentTo(SocketContext*, const WSABUF*, DWORD, const sockaddr*) {}
