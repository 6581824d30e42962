// The Winsock catalog as tests make it: a scripted provider, a chain of several layers, a provider that
// cannot be loaded. The entries are made with the functions of platform/winsock/catalog.h or by hand.
#pragma once

#include "platform/winsock/catalog.h"
