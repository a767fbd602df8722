#include "OutputPort.h"

#include "EventLog.h"
#include "PortTable.h"

#include <algorithm>

namespace cable {
namespace {

constexpr DWORD kSlicesPerSecond =
    100; // a paced message arrives in slices of 10 ms, as from a small FIFO

// A message without status byte has one or two data bytes; two is the usual case.
size_t wireLength(DWORD word)
{
    const size_t length = messageLength(static_cast<BYTE>(word));
    return length ? length : 2;
}

} // namespace

OutputPort::OutputPort(const PortDescription& description, unsigned position, const Client& client)
    : Port(Direction::Output, description, position, client), remote_(description.to)
{}

DWORD OutputPort::sendShort(DWORD word)
{
    const BYTE status = static_cast<BYTE>(word);
    if (status >= 0x80 && messageLength(status) == 0)
        return MMSYSERR_INVALPARAM;
    logEvent("out", position(), "short %06X", static_cast<unsigned>(word & 0xFFFFFF));

    const Lock lock(mutex_);
    if (isClosing())
        return MMSYSERR_INVALHANDLE;
    if (takeWire()) {
        if (!stream_.shortMessage(word))
            noise(1);
        leaveWire();
        return MMSYSERR_NOERROR;
    }
    queue_.push_back({nullptr, word, {}, microseconds()});
    wakeThread();
    return MMSYSERR_NOERROR;
}

DWORD OutputPort::sendLong(MIDIHDR* header, DWORD_PTR size)
{
    const Lock lock(mutex_);
    if (isClosing())
        return MMSYSERR_INVALHANDLE;
    const DWORD refusal = checkHeader(header, size);
    if (refusal != MMSYSERR_NOERROR)
        return refusal;
    logEvent("out", position(), "long %lu", header->dwBufferLength);
    markQueued(header);
    const auto* bytes = reinterpret_cast<const BYTE*>(header->lpData);
    if (takeWire()) {
        const bool atOnce = !local_ || local_->takesAtOnce();
        if (atOnce)
            stream_.bytes(bytes, header->dwBufferLength);
        leaveWire();
        if (atOnce) {
            postHeader(MOM_DONE, header, 0, 0);
            return MMSYSERR_NOERROR;
        }
    }
    queue_.push_back({header, 0, {bytes, bytes + header->dwBufferLength}, microseconds()});
    wakeThread();
    return MMSYSERR_NOERROR;
}

DWORD OutputPort::reset()
{
    logEvent("out", position(), "reset");
    Lock lock(mutex_);
    if (sendingHeader_) {
        postHeader(MOM_DONE, sendingHeader_, 0, 0);
        cancelSending();
    }
    std::deque<Item> shortMessages;
    for (Item& item : queue_) {
        if (item.header)
            postHeader(MOM_DONE, item.header, 0, 0);
        else
            shortMessages.push_back(std::move(item));
    }
    queue_.swap(shortMessages);
    finishReset(lock);
    return MMSYSERR_NOERROR;
}

DWORD OutputPort::work(Lock& lock)
{
    if (queue_.empty())
        return INFINITE;
    const Item item = std::move(queue_.front());
    queue_.pop_front();
    sending_ = true;
    sendingHeader_ = item.header;
    cancelled_ = false;
    remote_.allow();
    lock.unlock();

    local_ = openInputAt(description().to);
    transmit(item);
    local_.reset();

    lock.lock();
    // Short messages in a row share a frame; a long one begins and ends with its own.
    const bool frameEnds = item.header || queue_.empty() || queue_.front().header;
    if (frameEnds) {
        lock.unlock();
        remote_.flush();
        lock.lock();
    }
    addTally();
    sending_ = false;
    if (sendingHeader_)
        postHeader(MOM_DONE, sendingHeader_, 0, 0);
    sendingHeader_ = nullptr;
    return 0;
}

DWORD OutputPort::queuedHeaders() const
{
    const auto isLong = [](const Item& item) { return item.header != nullptr; };
    const auto waiting = std::count_if(queue_.begin(), queue_.end(), isLong);
    return static_cast<DWORD>(waiting) + (sendingHeader_ ? 1 : 0);
}

// What waits are short messages at most, and they still go out.
void OutputPort::endWork() {}

void OutputPort::discardWork()
{
    for (const Item& item : queue_)
        if (!item.header)
            ++counters_.droppedShort;
    queue_.clear();
    cancelSending();
}

void OutputPort::cancelSending()
{
    sendingHeader_ = nullptr;
    cancelled_ = true;
    remote_.cancel();
    cancelWake_.notifyAll();
}

// The quick way, as into any driver: the caller's thread sends. True if nobody is before it, and
// the input is in this process.
bool OutputPort::takeWire()
{
    if (sending_ || !queue_.empty() || description().pace != 0)
        return false;
    local_ = openInputAt(description().to);
    return local_ || description().to == 0;
}

void OutputPort::leaveWire()
{
    local_.reset();
    addTally();
}

void OutputPort::addTally()
{
    const RemoteInput::Tally sent = remote_.takeSent();
    const RemoteInput::Tally lost = remote_.takeLost();
    counters_.deliveredShort += tally_.deliveredShort + sent.shortMessages;
    counters_.deliveredBytes += tally_.deliveredBytes + sent.bytes;
    counters_.droppedShort += tally_.droppedShort + lost.shortMessages;
    counters_.droppedBytes += tally_.droppedBytes + lost.bytes;
    tally_ = {};
}

void OutputPort::transmit(const Item& item)
{
    wireFreeAt_ = std::max(wireFreeAt_, item.queuedAt);
    if (item.header) {
        transmitLong(item);
        return;
    }
    const DWORD pace = description().pace;
    if (pace) {
        wireFreeAt_ += static_cast<LONGLONG>(wireLength(item.word)) * 1000000 / pace;
        waitUntil(wireFreeAt_);
    }
    if (!stream_.shortMessage(item.word))
        noise(1);
}

void OutputPort::transmitLong(const Item& item)
{
    const DWORD pace = description().pace;
    const size_t total = item.bytes.size();
    const size_t slice = pace ? std::max<DWORD>(1, pace / kSlicesPerSecond) : total;
    const LONGLONG begin = wireFreeAt_;
    for (size_t at = 0; at < total && !cancelled_;) {
        const size_t length = std::min(slice, total - at);
        if (pace) {
            wireFreeAt_ = begin + static_cast<LONGLONG>(at + length) * 1000000 / pace;
            if (!waitUntil(wireFreeAt_)) {
                wireFreeAt_ = microseconds();
                return;
            }
        }
        stream_.bytes(item.bytes.data() + at, length);
        if (pace)
            remote_.flush();
        at += length;
    }
}

// False if the sending was cancelled before.
bool OutputPort::waitUntil(LONGLONG due)
{
    Lock lock(mutex_);
    while (!cancelled_) {
        const LONGLONG now = microseconds();
        if (now >= due)
            return true;
        cancelWake_.wait(lock, static_cast<DWORD>((due - now + 999) / 1000));
    }
    return false;
}

void OutputPort::shortMessage(DWORD word)
{
    if (local_) {
        local_->shortMessage(word);
        ++tally_.deliveredShort;
    } else if (description().to == 0) {
        ++tally_.droppedShort;
    } else {
        remote_.shortMessage(word);
    }
}

void OutputPort::sysEx(const SysExPiece& piece)
{
    if (local_) {
        local_->sysEx(id(), piece, [this](DWORD milliseconds) {
            return waitUntil(microseconds() + LONGLONG(milliseconds) * 1000);
        });
        tally_.deliveredBytes += piece.length;
    } else if (description().to == 0) {
        tally_.droppedBytes += piece.length;
    } else {
        remote_.sysEx(piece);
    }
}

void OutputPort::sysExBroken()
{
    if (local_)
        local_->sysExBroken(id());
    else if (description().to != 0)
        remote_.sysExBroken();
}

void OutputPort::noise(size_t bytes)
{
    tally_.droppedBytes += bytes;
}

} // namespace cable
