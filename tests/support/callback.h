// Lambdas as callbacks of the Windows API. A 32-bit Windows compiler converts a captureless lambda to a
// pointer of its own calling convention only, not to the one that Winsock's tables and callbacks use.
#pragma once

#include <windows.h>

/// One function of the API's calling convention for each lambda type.
template <class Lambda, class Operator = decltype(&Lambda::operator())>
struct CallbackThunk;

template <class Lambda, class Result, class... Arguments>
struct CallbackThunk<Lambda, Result (Lambda::*)(Arguments...) const> {
    static inline Result (*plain)(Arguments...);
    static Result CALLBACK Call(Arguments... arguments) { return plain(arguments...); }
};

/// The lambda, which captures nothing, as a pointer for a slot of type R (CALLBACK*)(A...).
template <class Lambda>
auto Callback(Lambda lambda) {
    CallbackThunk<Lambda>::plain = lambda;
    return &CallbackThunk<Lambda>::Call;
}
