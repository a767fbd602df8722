#ifndef LUMORA_TESTS_UNIT_THROWINGOLESTRING_H
#define LUMORA_TESTS_UNIT_THROWINGOLESTRING_H

/// While it lives, the n-th call of CreateOLEString (1 is the next one) throws std::bad_alloc.
class ThrowingOLEString
{
public:
    explicit ThrowingOLEString(unsigned n);
    ~ThrowingOLEString();

    ThrowingOLEString(const ThrowingOLEString&) = delete;
    ThrowingOLEString& operator=(const ThrowingOLEString&) = delete;
};

#endif
