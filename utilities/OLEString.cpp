#include "utilities/OLEString.h"

#include <cstring>
#include <objbase.h>

WCHAR* CreateOLEString(const QString& text)
{
    // utf16() is zero-terminated, so the terminator is copied along.
    const std::size_t size = (static_cast<std::size_t>(text.size()) + 1) * sizeof(WCHAR);
    WCHAR* copy = static_cast<WCHAR*>(CoTaskMemAlloc(size));
    if (copy)
        std::memcpy(copy, text.utf16(), size);
    return copy;
}
