#include "tests/unit/ThrowingOLEString.h"

#include "utilities/OLEString.h"

#include <cstring>
#include <new>
#include <objbase.h>

static unsigned textsUntilOneThrows = 0;

ThrowingOLEString::ThrowingOLEString(unsigned n)
{
    textsUntilOneThrows = n;
}

ThrowingOLEString::~ThrowingOLEString()
{
    textsUntilOneThrows = 0;
}

// In place of the companion library's, which may throw.
WCHAR* CreateOLEString(const QString& text)
{
    if (textsUntilOneThrows > 0 && --textsUntilOneThrows == 0)
        throw std::bad_alloc();
    const std::size_t size = (static_cast<std::size_t>(text.size()) + 1) * sizeof(WCHAR);
    WCHAR* const copy = static_cast<WCHAR*>(CoTaskMemAlloc(size));
    if (copy)
        std::memcpy(copy, text.utf16(), size);
    return copy;
}
