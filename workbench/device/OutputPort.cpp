#include "workbench/device/OutputPort.h"

#include <algorithm>
#include <utility>

namespace device {

namespace {

// Of what does not wait in the queue, and cannot be taken away from there.
constexpr std::uint64_t kUnnumbered = 0;

// Windows 11's driver hands a long message to its service in pieces of so many bytes.
constexpr DWORD kServicePiece = 2048;

// A paced message arrives in slices of 10 ms, as from a small FIFO.
constexpr DWORD kSlicesPerSecond = 100;

// A message without status byte has one or two data bytes; two is the usual case.
std::size_t wireLength(DWORD word)
{
    const std::size_t length = midiMessageLength(static_cast<unsigned char>(word));
    return length > 0 ? length : 2;
}

} // namespace

OutputPort::OutputPort(const Settings& itsSettings, std::unique_ptr<Wire> itsWire,
                       Callback itsCallback)
    : Port(itsSettings, {MOM_OPEN, MOM_CLOSE}, std::move(itsCallback)), wire(std::move(itsWire)),
      completion(itsSettings.completion)
{}

OutputPort::~OutputPort()
{
    endThread();
}

// ---- The client's calls -------------------------------------------------------------------------

MMRESULT OutputPort::sendShort(DWORD word)
{
    if (isWindows11())
        return sendShortNow(word);
    const auto status = static_cast<unsigned char>(word);
    if (isMIDIStatus(status) && midiMessageLength(status) == 0)
        return MMSYSERR_INVALPARAM;
    Lock held(lock);
    if (!isOpen())
        return MMSYSERR_INVALHANDLE;
    wire->noteShort(word);
    queue(held, nullptr, word);
    return MMSYSERR_NOERROR;
}

MMRESULT OutputPort::sendLong(MIDIHDR* header, DWORD_PTR size)
{
    if (isWindows11())
        return sendLongNow(header, size);
    Lock held(lock);
    if (!isOpen())
        return MMSYSERR_INVALHANDLE;
    if (const MMRESULT refusal = checkHeader(header, size))
        return refusal;
    wire->noteLong(*header);
    markQueued(*header);
    queue(held, header, 0);
    return MMSYSERR_NOERROR;
}

MMRESULT OutputPort::reset()
{
    if (isWindows11())
        return lookUp(settings.windows11.cleansUpAfterRemoval); // and nothing else
    Lock held(lock);
    if (!settings.ownThread && kind() == DriverKind::WaitsInReset) {
        held.unlock();
        waitForOthers();
        held.lock();
    }
    Notices due;
    std::deque<Item> shortMessages;
    for (Item& item : items) {
        if (item.plays && item.header)
            stopPlaying();
        if (item.header)
            due.push_back(noticeOf(MOM_DONE, item.header, 0, 0));
        else
            shortMessages.push_back(std::move(item));
    }
    items.swap(shortMessages);
    conclude(held, std::move(due), true);
    return MMSYSERR_NOERROR;
}

MIDIHDR* OutputPort::completeNext()
{
    Lock held(lock);
    const auto next =
        std::find_if(items.begin(), items.end(), [](const Item& item) { return !item.plays; });
    return next == items.end() ? nullptr : play(held, next->number, false);
}

// ---- Windows 11's driver ------------------------------------------------------------------------

MMRESULT OutputPort::sendShortNow(DWORD word)
{
    if (const MMRESULT refusal = lookUp())
        return refusal;
    const std::lock_guard<std::recursive_mutex> own(portLock);
    Lock held(lock);
    std::vector<MIDIPiece> pieces;
    if (!stream.shortMessage(word, [&](const MIDIPiece& piece) { pieces.push_back(piece); }))
        return MMSYSERR_INVALPARAM;
    wire->noteShort(word);
    if (!settings.windows11.shortsDoNotWait && !awaitService(held))
        return MMSYSERR_ERROR;
    if (isUnplugged())
        return MMSYSERR_NOERROR; // lost
    wire->connect();
    carry(held, pieces, kUnnumbered, false);
    wire->disconnect(tally);
    return MMSYSERR_NOERROR;
}

MMRESULT OutputPort::sendLongNow(MIDIHDR* header, DWORD_PTR size)
{
    if (const MMRESULT refusal = lookUp())
        return refusal;
    const std::lock_guard<std::recursive_mutex> own(portLock);
    if (!header || size < kLeastHeader || header->dwBufferLength == 0)
        return MMSYSERR_INVALPARAM;
    if ((flagsOf(*header) & MHDR_PREPARED) == 0)
        return MMSYSERR_INVALFLAG;
    Lock held(lock);
    wire->noteLong(*header);
    wire->connect();
    const auto* const bytes = reinterpret_cast<const unsigned char*>(header->lpData);
    MMRESULT result = MMSYSERR_NOERROR;
    for (DWORD at = 0; at < header->dwBufferLength && result == MMSYSERR_NOERROR;) {
        const DWORD length = std::min(kServicePiece, header->dwBufferLength - at);
        if (settings.pace) {
            wireFreeAt = std::max(wireFreeAt, settings.clock()) +
                         std::int64_t(length) * 1000000 / settings.pace;
            waitForWire(held, kUnnumbered, wireFreeAt);
        }
        if (!awaitService(held)) {
            result = MMSYSERR_ERROR;
            break;
        }
        std::vector<MIDIPiece> pieces;
        stream.bytes(bytes + at, length, [&](const MIDIPiece& piece) { pieces.push_back(piece); });
        carry(held, pieces, kUnnumbered, false);
        at += length;
    }
    wire->disconnect(tally);
    const auto failed = settings.windows11.failedLong;
    if (result == MMSYSERR_NOERROR || failed != Windows11::FailedLong::StaysWithClient)
        conclude(held, {noticeOf(MOM_DONE, header, 0, 0)}, false);
    return failed == Windows11::FailedLong::DoneWithSuccess ? MMRESULT(MMSYSERR_NOERROR) : result;
}

// Until a piece is taken. Once that took too long, further sends fail at once until the service
// moves.
bool OutputPort::awaitService(Lock& held)
{
    timedOut = !serviceMoves.waitFor(held, timedOut ? 0 : settings.windows11.sendPiece,
                                     [&] { return !stalled && !isUnplugged(); });
    return !timedOut;
}

void OutputPort::stall(bool on)
{
    const Lock held(lock);
    stalled = on;
    serviceMoves.notifyAll();
}

// ---- Sending ------------------------------------------------------------------------------------

// The quick way, as into any driver: the caller's thread sends, if nobody is before it and the far
// end takes everything at once.
bool OutputPort::passesAtOnce()
{
    if (sending || items.size() > 1 || settings.pace != 0)
        return false;
    const bool passes = wire->connect();
    if (!passes)
        wire->disconnect(tally);
    return passes;
}

void OutputPort::queue(Lock& held, MIDIHDR* header, DWORD word)
{
    const std::uint64_t number = ++lastNumber;
    items.push_back({number, header, word, {}, settings.clock()});
    if (header)
        items.back().bytes.assign(header->lpData, header->lpData + header->dwBufferLength);
    const Completion how = completion.load(std::memory_order_relaxed);
    if (settings.ownThread ? passesAtOnce()
                           : how == Completion::Inline || (!header && how == Completion::Manual)) {
        play(held, number, settings.ownThread);
    } else if (how == Completion::Thread) {
        if (!hasThread())
            startThread(nullptr);
        wakeThread();
    }
}

MIDIHDR* OutputPort::play(Lock& held, std::uint64_t number, bool keepLock)
{
    const InProgress inProgress(*this);
    const auto begun = find(number);
    begun->plays = true;
    const Item item{number, begun->header, begun->word, std::move(begun->bytes), begun->queuedAt};
    transmit(held, item, keepLock);
    wire->disconnect(tally);
    const auto ended = find(number);
    if (ended == items.end())
        return nullptr;
    items.erase(ended);
    if (item.header)
        tell(held, noticeOf(MOM_DONE, item.header, 0, 0));
    return item.header;
}

DWORD OutputPort::work(Lock& held)
{
    if (items.empty() || completion.load(std::memory_order_relaxed) != Completion::Thread)
        return INFINITE;
    sending = true;
    wire->connect();
    play(held, items.front().number, false);
    sending = false;
    return 0;
}

void OutputPort::transmit(Lock& held, const Item& item, bool keepLock)
{
    wireFreeAt = std::max(wireFreeAt, item.queuedAt);
    std::vector<MIDIPiece> pieces;
    const auto collect = [&](const MIDIPiece& piece) { pieces.push_back(piece); };
    if (!item.header) {
        if (settings.pace) {
            wireFreeAt += std::int64_t(wireLength(item.word)) * 1000000 / settings.pace;
            waitForWire(held, item.number, wireFreeAt);
        }
        if (!stream.shortMessage(item.word, collect))
            pieces.push_back({MIDIPiece::Kind::Noise, 0, nullptr, 1});
        carry(held, pieces, item.number, keepLock);
        return;
    }
    const std::size_t total = item.bytes.size();
    const std::size_t slice =
        settings.pace ? std::max<DWORD>(1, settings.pace / kSlicesPerSecond) : total;
    const std::int64_t begin = wireFreeAt;
    for (std::size_t at = 0; at < total; at += slice) {
        const std::size_t length = std::min(slice, total - at);
        if (settings.pace) {
            wireFreeAt = begin + static_cast<std::int64_t>(at + length) * 1000000 / settings.pace;
            if (!waitForWire(held, item.number, wireFreeAt)) {
                wireFreeAt = settings.clock();
                return;
            }
        }
        pieces.clear();
        stream.bytes(item.bytes.data() + at, length, collect);
        carry(held, pieces, item.number, keepLock);
    }
}

// Hands the pieces over; short messages in a row go on together.
void OutputPort::carry(Lock& held, const std::vector<MIDIPiece>& pieces, std::uint64_t number,
                       bool keepLock)
{
    const Pause pause = [&](DWORD milliseconds) {
        Lock again(lock);
        return waitForWire(again, number, settings.clock() + std::int64_t(milliseconds) * 1000);
    };
    const bool flushes = !keepLock && (items.size() < 2 || items[0].header || items[1].header);
    if (!keepLock)
        held.unlock();
    std::size_t noise = 0;
    for (const MIDIPiece& piece : pieces) {
        if (piece.kind == MIDIPiece::Kind::Noise || isUnplugged())
            noise += piece.length;
        else
            wire->take(piece, pause);
    }
    if (flushes)
        wire->flush();
    if (!keepLock)
        held.lock();
    tally.dropped.bytes += noise;
}

// False if the item has been taken away before.
bool OutputPort::waitForWire(Lock& held, std::uint64_t number, std::int64_t due)
{
    while (number == kUnnumbered || find(number) != items.end()) {
        const std::int64_t now = settings.clock();
        if (now >= due)
            return true;
        cancelled.wait(held, static_cast<DWORD>((due - now + 999) / 1000));
    }
    return false;
}

std::deque<OutputPort::Item>::iterator OutputPort::find(std::uint64_t number)
{
    return std::find_if(items.begin(), items.end(),
                        [&](const Item& item) { return item.number == number; });
}

void OutputPort::stopPlaying()
{
    wire->cancel();
    cancelled.notifyAll();
}

// ---- The end ------------------------------------------------------------------------------------

DWORD OutputPort::queuedHeaders() const
{
    return static_cast<DWORD>(
        std::count_if(items.begin(), items.end(), [](const Item& item) { return item.header; }));
}

// What waits are short messages at most, and they still go out.
void OutputPort::endWork() {}

void OutputPort::discardWork()
{
    for (const Item& item : items)
        tally.dropped.shortMessages += item.header ? 0u : 1u;
    items.clear();
    stopPlaying();
}

} // namespace device
