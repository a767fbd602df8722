// What the contract tests ask of the environment that they run in.
#pragma once

#include <windows.h>

#include <mmsystem.h>

namespace contract {

// Called before each test: afterwards input device 0 hears what output device 0 sends, neither is
// open, and there is no other device. Their driver is of the Windows 11 kind if the environment has
// LUMORA_CONTRACT_DRIVER; that kind breaks a few rules, whose tests must be left out.
void connectOnePair();

// True if a close that the driver refuses takes the handle away all the same, as Wine does. The
// port can then only be opened anew; its buffers are never touched again.
extern const bool refusedCloseFreesHandle;

} // namespace contract
