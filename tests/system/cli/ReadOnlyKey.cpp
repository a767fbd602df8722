// read-only-key KEY...: makes each key below HKEY_LOCAL_MACHINE, and lets nobody write it from then
// on. What a store looks like to a user without administrator's rights.

#include <windows.h>

#include <sddl.h>
#include <shellapi.h>

static bool makeReadOnly(const wchar_t* name)
{
    // Everybody may read.
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;KR;;;WD)", SDDL_REVISION_1,
                                                              &descriptor, nullptr))
        return false;
    HKEY key = nullptr;
    bool done = false;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, name, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                        nullptr) == ERROR_SUCCESS) {
        done = RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, descriptor) == ERROR_SUCCESS;
        RegCloseKey(key);
    }
    LocalFree(descriptor);
    return done;
}

int main()
{
    int count = 0;
    wchar_t** const arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 1; i < count; ++i) {
        if (!makeReadOnly(arguments[i]))
            return 1;
    }
    return count > 1 ? 0 : 2;
}
