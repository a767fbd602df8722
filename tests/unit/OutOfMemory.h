#ifndef LUMORA_TESTS_UNIT_OUTOFMEMORY_H
#define LUMORA_TESTS_UNIT_OUTOFMEMORY_H

/// While it lives, operator new fails on the thread that made it: every time, or only the n-th time
/// (1 is the next one). Every time means realloc as well, but not under ThreadSanitizer
/// or on Windows.
class OutOfMemory
{
public:
    explicit OutOfMemory(unsigned onlyNth = 0);
    ~OutOfMemory();

    OutOfMemory(const OutOfMemory&) = delete;
    OutOfMemory& operator=(const OutOfMemory&) = delete;

    /// Whether an allocation has failed.
    static bool met();
};

#endif
