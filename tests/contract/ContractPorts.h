// What the contract tests need from their environment.
#pragma once

#include <windows.h>

#include <mmsystem.h>

namespace contract {

// Called before each test. Afterwards output device 0 feeds input device 0, both are closed, and
// there is no other device. Their driver is of the Windows 11 kind if the environment has
// LUMORA_CONTRACT_DRIVER; that kind breaks a few rules, whose tests must be left out.
void connectOnePair();

// True if a refused close still frees the handle, as on Wine. The port can then only be opened
// again; its buffers are never accessed again.
extern const bool refusedCloseFreesHandle;

} // namespace contract
