// A MIDI library as the measurements see it. Each program links one implementation, so that a
// process holds one library and nothing of the others.

#ifndef LUMORA_BENCH_PEERS_LIBRARY_H
#define LUMORA_BENCH_PEERS_LIBRARY_H

#include <cstddef>
#include <memory>
#include <string>

// Gets what the library delivers, on the thread that the library delivers it on: whole messages, or
// SysEx in pieces from libraries that do not put it together. A short message may come with padding
// behind its bytes.
class Observer
{
public:
    virtual void receive(const unsigned char* bytes, std::size_t length) = 0;

protected:
    ~Observer() = default;
};

// The system's first input and first output.
class Library
{
public:
    virtual ~Library() = default; // closes what is open
    virtual bool openInput() = 0;
    virtual void closeInput() = 0;
    virtual bool openOutput() = 0;
    virtual bool send(const unsigned char* bytes, std::size_t length) = 0;
};

// The library's objects, with no port open. `setting` is one of the library's own (see the file);
// null if there is no such setting.
std::unique_ptr<Library> makeLibrary(const std::string& setting, Observer& observer);

// Ours; given to others as well where they let the user choose.
constexpr unsigned kLargeBufferCount = 768;
constexpr unsigned kLargeBufferSize = 4096;

#endif
