// The slice of <objbase.h> that the library touches, for native builds against the simulation.
#pragma once

#include "windows.h"

constexpr HRESULT S_OK = 0;
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);

extern "C" {
LPVOID WINAPI CoTaskMemAlloc(SIZE_T bytes);
void WINAPI CoTaskMemFree(LPVOID memory);
HRESULT WINAPI CoCreateGuid(GUID* guid);
}
