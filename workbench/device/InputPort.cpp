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
    const Lock held(lock);
    if (!isOpen())
        return MMSYSERR_INVALHANDLE;
    const MMRESULT refusal = checkHeader(header, size);
    if (refusal != MMSYSERR_NOERROR)
        return refusal;
    header->dwBytesRecorded = 0;
    markQueued(*header);
    buffers.push_back(header);
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::start()
{
    if (settings.startResult != MMSYSERR_NOERROR)
        return settings.startResult;
    const Lock held(lock);
    if (started.load())
        return MMSYSERR_NOERROR;
    const std::int64_t now = settings.clock();
    startedAt.store(now, std::memory_order_relaxed);
    generator = 0;
    round = 0;
    produced = 0;
    generatorSince = now;
    lastPlayed = now;
    floodCounter = 0;
    dumpCounter = 0;
    started.store(true);
    wakeThread();
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::stop()
{
    Lock held(lock);
    conclude(held, stopAndTakePartial(), false);
    return MMSYSERR_NOERROR;
}

MMRESULT InputPort::reset()
{
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

// ---- What arrives -------------------------------------------------------------------------------

// Without the lock, where the sender itself calls back: it would order the sender behind whoever
// adds buffers.
bool InputPort::shortMessage(DWORD word)
{
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
        ++tally.droppedShort;
    else
        tell(held, {MIM_DATA, word, timeStamp()});
    return true;
}

void InputPort::take(SourceId source, const MIDIPiece& piece, const Pause& pause)
{
    if (piece.kind == MIDIPiece::Kind::Short)
        shortMessage(piece.word);
    else if (piece.kind == MIDIPiece::Kind::SysEx)
        sysEx(source, piece, pause);
    else if (piece.kind == MIDIPiece::Kind::Broken)
        sysExBroken(source);
}

std::size_t InputPort::sysEx(SourceId source, MIDIPiece piece, const Pause& pause)
{
    const std::int64_t hold = std::int64_t(settings.hold) * 1000;
    std::int64_t lastTaken = settings.clock();
    bool goOn = true;
    std::size_t found = 0;
    const InProgress inProgress(*this);
    Lock held(lock);
    while (accepts(held, source, piece)) {
        piece.first = false;
        const std::size_t taken = fillFirst(held, piece);
        found += taken;
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
            tally.droppedBytes += piece.length;
            break;
        }
    }
    if (piece.last && sysExSource == source)
        endSysEx(held, MIM_LONGDATA);
    return found;
}

void InputPort::sysExBroken(SourceId source)
{
    const InProgress inProgress(*this);
    Lock held(lock);
    if (sysExSource == source)
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
    return play(held);
}

DWORD InputPort::queuedHeaders() const
{
    return static_cast<DWORD>(buffers.size());
}

void InputPort::endWork()
{
    started.store(false);
    sysExSource = 0;
    tally.droppedShort += dropNotices(MIM_DATA);
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
        tally.droppedBytes += piece.length;
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
        due.push_back(
            noticeOf(MIM_LONGDATA, buffers.front(), std::exchange(filled, 0), timeStamp()));
        buffers.pop_front();
    }
    endWork();
    return due;
}

// ---- Generators ---------------------------------------------------------------------------------

DWORD InputPort::play(Lock& held)
{
    const std::vector<Generator>& generators = settings.generators;
    const bool over = settings.repeat != 0 && round == settings.repeat;
    if (!started.load() || generators.empty() || over)
        return INFINITE;
    const Generator& playing = generators[generator];
    const std::int64_t now = settings.clock();
    const std::int64_t due =
        playing.perSecond ? generatorSince + std::int64_t(produced) * 1000000 / playing.perSecond
                          : now;
    if (now < due)
        return static_cast<DWORD>((due - now + 999) / 1000);
    DWORD pause = 0;
    if (playing.kind == Generator::Kind::Flood) {
        ++produced;
        tell(held, {MIM_DATA, floodWord(floodCounter++), timeStamp()});
    } else {
        pause = playDump(held, playing, now);
    }
    if (produced == playing.count)
        nextGenerator();
    return pause;
}

// Plays the next piece of the dump, or loses it. Returns a millisecond to wait if there was no
// buffer, or another's message has to end first: so that who brings a buffer, or closes the port,
// gets its lock.
DWORD InputPort::playDump(Lock& held, const Generator& dump, std::int64_t now)
{
    const bool first = produced == 0;
    if (first && sysExSource != 0 && sysExSource != self)
        return 1;

    BYTE bytes[kDumpPiece];
    const DWORD most =
        dump.perSecond ? std::clamp<DWORD>(dump.perSecond / 100, 1, kDumpPiece) : kDumpPiece;
    const DWORD length = std::min(most, dump.count - produced);
    for (DWORD i = 0; i < length; ++i)
        bytes[i] = dumpByte(produced + i, dump.count, dumpCounter);

    MIDIPiece piece{MIDIPiece::Kind::SysEx, 0, bytes, length, first, false};
    if (!accepts(held, self, piece)) { // another message has put an end to this one
        produced = dump.count;
        ++dumpCounter;
        return 0;
    }
    while (piece.length > 0 && fillFirst(held, piece) > 0) {
    }
    const DWORD taken = length - static_cast<DWORD>(piece.length);
    produced += taken;
    if (taken > 0)
        lastPlayed = now;
    if (piece.length > 0 && now - lastPlayed >= std::int64_t(settings.hold) * 1000) {
        tally.droppedBytes += piece.length;
        produced += static_cast<DWORD>(piece.length);
    }
    if (produced == dump.count) {
        ++dumpCounter;
        if (sysExSource == self)
            endSysEx(held, MIM_LONGDATA);
    }
    return taken > 0 ? 0 : 1;
}

void InputPort::nextGenerator()
{
    produced = 0;
    generatorSince = settings.clock();
    lastPlayed = generatorSince;
    if (++generator == settings.generators.size()) {
        generator = 0;
        if (settings.repeat != 0)
            ++round;
    }
}

} // namespace device
