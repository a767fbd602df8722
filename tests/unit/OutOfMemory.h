#ifndef LUMORA_TESTS_UNIT_OUTOFMEMORY_H
#define LUMORA_TESTS_UNIT_OUTOFMEMORY_H

/// While it lives, operator new and realloc fail on the thread that made it.
class OutOfMemory
{
public:
    OutOfMemory();
    ~OutOfMemory();

    OutOfMemory(const OutOfMemory&) = delete;
    OutOfMemory& operator=(const OutOfMemory&) = delete;
};

#endif
