// The DLL through its exported interface, on WinMM with the virtual cable below it.

#include "tests/system/SystemTest.h"

#include "tests/system/ChildRun.h"

#include <cstdlib>
#include <windows.h>

const char kCableDescription[] = "in \"Plain\"\n"
                                 "in \"Left;Right\"\n"
                                 "in \"Busy\" flood=200 dump=9000 repeat=0\n"
                                 "in \"Refusing\" open=fail\n"
                                 "in \"Nameless\" caps=fail\n"
                                 "out \"Plain\"\n"
                                 "out \"A name of thirty-one characters\" to=1\n";

const char kOrganization[] = "Lumora Tests";
const char kApplication[] = "System Test";

/// Ends a process that crashes, with the exception's code, before a debugger takes it over.
static LONG WINAPI endProcess(EXCEPTION_POINTERS*)
{
    return EXCEPTION_EXECUTE_HANDLER;
}

int main(int argc, char** argv)
{
    if (isChildRun())
        return childRun();
    // Read by the driver when the process first calls WinMM.
    if (hasOwnCable())
        SetUnhandledExceptionFilter(endProcess);
    else
        _putenv_s("LUMORA_CABLE", kCableDescription);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
