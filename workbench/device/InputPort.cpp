#include "workbench/device/InputPort.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace device {

namespace {

// With more than this waiting for the client's callback, short messages are dropped: their sender
// is not held up.
constexpr std::size_t kMostPending = 1u << 20;

constexpr DWORD kDumpPiece = 4096; // bytes a dump composes at a time

} // namespace

SourceId nextSourceId()
{
    static std::atomic<SourceId> last{0};
    return ++last;
}

InputPort::InputPort(const Settings& itsSettings, Callback itsCallback)
    : Port(itsSettings, MIM_OPEN, MIM_CLOSE,
           itsSettings.ownThread || itsSettings.kind == DriverKind::Windows11,
           std::move(itsCallback))
{}

InputPort::~InputPort()
{
    endThread();
}

// ---- The client's calls -------------------------------------------------------------------------

MMRESULT InputPort::addBuffer(MIDIHDR* header, DWORD_PTR size)
{
    if (const MMRESULT refusal = lookUp())
        return refusal;
    const Lock held(lock);
    if (!isOpen())
        return MMSYSERR_INVALHANDLE;
    if (const MMRESULT refusal = check(header, size))
        return refusal;
    header->dwBytesRecorded = 0;
    markQueued(*header);
    buffers.push_back(header);
    bufferAdded.notify_all();
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::start()
{
    if (const MMRESULT refusal = lookUp())
        return refusal;
    const Lock held(lock);
    if (started.load())
        return MMSYSERR_NOERROR;
    const std::int64_t now = settings.clock();
    startedAt.store(now, std::memory_order_relaxed);
    progress = {0, 0, now};
    started.store(true);
    changed.notify_all();
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::stop()
{
    if (const MMRESULT refusal = stopWorker())
        return refusal;
    Lock held(lock);
    endWork();
    tell(held, giveBackPartial());
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::reset()
{
    if (const MMRESULT refusal = stopWorker())
        return refusal;
    // Windows 11's driver holds it while it calls the client.
    const DriverLock own = isWindows11() ? DriverLock(portLock) : DriverLock();
    Lock held(lock);
    endWork();
    waitInReset(held);
    Notices due = giveBackPartial();
    while (!buffers.empty())
        due.push_back(giveBackFirst(MIM_LONGDATA));
    tellReset(held, due);
    return MMSYSERR_NOERROR;
}

// Waits for the worker's callback in progress.
MMRESULT InputPort::stopWorker()
{
    if (!isWindows11())
        return MMSYSERR_NOERROR;
    if (const MMRESULT refusal = lookUp(settings.windows11.cleansUpAfterRemoval))
        return refusal;
    {
        const Lock held(lock);
        endWork();
        startedAt.store(0, std::memory_order_relaxed); // stamps are the machine's time from here on
    }
    waitForOthers();
    return MMSYSERR_NOERROR;
}

// ---- What arrives -------------------------------------------------------------------------------

void InputPort::take(SourceId source, const MIDIPiece& piece)
{
    if (!isWindows11()) {
        takeNow(source, piece);
        return;
    }
    const Lock held(lock);
    if (isUnplugged())
        return;
    if (arrivals.size() >= kMostPending) {
        lost.count(piece);
        return;
    }
    arrivals.push_back(
        {source, piece, {piece.bytes, piece.bytes + piece.length}, settings.clock()});
    changed.notify_all();
}

std::size_t InputPort::takeNow(SourceId source, const MIDIPiece& piece)
{
    return isUnplugged() ? 0 : deliver(source, piece);
}

std::size_t InputPort::deliver(SourceId source, const MIDIPiece& piece)
{
    const InProgress inProgress(*this);
    // Windows 11's driver takes it for every byte. Once for all of them makes the same threads wait
    // for each other, and not so slowly.
    if (isWindows11())
        DriverLock{portLock}.unlock();
    return piece.kind == MIDIPiece::Kind::Short ? deliverShort(piece.word)
                                                : deliverSysEx(source, piece);
}

// Without the lock, where the sender itself calls back: it would order the sender behind whoever
// adds buffers.
bool InputPort::deliverShort(DWORD word)
{
    Lock held(lock, std::defer_lock);
    const auto status = static_cast<unsigned char>(word);
    // No messages to Windows 11's driver, and no realtime: they end a SysEx message.
    const bool breaksOff = isWindows11() && (status == 0xF9 || status == 0xFD);
    if (settings.ownThread || breaksOff)
        held.lock();
    if (!started.load())
        return false;
    const Notice notice{MIM_DATA, word, timeStamp()};
    if (breaksOff)
        breakOff(held);
    else if (!settings.ownThread)
        call(notice);
    else if (notices.size() >= kMostPending)
        ++lost.shortMessages;
    else
        tell(held, {notice});
    return true;
}

std::size_t InputPort::deliverSysEx(SourceId source, MIDIPiece piece)
{
    Lock held(lock);
    if (!started.load())
        return 0;
    const Windows11& waits = settings.windows11;
    if (piece.first) { // as on a wire, it ends one that is unfinished
        breakOff(held);
        sysExSource = source;
        found = !isWindows11() || awaitBuffer(held, found ? waits.bufferAtStart : 0);
        dropping = !found;
    }
    const auto arrives = [&] { return started.load() && sysExSource == source; };
    if (piece.kind == MIDIPiece::Kind::Broken && arrives())
        breakOff(held);
    std::size_t taken = 0;
    while (piece.length > 0 && arrives() && !dropping) {
        dropping = !awaitBuffer(held, waits.bufferWithin);
        taken += dropping ? 0 : fillFirst(held, piece);
    }
    lost.bytes += piece.length;
    if (piece.last && arrives()) {
        sysExSource = 0;
        if (filled > 0)
            tell(held, {giveBackFirst(MIM_LONGDATA)});
    }
    return taken;
}

MIDIHDR* InputPort::returnBuffer(UINT code, DWORD bytesRecorded, const void* bytes,
                                 std::size_t length)
{
    const InProgress inProgress(*this);
    Lock held(lock);
    if (buffers.empty())
        return nullptr;
    MIDIHDR* const header = buffers.front();
    const std::size_t count = std::min<std::size_t>(length, header->dwBufferLength);
    if (count > 0)
        std::memcpy(header->lpData, bytes, count);
    filled = bytesRecorded;
    tell(held, {giveBackFirst(code)});
    return header;
}

std::size_t InputPort::room(std::size_t enough)
{
    const Lock held(lock);
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < buffers.size() && bytes < enough; ++i)
        bytes += buffers[i]->dwBufferLength;
    return bytes;
}

DWORD InputPort::work(Lock& held)
{
    if (arrivals.empty())
        return play(held);
    Arrival arrival = std::move(arrivals.front());
    arrivals.pop_front();
    held.unlock();
    // What came before the start is not for the client.
    if (arrival.at >= startedAt.load(std::memory_order_relaxed)) {
        arrival.piece.bytes = arrival.bytes.data();
        deliver(arrival.source, arrival.piece);
    }
    held.lock();
    return 0;
}

void InputPort::endWork()
{
    started.store(false);
    sysExSource = 0;
    bufferAdded.notify_all();
    const auto isShort = [](const Notice& notice) { return notice.message == MIM_DATA; };
    const auto kept = std::remove_if(notices.begin(), notices.end(), isShort);
    lost.shortMessages += static_cast<std::uint64_t>(notices.end() - kept);
    notices.erase(kept, notices.end());
}

void InputPort::discardWork()
{
    buffers.clear();
    filled = 0;
}

void InputPort::touchKept(Lock& held)
{
    if (!buffers.empty() && (flagsOf(*buffers.front()) & MHDR_INQUEUE) && filled > 0)
        tell(held, {giveBackFirst(MIM_LONGERROR)});
}

DWORD InputPort::timeStamp() const
{
    return static_cast<DWORD>((settings.clock() - startedAt.load(std::memory_order_relaxed)) /
                              1000);
}

// False if there is none by then, or the input has been stopped. Only Windows 11's driver waits.
bool InputPort::awaitBuffer(Lock& held, DWORD milliseconds)
{
    if (isWindows11())
        bufferAdded.wait_for(held, std::chrono::milliseconds(milliseconds),
                             [&] { return !buffers.empty() || !started.load(); });
    return !buffers.empty() && started.load();
}

// Takes what fits into the first buffer, and from the piece. Returns how many bytes it is.
std::size_t InputPort::fillFirst(Lock& held, MIDIPiece& piece)
{
    const MIDIHDR* const header = buffers.front();
    const std::size_t length = std::min<std::size_t>(header->dwBufferLength - filled, piece.length);
    if (length > 0) // a spoiled header may have no room, and no memory either
        std::memcpy(header->lpData + filled, piece.bytes, length);
    filled += static_cast<DWORD>(length);
    piece.bytes += length;
    piece.length -= length;
    if (filled == header->dwBufferLength)
        tell(held, {giveBackFirst(MIM_LONGDATA)});
    return length;
}

// Ends an unfinished message. Where Windows 11's driver has just returned a buffer there is nothing
// to report; the next one comes back empty.
void InputPort::breakOff(Lock& held)
{
    if (std::exchange(sysExSource, 0) == 0)
        return;
    if (filled > 0)
        tell(held, {giveBackFirst(MIM_LONGERROR)});
    else if (isWindows11() && !dropping && !buffers.empty())
        tell(held, {giveBackFirst(MIM_LONGDATA)});
}

Port::Notice InputPort::giveBackFirst(UINT message)
{
    MIDIHDR* const header = buffers.front();
    buffers.pop_front();
    header->dwBytesRecorded = std::exchange(filled, 0);
    return giveBack(message, header, timeStamp());
}

Port::Notices InputPort::giveBackPartial()
{
    if (filled == 0)
        return {};
    return {giveBackFirst(isWindows11() ? MIM_LONGERROR : MIM_LONGDATA)};
}

// ---- Generators ---------------------------------------------------------------------------------

DWORD floodWord(DWORD number)
{
    const DWORD channel = (number >> 14) & 0x0F;
    return 0x90 | channel | ((number >> 7) & 0x7F) << 8 | (number & 0x7F) << 16;
}

BYTE dumpByte(DWORD offset, DWORD length, DWORD number)
{
    if (offset == 0)
        return kSysExStart;
    if (offset == length - 1)
        return kSysExEnd;
    if (offset == 1)
        return 0x7D; // the manufacturer number for what is not for sale
    return static_cast<BYTE>((offset + offset / 128 + number) & 0x7F);
}

// Sends what is due as any sender would. Returns a millisecond to wait if it was not heard, or
// another's message has to end first: so that who brings a buffer, or closes the port, gets its
// lock.
DWORD InputPort::play(Lock& held)
{
    const std::vector<Generator>& generators = settings.generators;
    const bool over = settings.repeat != 0 && progress.turn == settings.repeat * generators.size();
    if (!started.load() || isUnplugged() || generators.empty() || over)
        return INFINITE;
    const Generator& playing = generators[progress.turn % generators.size()];
    const std::int64_t now = settings.clock();
    const std::int64_t due = playing.perSecond ? progress.since + std::int64_t(progress.produced) *
                                                                      1000000 / playing.perSecond
                                               : now;
    if (now < due)
        return static_cast<DWORD>((due - now + 999) / 1000);
    if (playing.kind == Generator::Kind::Dump && progress.produced == 0 && sysExSource != 0)
        return 1;
    BYTE buffer[kDumpPiece];
    const MIDIPiece piece = compose(playing, buffer);
    held.unlock();
    const bool heard = deliver(self, piece) > 0;
    held.lock();
    return heard ? 0 : 1;
}

// The next message of a flood, or the next piece of a dump.
MIDIPiece InputPort::compose(const Generator& playing, BYTE* buffer)
{
    MIDIPiece piece{MIDIPiece::Kind::Short};
    if (playing.kind == Generator::Kind::Flood) {
        piece.word = floodWord(progress.floods++);
        ++progress.produced;
    } else {
        const DWORD most = playing.perSecond
                               ? std::clamp<DWORD>(playing.perSecond / 100, 1, kDumpPiece)
                               : kDumpPiece;
        const DWORD begin = progress.produced;
        progress.produced = std::min(begin + most, playing.count);
        for (DWORD at = begin; at < progress.produced; ++at)
            buffer[at - begin] = dumpByte(at, playing.count, progress.dumps);
        piece = {MIDIPiece::Kind::SysEx,    0,          buffer,
                 progress.produced - begin, begin == 0, progress.produced == playing.count};
        progress.dumps += piece.last ? 1 : 0;
    }
    if (progress.produced == playing.count) {
        ++progress.turn;
        progress.produced = 0;
        progress.since = settings.clock();
    }
    return piece;
}

} // namespace device
