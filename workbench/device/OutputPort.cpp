#include "workbench/device/OutputPort.h"

#include <algorithm>
#include <utility>

namespace device {

namespace {

// Windows 11's driver hands a long message to its service in pieces of so many bytes.
constexpr std::size_t kServicePiece = 2048;

// A paced message arrives in slices of 10 ms, as from a small FIFO.
constexpr DWORD kSlicesPerSecond = 100;

} // namespace

OutputPort::OutputPort(const Settings& itsSettings, std::unique_ptr<Wire> itsWire,
                       Callback itsCallback)
    : Port(itsSettings, MOM_OPEN, MOM_CLOSE,
           itsSettings.completion == Completion::Thread &&
               itsSettings.kind != DriverKind::Windows11,
           std::move(itsCallback)),
      wire(std::move(itsWire)), completion(itsSettings.completion)
{}

OutputPort::~OutputPort()
{
    endThread();
}

OutputPort::Item::Item(MIDIHDR* itsHeader, DWORD itsWord, std::int64_t itsTime)
    : header(itsHeader), word(itsWord), queuedAt(itsTime)
{
    if (header)
        bytes.assign(header->lpData, header->lpData + header->dwBufferLength);
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
    if (const MMRESULT refusal = check(header, size))
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
    waitInReset(held);
    Notices due;
    for (Item& item : items) {
        if (!item.header)
            continue;
        due.push_back(giveBack(MOM_DONE, std::exchange(item.header, nullptr), 0));
        if (item.plays) {
            wire->cancel();
            changed.notify_all();
        }
    }
    items.remove_if([](const Item& item) { return item.isTakenAway() && !item.plays; });
    tellReset(held, due);
    return MMSYSERR_NOERROR;
}

MIDIHDR* OutputPort::completeNext()
{
    Lock held(lock);
    const auto next =
        std::find_if(items.begin(), items.end(), [](const Item& item) { return !item.plays; });
    return next == items.end() ? nullptr : play(held, next);
}

// ---- Windows 11's driver ------------------------------------------------------------------------

MMRESULT OutputPort::sendShortNow(DWORD word)
{
    if (const MMRESULT refusal = lookUp())
        return refusal;
    const DriverLock own(portLock);
    Lock held(lock);
    std::vector<MIDIPiece> pieces;
    if (!stream.shortMessage(word, [&](const MIDIPiece& piece) { pieces.push_back(piece); }))
        return MMSYSERR_INVALPARAM;
    wire->noteShort(word);
    if (!settings.windows11.shortsDoNotWait && !awaitService(held))
        return MMSYSERR_ERROR;
    carry(held, pieces);
    return MMSYSERR_NOERROR;
}

MMRESULT OutputPort::sendLongNow(MIDIHDR* header, DWORD_PTR size)
{
    if (const MMRESULT refusal = lookUp())
        return refusal;
    const DriverLock own(portLock);
    if (const MMRESULT refusal = check(header, size))
        return refusal;
    if (header->dwBufferLength == 0)
        return MMSYSERR_INVALPARAM;
    if ((flagsOf(*header) & MHDR_PREPARED) == 0)
        return MMSYSERR_INVALFLAG;
    Lock held(lock);
    wire->noteLong(*header);
    const bool sent = transmitLong(held, {header, 0, settings.clock()});
    const auto failed = settings.windows11.failedLong;
    if (sent || failed != Windows11::FailedLong::StaysWithClient)
        tell(held, {giveBack(MOM_DONE, header, 0)});
    return sent || failed == Windows11::FailedLong::DoneWithSuccess ? MMRESULT(MMSYSERR_NOERROR)
                                                                    : MMRESULT(MMSYSERR_ERROR);
}

// Until a piece is taken. Once that took too long, further sends fail at once until the service
// moves.
bool OutputPort::awaitService(Lock& held)
{
    const std::chrono::milliseconds limit(timedOut ? 0 : settings.windows11.sendPiece);
    timedOut = !changed.wait_for(held, limit, [&] { return !stalled && !isUnplugged(); });
    return !timedOut;
}

void OutputPort::stall(bool on)
{
    const Lock held(lock);
    stalled = on;
    changed.notify_all();
}

// ---- Sending ------------------------------------------------------------------------------------

void OutputPort::queue(Lock& held, MIDIHDR* header, DWORD word)
{
    const auto item = items.emplace(items.end(), header, word, settings.clock());
    const Completion how = completion.load(std::memory_order_relaxed);
    // The quick way, as into any driver: the caller's thread sends, if nobody is before it and the
    // far end takes everything at once.
    if (settings.ownThread ? items.size() == 1 && settings.pace == 0 && wire->connect()
                           : how == Completion::Inline || (!header && how == Completion::Manual))
        play(held, item);
    else
        changed.notify_all();
}

MIDIHDR* OutputPort::play(Lock& held, std::list<Item>::iterator item)
{
    const InProgress inProgress(*this);
    item->plays = true;
    if (item->isShort())
        transmitShort(held, *item);
    else
        transmitLong(held, *item);
    MIDIHDR* const header = item->header;
    items.erase(item);
    if (!items.empty())
        changed.notify_all();
    if (header)
        tell(held, {giveBack(MOM_DONE, header, 0)});
    return header;
}

DWORD OutputPort::work(Lock& held)
{
    if (items.empty() || items.front().plays ||
        completion.load(std::memory_order_relaxed) != Completion::Thread)
        return INFINITE;
    play(held, items.begin());
    return 0;
}

void OutputPort::transmitShort(Lock& held, const Item& item)
{
    const std::size_t length = midiMessageLength(static_cast<unsigned char>(item.word));
    awaitWire(held, item, length > 0 ? length : 2); // mostly two data bytes under running status
    std::vector<MIDIPiece> pieces;
    if (!stream.shortMessage(item.word, [&](const MIDIPiece& piece) { pieces.push_back(piece); }))
        pieces.push_back({MIDIPiece::Kind::Noise, 0, nullptr, 1});
    carry(held, pieces);
}

// False if a reset takes the message away, or Windows 11's service does not take it.
bool OutputPort::transmitLong(Lock& held, const Item& item)
{
    const std::size_t total = item.bytes.size();
    const std::size_t slice = isWindows11()   ? kServicePiece
                              : settings.pace ? std::max<DWORD>(1, settings.pace / kSlicesPerSecond)
                                              : total;
    for (std::size_t at = 0; at < total; at += slice) {
        const std::size_t length = std::min(slice, total - at);
        if (!awaitWire(held, item, length) || (isWindows11() && !awaitService(held)))
            return false;
        std::vector<MIDIPiece> pieces;
        stream.bytes(item.bytes.data() + at, length,
                     [&](const MIDIPiece& piece) { pieces.push_back(piece); });
        carry(held, pieces);
    }
    return true;
}

// Until so many more bytes are through at the wire's pace. False if the item has been taken away
// before; the wire is free then.
bool OutputPort::awaitWire(Lock& held, const Item& item, std::size_t length)
{
    if (settings.pace == 0)
        return true;
    wireFreeAt = std::max(wireFreeAt, item.queuedAt) +
                 static_cast<std::int64_t>(length) * 1000000 / settings.pace;
    while (!item.isTakenAway()) {
        const std::int64_t now = settings.clock();
        if (now >= wireFreeAt)
            return true;
        changed.wait_for(held, std::chrono::milliseconds((wireFreeAt - now + 999) / 1000));
    }
    wireFreeAt = settings.clock();
    return false;
}

void OutputPort::carry(Lock& held, const std::vector<MIDIPiece>& pieces)
{
    wire->connect(); // with the lock held, so that it does not undo the cancelling of a reset
    held.unlock();
    Loss now;
    for (const MIDIPiece& piece : pieces) {
        if (piece.kind == MIDIPiece::Kind::Noise || isUnplugged() || !wire->take(piece))
            now.count(piece);
    }
    held.lock();
    lost.shortMessages += now.shortMessages;
    lost.bytes += now.bytes;
}

// ---- The end ------------------------------------------------------------------------------------

std::size_t OutputPort::queuedHeaders() const
{
    return static_cast<std::size_t>(
        std::count_if(items.begin(), items.end(), [](const Item& item) { return item.header; }));
}

void OutputPort::discardWork()
{
    for (Item& item : items) {
        lost.shortMessages += item.isShort() ? 1u : 0u;
        item.header = nullptr;
    }
    items.remove_if([](const Item& item) { return !item.plays; });
    wire->cancel();
    changed.notify_all();
}

} // namespace device
