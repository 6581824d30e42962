// The application's socket behind a split connection, as the relay may use it.
#pragma once

#include "provider/contexts/socket_context.h"
#include "relay/split/relay_connection.h"

/// The context of a connection's original socket, referenced for a scope; none once the application has
/// closed the socket, also while the relay has not heard of that yet and the handle's value is another
/// socket's.
class OriginalContext {
  public:
    explicit OriginalContext(const RelayConnection& connection)
        : reference_(connection.OriginalSocket, &ignored_),
          isOriginal_(reference_ && reference_->RelayIndex == connection.RelayIndex) {}

    explicit operator bool() const { return isOriginal_; }
    SocketContext* operator->() const { return reference_.Get(); }

  private:
    INT ignored_ = 0;
    ContextReference reference_;
    bool isOriginal_;
};
