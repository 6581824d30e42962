// What the layer does for itself is told apart from what the application does on the same thread. The layer's
// own sockets are made through Winsock and come back into the layer like anybody's; their handles may have
// the value that a handle of the application's had before it was closed, and the application may still use
// that one by mistake.
#pragma once

/// Marks what the thread does as the layer's own, for a scope. Scopes may be nested; one inside another of
/// the same kind costs a look only.
class LayerCall {
  public:
    /// kUsesSockets: works on sockets of the layer's own. kMakesSocket: a socket that is made now is one.
    enum class Kind { kUsesSockets = 1, kMakesSocket = 2 };

    explicit LayerCall(Kind kind = Kind::kUsesSockets);
    ~LayerCall();
    LayerCall(const LayerCall&) = delete;
    LayerCall& operator=(const LayerCall&) = delete;

    /// Whether the thread is inside a scope of any kind, or of the one that makes a socket. The thread's last
    /// error stays as it is.
    static bool IsUnderWay();
    static bool MakesSocket();

    /// Once for each attach and detach. Without a slot, which Windows may have none left of, no scope leaves
    /// a mark and no socket is known as the layer's own from its beginning.
    static void AllocateSlot();
    static void FreeSlot();

  private:
    void* const outer_;
    const bool changes_;
};
