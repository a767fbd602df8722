#include "RemoteInput.h"

#include "Frame.h"

#include <algorithm>

namespace cable {
namespace {

// How long a sender keeps asking a listener that has no instance free. Between two senders there is
// none for a moment.
constexpr int kBusyAttempts = 200;
constexpr DWORD kBusyMilliseconds = 5;

} // namespace

RemoteInput::RemoteInput(unsigned inputPosition) : name_(pipeName(inputPosition)) {}

void RemoteInput::shortMessage(DWORD word)
{
    if (frame_.size() + sizeof(PieceHeader) > kLargestFrame)
        flush();
    append(PieceHeader::Short, 0, word);
    ++inFrame_.shortMessages;
}

void RemoteInput::sysEx(const SysExPiece& piece)
{
    size_t at = 0;
    while (at < piece.length) {
        if (frame_.size() + sizeof(PieceHeader) >= kLargestFrame)
            flush();
        const size_t room = kLargestFrame - frame_.size() - sizeof(PieceHeader);
        const size_t length = std::min(room, piece.length - at);
        const bool first = piece.first && at == 0;
        const bool last = piece.last && at + length == piece.length;
        append(PieceHeader::SysEx,
               (first ? PieceHeader::First : 0) | (last ? PieceHeader::Last : 0),
               static_cast<DWORD>(length));
        frame_.insert(frame_.end(), piece.bytes + at, piece.bytes + at + length);
        inFrame_.bytes += length;
        at += length;
    }
}

void RemoteInput::sysExBroken()
{
    if (frame_.size() + sizeof(PieceHeader) > kLargestFrame)
        flush();
    append(PieceHeader::SysExBroken, 0, 0);
}

void RemoteInput::flush()
{
    if (frame_.empty())
        return;
    bool taken = false;
    if (pipe_ || connect()) {
        Outcome outcome = transact();
        // The listener of an input that has been closed is gone, but the input may be open again.
        if (outcome == Outcome::Closed && connect())
            outcome = transact();
        taken = outcome == Outcome::Taken;
    }
    Tally& tally = taken ? sent_ : lost_;
    tally.shortMessages += inFrame_.shortMessages;
    tally.bytes += inFrame_.bytes;
    inFrame_ = {};
    frame_.clear();
}

void RemoteInput::append(DWORD kind, DWORD flags, DWORD value)
{
    const PieceHeader header{kind, flags, value};
    const auto* bytes = reinterpret_cast<const BYTE*>(&header);
    frame_.insert(frame_.end(), bytes, bytes + sizeof header);
}

bool RemoteInput::connect()
{
    pipe_.reset();
    for (int attempt = 0; attempt < kBusyAttempts; ++attempt) {
        pipe_ = Handle(CreateFileW(name_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                   OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
        if (pipe_) {
            DWORD mode = PIPE_READMODE_MESSAGE;
            SetNamedPipeHandleState(pipe_.get(), &mode, nullptr, nullptr);
            return true;
        }
        if (GetLastError() != ERROR_PIPE_BUSY ||
            WaitForSingleObject(cancelled_.get(), kBusyMilliseconds) == WAIT_OBJECT_0)
            return false;
    }
    return false;
}

RemoteInput::Outcome RemoteInput::transact()
{
    OVERLAPPED io = {};
    io.hEvent = done_.get();
    ResetEvent(done_.get());
    BYTE answer = 0;
    DWORD length = 0;
    bool ok = TransactNamedPipe(pipe_.get(), frame_.data(), static_cast<DWORD>(frame_.size()),
                                &answer, sizeof answer, nullptr, &io);
    if (ok || GetLastError() == ERROR_IO_PENDING) {
        const HANDLE handles[] = {done_.get(), cancelled_.get()};
        if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0)
            CancelIoEx(pipe_.get(), &io);
        ok = GetOverlappedResult(pipe_.get(), &io, &length, TRUE);
    }
    if (ok && length == sizeof answer && answer == kFrameTaken)
        return Outcome::Taken;
    const DWORD error = ok ? ERROR_INVALID_DATA : GetLastError();
    pipe_.reset(); // an answer may still come and would be taken for that of the next frame
    const bool closed =
        error == ERROR_NO_DATA || error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED;
    return closed ? Outcome::Closed : Outcome::Failed;
}

} // namespace cable
