#include "Frame.h"

namespace cable {

std::wstring pipeName(unsigned inputPosition)
{
    wchar_t group[64];
    const DWORD length = GetEnvironmentVariableW(L"LUMORA_CABLE_GROUP", group, 64);
    std::wstring name = L"\\\\.\\pipe\\lumora-cable-";
    if (length > 0 && length < 64)
        name.append(group, length) += L'-';
    return name + L"in-" + std::to_wstring(inputPosition);
}

} // namespace cable
