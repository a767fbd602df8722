#include "workbench/cable/Pipe.h"

#include <vector>

namespace cable {

namespace {

constexpr DWORD kRetryMilliseconds = 10; // between attempts to listen
constexpr DWORD kBusyMilliseconds = 10;  // at a time, while another sender is connected

// The first message of the pipe: a piece as it lies in memory. Its bytes are the second message, if
// it has some. The answer is one byte.
struct Head
{
    device::SourceId source;
    MIDIPiece piece;
};

constexpr BYTE kTaken = 1;

// Only processes of one group reach each other.
std::wstring pipeName(unsigned inputPosition)
{
    std::wstring group = environment(L"LUMORA_CABLE_GROUP").value_or(L"").substr(0, 63);
    if (!group.empty())
        group += L'-';
    return L"\\\\.\\pipe\\lumora-cable-" + group + L"in-" + std::to_wstring(inputPosition);
}

} // namespace

// ---- One end ------------------------------------------------------------------------------------

bool PipeEnd::open(HANDLE itsHandle)
{
    handle.reset(itsHandle == INVALID_HANDLE_VALUE ? nullptr : itsHandle);
    io = {};
    io.hEvent = done.get();
    return isOpen();
}

void PipeEnd::awaitSender()
{
    finish(ConnectNamedPipe(handle.get(), &io), 0);
}

bool PipeEnd::read(void* target, DWORD size)
{
    return finish(ReadFile(handle.get(), target, size, nullptr, &io), size);
}

bool PipeEnd::write(const void* source, DWORD size)
{
    return finish(WriteFile(handle.get(), source, size, nullptr, &io), size);
}

bool PipeEnd::pause(DWORD milliseconds) const
{
    return WaitForSingleObject(stopped.get(), milliseconds) == WAIT_TIMEOUT;
}

bool PipeEnd::finish(BOOL begun, DWORD size)
{
    if (!begun && GetLastError() != ERROR_IO_PENDING)
        return false;
    const HANDLE handles[] = {done.get(), stopped.get()};
    if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0)
        CancelIoEx(handle.get(), &io);
    // Until the operation has ended, the system writes to `io` and to the buffer.
    DWORD length = 0;
    return GetOverlappedResult(handle.get(), &io, &length, TRUE) && length == size;
}

// ---- At an output -------------------------------------------------------------------------------

RemoteInput::RemoteInput(unsigned inputPosition) : name(pipeName(inputPosition)) {}

bool RemoteInput::take(device::SourceId source, const MIDIPiece& piece)
{
    if (!connect())
        return false;
    const Head head{source, piece};
    BYTE answer = 0;
    const bool taken =
        pipe.write(&head, sizeof head) &&
        (piece.length == 0 || pipe.write(piece.bytes, static_cast<DWORD>(piece.length))) &&
        pipe.read(&answer, sizeof answer);
    pipe.close();
    return taken;
}

bool RemoteInput::connect()
{
    while (!pipe.open(CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr))) {
        if (GetLastError() != ERROR_PIPE_BUSY || !pipe.pause(0))
            return false;
        WaitNamedPipeW(name.c_str(), kBusyMilliseconds);
    }
    return true;
}

// ---- At an open input ---------------------------------------------------------------------------

// Senders find the input from here on, even before the thread runs.
Listener::Listener(unsigned inputPosition, device::InputPort& itsInput)
    : name(pipeName(inputPosition)), input(itsInput)
{
    offer();
    thread = std::thread([this] { run(); });
}

void Listener::stop()
{
    pipe.stop();
    if (thread.joinable())
        thread.join();
}

bool Listener::offer()
{
    constexpr DWORD instances = 1; // in all processes
    constexpr DWORD buffer = 32 * 1024;
    return pipe.open(CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                      PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                      instances, buffer, buffer, 0, nullptr));
}

void Listener::run()
{
    do {
        if (pipe.isOpen() || offer())
            serveSender();
    } while (pipe.pause(pipe.isOpen() ? 0 : kRetryMilliseconds));
    pipe.close();
}

void Listener::serveSender()
{
    pipe.awaitSender();
    std::vector<unsigned char> bytes;
    for (Head head; pipe.read(&head, sizeof head); pipe.write(&kTaken, sizeof kTaken)) {
        bytes.resize(head.piece.length);
        if (!bytes.empty() && !pipe.read(bytes.data(), static_cast<DWORD>(bytes.size())))
            break;
        head.piece.bytes = bytes.data();
        input.take(head.source, head.piece);
    }
    pipe.disconnect();
}

} // namespace cable
