#ifndef LUMORA_UTILITIES_OLESTRING_H
#define LUMORA_UTILITIES_OLESTRING_H

/// \file
/// Text for code that uses COM's allocator but not Qt.

#include <QString>
#include <windows.h>

/// A zero-terminated UTF-16 copy of `text` in COM task memory, which the caller frees with
/// CoTaskMemFree. A null QString gives an empty copy. Null without memory.
/// Thread-safe: yes. Blocks: no.
WCHAR* CreateOLEString(const QString& text);

#endif
