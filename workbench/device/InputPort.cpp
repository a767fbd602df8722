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

bool sleepAnyway(DWORD milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    return true;
}

} // namespace

SourceId nextSourceId()
{
    static std::atomic<SourceId> last{0};
    return ++last;
}

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

InputPort::InputPort(const Settings& itsSettings, Callback itsCallback)
    : Port(itsSettings, {MIM_OPEN, MIM_CLOSE}, std::move(itsCallback))
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
    if (isWindows11()) { // whatever the flags say
        if (!header || size < kLeastHeader)
            return MMSYSERR_INVALPARAM;
    } else if (const MMRESULT refusal = checkHeader(header, size)) {
        return refusal;
    }
    header->dwBytesRecorded = 0;
    markQueued(*header);
    buffers.push_back(header);
    bufferAdded.notifyAll();
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::start()
{
    if (settings.startResult != MMSYSERR_NOERROR)
        return settings.startResult;
    if (const MMRESULT refusal = lookUp())
        return refusal;
    const Lock held(lock);
    if (started.load())
        return MMSYSERR_NOERROR;
    const std::int64_t now = settings.clock();
    startedAt.store(now, std::memory_order_relaxed);
    progress = {};
    progress.since = progress.lastPlayed = now;
    started.store(true);
    wakeThread();
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::stop()
{
    if (const MMRESULT refusal = stopWorker())
        return refusal;
    Lock held(lock);
    conclude(held, stopAndTakePartial(), false);
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::reset()
{
    if (const MMRESULT refusal = stopWorker())
        return refusal;
    // Windows 11's driver holds it while it calls the client.
    std::unique_lock<std::recursive_mutex> own(portLock, std::defer_lock);
    if (isWindows11())
        own.lock();
    Lock held(lock);
    Notices due = stopAndTakePartial();
    if (!settings.ownThread && kind() == DriverKind::WaitsInReset) {
        held.unlock();
        waitForOthers();
        held.lock();
    }
    for (MIDIHDR* const header : buffers)
        due.push_back(noticeOf(MIM_LONGDATA, header, 0, timeStamp()));
    buffers.clear();
    conclude(held, std::move(due), true);
    return MMSYSERR_NOERROR;
}

// ---- Windows 11's worker ------------------------------------------------------------------------

// Waits for its callback in progress.
MMRESULT InputPort::stopWorker()
{
    if (!isWindows11())
        return MMSYSERR_NOERROR;
    if (const MMRESULT refusal = lookUp(settings.windows11.cleansUpAfterRemoval))
        return refusal;
    {
        const Lock held(lock);
        started.store(false);
        startedAt.store(0, std::memory_order_relaxed); // stamps are the machine's time from here on
        bufferAdded.notifyAll();
    }
    waitForOthers();
    return MMSYSERR_NOERROR;
}

void InputPort::leaveToWorker(SourceId source, const MIDIPiece& piece)
{
    const Lock held(lock);
    if (isUnplugged())
        return;
    if (arrivals.size() >= kMostPending) {
        ++tally.dropped.shortMessages;
        return;
    }
    arrivals.push_back(
        {source, piece, {piece.bytes, piece.bytes + piece.length}, settings.clock()});
    wakeThread();
}

// The driver takes it for every byte. Once for all of them makes the same threads wait for each
// other, and not so slowly.
void InputPort::awaitPortLock()
{
    const std::lock_guard<std::recursive_mutex> once(portLock);
}

bool InputPort::handleShort(DWORD word)
{
    const InProgress inProgress(*this);
    if (!started.load())
        return false;
    const auto status = static_cast<unsigned char>(word);
    awaitPortLock();
    // No messages to this driver, and no realtime: they end a SysEx message.
    if (status == 0xF9 || status == 0xFD) {
        Lock held(lock);
        breakOff(held);
        return true;
    }
    shortsCalled.fetch_add(1, std::memory_order_relaxed);
    call(MIM_DATA, word, timeStamp());
    return true;
}

std::size_t InputPort::handle(SourceId source, MIDIPiece piece)
{
    const InProgress inProgress(*this);
    if (!started.load())
        return 0;
    awaitPortLock();
    Lock held(lock);
    if (piece.first) {
        breakOff(held);
        sysExSource = source;
        found = awaitBuffer(held, found ? settings.windows11.bufferAtStart : 0);
        dropping = !found;
    } else if (sysExSource != source) {
        tally.dropped.bytes += piece.length;
        return 0;
    }
    std::size_t taken = 0;
    while (piece.length > 0 && started.load()) {
        dropping = dropping || !awaitBuffer(held, settings.windows11.bufferWithin);
        if (dropping) {
            tally.dropped.bytes += piece.length;
            break;
        }
        taken += fillFirst(held, piece);
    }
    if (piece.last && started.load()) {
        dropping = false;
        endSysEx(held, MIM_LONGDATA);
    }
    return taken;
}

bool InputPort::awaitBuffer(Lock& held, DWORD milliseconds)
{
    return bufferAdded.waitFor(held, milliseconds, [&] {
        return !buffers.empty() || !started.load();
    }) && started.load();
}

// Where a buffer has just been returned there is nothing to report; the next one comes back empty.
void InputPort::breakOff(Lock& held)
{
    if (sysExSource == 0)
        return;
    sysExSource = 0;
    if (filled > 0)
        giveBackFirst(held, MIM_LONGERROR);
    else if (!dropping && !buffers.empty())
        giveBackFirst(held, MIM_LONGDATA);
    dropping = false;
}

void InputPort::touchKept(Lock& held)
{
    if (buffers.empty() || (flagsOf(*buffers.front()) & MHDR_INQUEUE) == 0)
        return;
    if (filled > 0)
        giveBackFirst(held, MIM_LONGERROR);
}

// ---- What arrives -------------------------------------------------------------------------------

// Without the lock, where the sender itself calls back: it would order the sender behind whoever
// adds buffers.
bool InputPort::shortMessage(DWORD word)
{
    if (isUnplugged())
        return false;
    if (isWindows11())
        return handleShort(word);
    if (!settings.ownThread) {
        const InProgress inProgress(*this);
        if (!started.load())
            return false;
        shortsCalled.fetch_add(1, std::memory_order_relaxed);
        call(MIM_DATA, word, timeStamp());
        return true;
    }
    Lock held(lock);
    if (!started.load())
        return false;
    if (waitingNotices() >= kMostPending)
        ++tally.dropped.shortMessages;
    else
        tell(held, {MIM_DATA, word, timeStamp()});
    return true;
}

void InputPort::take(SourceId source, const MIDIPiece& piece, const Pause& pause)
{
    if (settings.worker)
        leaveToWorker(source, piece);
    else if (piece.kind == MIDIPiece::Kind::Short)
        shortMessage(piece.word);
    else if (piece.kind == MIDIPiece::Kind::SysEx)
        sysEx(source, piece, pause);
    else if (piece.kind == MIDIPiece::Kind::Broken)
        sysExBroken(source);
}

std::size_t InputPort::sysEx(SourceId source, MIDIPiece piece, const Pause& pause)
{
    if (isUnplugged())
        return 0;
    if (isWindows11())
        return handle(source, piece);
    const std::int64_t hold = std::int64_t(settings.hold) * 1000;
    std::int64_t lastTaken = settings.clock();
    bool goOn = true;
    std::size_t roomFound = 0;
    const InProgress inProgress(*this);
    Lock held(lock);
    while (accepts(held, source, piece)) {
        piece.first = false;
        const std::size_t taken = fillFirst(held, piece);
        roomFound += taken;
        if (piece.length == 0)
            break;
        const std::int64_t now = settings.clock();
        if (taken > 0) {
            lastTaken = now;
        } else if (goOn && now - lastTaken < hold) {
            held.unlock();
            goOn = pause ? pause(1) : sleepAnyway(1);
            held.lock();
        } else {
            tally.dropped.bytes += piece.length;
            break;
        }
    }
    if (piece.last && sysExSource == source)
        endSysEx(held, MIM_LONGDATA);
    return roomFound;
}

void InputPort::sysExBroken(SourceId source)
{
    const InProgress inProgress(*this);
    Lock held(lock);
    if (!started.load() || sysExSource != source)
        return;
    if (isWindows11())
        breakOff(held);
    else
        endSysEx(held, MIM_LONGERROR);
}

MIDIHDR* InputPort::returnBuffer(UINT code, DWORD bytesRecorded, const void* bytes,
                                 std::size_t length)
{
    const InProgress inProgress(*this);
    Lock held(lock);
    if (buffers.empty())
        return nullptr;
    MIDIHDR* const header = buffers.front();
    buffers.pop_front();
    filled = 0;
    const std::size_t count = std::min<std::size_t>(length, header->dwBufferLength);
    if (count > 0)
        std::memcpy(header->lpData, bytes, count);
    tell(held, noticeOf(code, header, bytesRecorded, timeStamp()));
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
    const Arrival arrival = std::move(arrivals.front());
    arrivals.pop_front();
    held.unlock();
    // What came before the start is not for the client.
    if (arrival.at >= startedAt.load(std::memory_order_relaxed)) {
        MIDIPiece piece = arrival.piece;
        piece.bytes = arrival.bytes.data();
        if (piece.kind == MIDIPiece::Kind::Short)
            handleShort(piece.word);
        else if (piece.kind == MIDIPiece::Kind::SysEx)
            handle(arrival.source, piece);
        else
            sysExBroken(arrival.source);
    }
    held.lock();
    return 0;
}

DWORD InputPort::queuedHeaders() const
{
    return static_cast<DWORD>(buffers.size());
}

void InputPort::endWork()
{
    started.store(false);
    sysExSource = 0;
    tally.dropped.shortMessages += dropNotices(MIM_DATA);
}

void InputPort::discardWork()
{
    buffers.clear();
    filled = 0;
}

DWORD InputPort::timeStamp() const
{
    const std::int64_t since = startedAt.load(std::memory_order_relaxed);
    return since == kNever ? 0 : static_cast<DWORD>((settings.clock() - since) / 1000);
}

// Whether the piece belongs to the message that is arriving, or begins one. As on a wire, a new
// message puts an end to one that is unfinished.
bool InputPort::accepts(Lock& held, SourceId source, const MIDIPiece& piece)
{
    if (!started.load())
        return false;
    if (piece.first) {
        endSysEx(held, MIM_LONGERROR);
        sysExSource = source;
    } else if (sysExSource != source) {
        tally.dropped.bytes += piece.length;
        return false;
    }
    return started.load();
}

// Takes what fits into the first buffer, and from the piece. Returns how many bytes it is.
std::size_t InputPort::fillFirst(Lock& held, MIDIPiece& piece)
{
    if (buffers.empty())
        return 0;
    const MIDIHDR* const header = buffers.front();
    const DWORD most =
        settings.split ? std::min(settings.split, header->dwBufferLength) : header->dwBufferLength;
    const std::size_t length = std::min<std::size_t>(most - filled, piece.length);
    if (length > 0) // a spoiled header may have no room, and no memory either
        std::memcpy(header->lpData + filled, piece.bytes, length);
    filled += static_cast<DWORD>(length);
    piece.bytes += length;
    piece.length -= length;
    if (filled == most)
        giveBackFirst(held, MIM_LONGDATA);
    return length;
}

// `message` is what the client hears if its buffer holds bytes of the message.
void InputPort::endSysEx(Lock& held, UINT message)
{
    sysExSource = 0;
    if (filled > 0)
        giveBackFirst(held, message);
}

void InputPort::giveBackFirst(Lock& held, UINT message)
{
    MIDIHDR* const header = buffers.front();
    buffers.pop_front();
    tell(held, noticeOf(message, header, std::exchange(filled, 0), timeStamp()));
}

Port::Notices InputPort::stopAndTakePartial()
{
    Notices due;
    if (filled > 0) {
        due.push_back(noticeOf(isWindows11() ? MIM_LONGERROR : MIM_LONGDATA, buffers.front(),
                               std::exchange(filled, 0), timeStamp()));
        buffers.pop_front();
    }
    endWork();
    return due;
}

// ---- Generators ---------------------------------------------------------------------------------

DWORD InputPort::play(Lock& held)
{
    const InProgress inProgress(*this);
    const std::vector<Generator>& generators = settings.generators;
    const bool over = settings.repeat != 0 && progress.round == settings.repeat;
    if (!started.load() || isUnplugged() || generators.empty() || over)
        return INFINITE;
    const Generator& playing = generators[progress.generator];
    const std::int64_t now = settings.clock();
    const std::int64_t due = playing.perSecond ? progress.since + std::int64_t(progress.produced) *
                                                                      1000000 / playing.perSecond
                                               : now;
    if (now < due)
        return static_cast<DWORD>((due - now + 999) / 1000);
    DWORD pause = 0;
    if (playing.kind == Generator::Kind::Flood) {
        ++progress.produced;
        tell(held, {MIM_DATA, floodWord(progress.floods++), timeStamp()});
    } else {
        pause = playDump(held, playing, now);
    }
    if (progress.produced == playing.count)
        nextGenerator();
    return pause;
}

// Plays the next piece of the dump, or loses it. Returns a millisecond to wait if there was no
// buffer, or another's message has to end first: so that who brings a buffer, or closes the port,
// gets its lock.
DWORD InputPort::playDump(Lock& held, const Generator& dump, std::int64_t now)
{
    const bool first = progress.produced == 0;
    if (first && sysExSource != 0 && sysExSource != self)
        return 1;

    BYTE bytes[kDumpPiece];
    const DWORD most =
        dump.perSecond ? std::clamp<DWORD>(dump.perSecond / 100, 1, kDumpPiece) : kDumpPiece;
    const DWORD length = std::min(most, dump.count - progress.produced);
    for (DWORD i = 0; i < length; ++i)
        bytes[i] = dumpByte(progress.produced + i, dump.count, progress.dumps);

    MIDIPiece piece{MIDIPiece::Kind::SysEx, 0, bytes, length, first, false};
    if (isWindows11()) {
        progress.produced += length;
        piece.last = progress.produced == dump.count;
        progress.dumps += piece.last ? 1 : 0;
        held.unlock();
        const std::size_t heard = handle(self, piece);
        held.lock();
        return heard > 0 ? 0 : 1;
    }
    if (!accepts(held, self, piece)) { // another message has put an end to this one
        progress.produced = dump.count;
        ++progress.dumps;
        return 0;
    }
    while (piece.length > 0 && fillFirst(held, piece) > 0) {
    }
    const DWORD taken = length - static_cast<DWORD>(piece.length);
    progress.produced += taken;
    if (taken > 0)
        progress.lastPlayed = now;
    if (piece.length > 0 && now - progress.lastPlayed >= std::int64_t(settings.hold) * 1000) {
        tally.dropped.bytes += piece.length;
        progress.produced += static_cast<DWORD>(piece.length);
    }
    if (progress.produced == dump.count) {
        ++progress.dumps;
        if (sysExSource == self)
            endSysEx(held, MIM_LONGDATA);
    }
    return taken > 0 ? 0 : 1;
}

void InputPort::nextGenerator()
{
    progress.produced = 0;
    progress.since = progress.lastPlayed = settings.clock();
    if (++progress.generator == settings.generators.size()) {
        progress.generator = 0;
        if (settings.repeat != 0)
            ++progress.round;
    }
}

} // namespace device
