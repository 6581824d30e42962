// The machine as tests make it: parsed from text, put in the place of the configured one.
#pragma once

#include "platform/system/machine.h"
#include "platform/system/machine_file.h"
