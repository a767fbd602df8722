#ifndef LUMORA_TESTS_UNIT_OUTOFMEMORY_H
#define LUMORA_TESTS_UNIT_OUTOFMEMORY_H

/// While it lives, operator new fails on the thread that made it, and so does realloc, but not
/// under ThreadSanitizer.
class OutOfMemory
{
public:
    OutOfMemory();
    ~OutOfMemory();

    OutOfMemory(const OutOfMemory&) = delete;
    OutOfMemory& operator=(const OutOfMemory&) = delete;
};

#endif
