#include "workbench/cable/RemoteInput.h"

#include <algorithm>
#include <utility>

namespace cable {

namespace {

// How long a sender keeps asking a listener that has no instance free. Between two senders there is
// none for a moment.
constexpr int kBusyAttempts = 200;
constexpr DWORD kBusyMilliseconds = 5;

} // namespace

RemoteInput::RemoteInput(unsigned inputPosition) : name(pipeName(inputPosition)) {}

void RemoteInput::take(MIDIPiece piece)
{
    do {
        if (frame.size() + sizeof(MIDIPiece) >= kLargestFrame)
            flush();
        MIDIPiece part = piece;
        part.length = std::min(kLargestFrame - frame.size() - sizeof(MIDIPiece), piece.length);
        part.last = piece.last && part.length == piece.length;
        append(part);
        piece.first = false;
        piece.bytes += part.length;
        piece.length -= part.length;
    } while (piece.length > 0);
}

void RemoteInput::flush()
{
    if (frame.empty())
        return;
    bool taken = false;
    if (pipe || connect()) {
        Outcome outcome = transact();
        // The listener of an input that has been closed is gone, but the input may be open again.
        if (outcome == Outcome::Closed && connect())
            outcome = transact();
        taken = outcome == Outcome::Taken;
    }
    (taken ? sent : lost) += std::exchange(inFrame, {});
    frame.clear();
}

void RemoteInput::append(const MIDIPiece& piece)
{
    const auto* const header = reinterpret_cast<const BYTE*>(&piece);
    frame.insert(frame.end(), header, header + sizeof piece);
    frame.insert(frame.end(), piece.bytes, piece.bytes + piece.length);
    inFrame.count(piece);
}

bool RemoteInput::connect()
{
    pipe.reset();
    for (int attempt = 0; attempt < kBusyAttempts; ++attempt) {
        pipe = Handle(CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
        if (pipe) {
            DWORD mode = PIPE_READMODE_MESSAGE;
            SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr);
            return true;
        }
        if (GetLastError() != ERROR_PIPE_BUSY ||
            WaitForSingleObject(cancelled.get(), kBusyMilliseconds) == WAIT_OBJECT_0)
            return false;
    }
    return false;
}

RemoteInput::Outcome RemoteInput::transact()
{
    OVERLAPPED io = {};
    io.hEvent = done.get();
    ResetEvent(done.get());
    BYTE answer = 0;
    DWORD length = 0;
    bool ok = TransactNamedPipe(pipe.get(), frame.data(), static_cast<DWORD>(frame.size()), &answer,
                                sizeof answer, nullptr, &io);
    if (ok || GetLastError() == ERROR_IO_PENDING) {
        const HANDLE handles[] = {done.get(), cancelled.get()};
        if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0)
            CancelIoEx(pipe.get(), &io);
        ok = GetOverlappedResult(pipe.get(), &io, &length, TRUE);
    }
    if (ok && length == sizeof answer && answer == kFrameTaken)
        return Outcome::Taken;
    const DWORD error = ok ? ERROR_INVALID_DATA : GetLastError();
    pipe.reset(); // an answer may still come and would be taken for that of the next frame
    const bool closed =
        error == ERROR_NO_DATA || error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED;
    return closed ? Outcome::Closed : Outcome::Failed;
}

} // namespace cable
