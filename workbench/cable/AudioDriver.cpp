// What mmdevapi.dll wants of the driver before it tells winmm.dll of it: mmdevapi.dll takes it for
// one of audio and asks for its end points; it has none.

#include <windows.h>

extern "C" {

// Wine 8 asks here.

__declspec(dllexport) int WINAPI GetPriority()
{
    return 3; // preferred
}

__declspec(dllexport) HRESULT WINAPI
    GetEndpointIDs(int, WCHAR*** ids, GUID** guids, UINT* count, UINT* defaultIndex)
{
    *ids = nullptr;
    *guids = nullptr;
    *count = 0;
    *defaultIndex = 0;
    return S_OK;
}

__declspec(dllexport) HRESULT WINAPI GetAudioEndpoint(void*, void*, void**)
{
    return E_NOTIMPL; // nobody asks for one without an identifier
}

__declspec(dllexport) HRESULT WINAPI GetAudioSessionManager(void*, void**)
{
    return E_NOTIMPL;
}

// Wine 10 asks the Unix half, UnixHalf.cpp, and here for the identity of the end points found
// there.

__declspec(dllexport) void WINAPI get_device_guid(int, const char*, GUID* guid)
{
    *guid = GUID{};
}

__declspec(dllexport) BOOL WINAPI get_device_name_from_guid(GUID*, char** name, int*)
{
    *name = nullptr;
    return FALSE;
}

} // extern "C"
