// The contract tests' ports on Wine's WinMM with the virtual cable.

#include "ContractPorts.h"

namespace contract {

const bool refusedCloseFreesHandle = true;

void connectOnePair()
{
    // Once is enough: the cable reads its description at the first call of WinMM and leaves nothing
    // open between tests. Its own group keeps out other processes.
    static const bool done = [] {
        wchar_t driver[32];
        const bool isWindows11 = GetEnvironmentVariableW(L"LUMORA_CONTRACT_DRIVER", driver, 32) > 0;
        SetEnvironmentVariableW(L"LUMORA_CABLE", isWindows11
                                                     ? L"in \"Contract\" driver=windows11\n"
                                                       L"out \"Contract\" driver=windows11\n"
                                                     : L"in \"Contract\"\nout \"Contract\"\n");
        SetEnvironmentVariableW(L"LUMORA_CABLE_GROUP", L"contract");
        return midiInGetNumDevs() == 1 && midiOutGetNumDevs() == 1;
    }();
    static_cast<void>(done);
}

} // namespace contract
