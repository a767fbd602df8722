// The slice of <windows.h> that the library touches, for native builds against the simulation.
// Names, values and layouts are those of 64-bit Windows; DWORD is 32 bits wide here as it is there.
#pragma once

#include <cstddef>
#include <cstdint>

#define WINAPI
#define CALLBACK
#define TRUE 1
#define FALSE 0

typedef int BOOL;
typedef unsigned char BYTE;
typedef unsigned short WORD;
typedef unsigned int UINT;
typedef unsigned int DWORD;
typedef char* LPSTR;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef void* HANDLE;
typedef struct HINSTANCE__* HMODULE;

// 16 bits as on Windows, and a type of its own, so that a conversion which Windows would refuse is
// refused here as well. QString::utf16() is handed over with a reinterpret_cast on both platforms.
typedef char16_t WCHAR;
typedef const WCHAR* LPCWSTR;

typedef unsigned long long DWORD_PTR;
typedef unsigned long long UINT_PTR;
typedef unsigned long long SIZE_T;
typedef int HRESULT;

typedef struct _GUID
{
    unsigned int Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} GUID;
static_assert(sizeof(GUID) == 16, "a GUID has 16 bytes");
static_assert(sizeof(DWORD) == 4 && sizeof(WCHAR) == 2 && sizeof(DWORD_PTR) == sizeof(void*),
              "the widths of 64-bit Windows");

constexpr DWORD INFINITE = 0xFFFFFFFF;
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;

constexpr DWORD GET_MODULE_HANDLE_EX_FLAG_PIN = 0x1;
constexpr DWORD GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS = 0x4;

constexpr DWORD HEAP_ZERO_MEMORY = 0x00000008;

constexpr DWORD MEM_COMMIT = 0x00001000;
constexpr DWORD MEM_RESERVE = 0x00002000;
constexpr DWORD MEM_RELEASE = 0x00008000;
constexpr DWORD MEM_FREE = 0x00010000;
constexpr DWORD PAGE_READWRITE = 0x04;

typedef struct _SECURITY_ATTRIBUTES SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _MEMORY_BASIC_INFORMATION
{
    LPVOID BaseAddress;
    LPVOID AllocationBase;
    DWORD AllocationProtect;
    WORD PartitionId;
    SIZE_T RegionSize;
    DWORD State;
    DWORD Protect;
    DWORD Type;
} MEMORY_BASIC_INFORMATION, *PMEMORY_BASIC_INFORMATION;
static_assert(sizeof(MEMORY_BASIC_INFORMATION) == 48, "as on 64-bit Windows");

extern "C" {
HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                           LPCWSTR name);
BOOL WINAPI SetEvent(HANDLE event);
BOOL WINAPI ResetEvent(HANDLE event);
BOOL WINAPI CloseHandle(HANDLE handle);
DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds);
DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                                    DWORD milliseconds);
BOOL WINAPI GetModuleHandleExW(DWORD flags, LPCWSTR name, HMODULE* module);
DWORD WINAPI GetLastError(void);
void WINAPI Sleep(DWORD milliseconds);

HANDLE WINAPI GetProcessHeap(void);
LPVOID WINAPI HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
BOOL WINAPI HeapFree(HANDLE heap, DWORD flags, LPVOID memory);
LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T bytes, DWORD type, DWORD protection);
BOOL WINAPI VirtualFree(LPVOID address, SIZE_T bytes, DWORD type);
SIZE_T WINAPI VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T length);
}
