// A turn among all processes for what has to be done with a port in several steps: while a socket asks to
// share its port, so that the kernel forgives closed connections that still fade away there, another socket
// that asks the same would get the port too.
#pragma once

class PortTurn {
  public:
    /// Waits until nobody else has the turn. Where it can't be had there is none, and the steps are taken
    /// anyway.
    PortTurn();
    /// Gives the turn on.
    ~PortTurn();
    PortTurn(const PortTurn&) = delete;
    PortTurn& operator=(const PortTurn&) = delete;

  private:
    int file_;
};
