#include "InputPort.h"

#include "Listener.h"

#include <algorithm>
#include <cstring>

namespace cable {
namespace {

// With more than this waiting for the client's callback, short messages are dropped: their sender
// is not held up.
constexpr size_t kMostPending = 1u << 20;

constexpr DWORD kDumpPiece = 4096; // bytes a dump composes at a time

BYTE dumpByte(DWORD offset, DWORD length, DWORD number)
{
    if (offset == 0)
        return 0xF0;
    if (offset == length - 1)
        return 0xF7;
    if (offset == 1)
        return 0x7D; // the manufacturer number for what is not for sale
    return static_cast<BYTE>((offset + offset / 128 + number) & 0x7F);
}

// Every number up to 262,143 gives another word.
DWORD floodWord(DWORD number)
{
    const DWORD channel = (number >> 14) & 0x0F;
    return 0x90 | channel | ((number >> 7) & 0x7F) << 8 | (number & 0x7F) << 16;
}

} // namespace

InputPort::InputPort(const PortDescription& description, unsigned position, const Client& client)
    : Port(Direction::Input, description, position, client)
{}

InputPort::~InputPort() = default;

DWORD InputPort::addBuffer(MIDIHDR* header, DWORD_PTR size)
{
    const Lock lock(mutex_);
    if (isClosing())
        return MMSYSERR_INVALHANDLE;
    const DWORD refusal = checkHeader(header, size);
    if (refusal != MMSYSERR_NOERROR)
        return refusal;
    header->dwBytesRecorded = 0;
    markQueued(header);
    buffers_.push_back(header);
    return MMSYSERR_NOERROR;
}

DWORD InputPort::startInput()
{
    const Lock lock(mutex_);
    if (started_)
        return MMSYSERR_NOERROR;
    started_ = true;
    startedAt_ = microseconds();
    generator_ = 0;
    round_ = 0;
    produced_ = 0;
    generatorSince_ = startedAt_;
    lastPlayed_ = startedAt_;
    floodCounter_ = 0;
    dumpCounter_ = 0;
    wakeThread();
    return MMSYSERR_NOERROR;
}

DWORD InputPort::stopInput()
{
    const Lock lock(mutex_);
    stop();
    return MMSYSERR_NOERROR;
}

DWORD InputPort::reset()
{
    Lock lock(mutex_);
    stop();
    for (MIDIHDR* header : buffers_)
        postHeader(MIM_LONGDATA, header, 0, timeStamp());
    buffers_.clear();
    finishReset(lock);
    return MMSYSERR_NOERROR;
}

void InputPort::shortMessage(DWORD word)
{
    const Lock lock(mutex_);
    if (!started_)
        return;
    if (posted() >= kMostPending)
        ++counters_.droppedShort;
    else
        post(MIM_DATA, word, timeStamp());
}

void InputPort::sysEx(SourceId source, SysExPiece piece, const Pause& pause)
{
    const LONGLONG hold = LONGLONG(description().hold) * 1000;
    LONGLONG lastTaken = microseconds();
    bool goOn = true;
    for (;;) {
        {
            const Lock lock(mutex_);
            if (!accepts(source, piece))
                return;
            const size_t taken = fill(piece);
            if (taken == piece.length)
                return;
            piece.bytes += taken;
            piece.length -= taken;
            piece.first = false;
            const LONGLONG now = microseconds();
            if (taken > 0)
                lastTaken = now;
            if (!goOn || now - lastTaken >= hold) {
                lose(piece);
                return;
            }
        }
        goOn = pause(1);
    }
}

void InputPort::sysExBroken(SourceId source)
{
    const Lock lock(mutex_);
    if (sysExSource_ == source)
        endSysEx(MIM_LONGERROR);
}

DWORD InputPort::work(Lock&)
{
    return play();
}

DWORD InputPort::queuedHeaders() const
{
    return static_cast<DWORD>(buffers_.size());
}

void InputPort::endWork()
{
    stop();
}

void InputPort::discardWork()
{
    buffers_.clear();
    filled_ = 0;
}

// Other processes reach the input from here on.
void InputPort::opened()
{
    listener_ = std::make_unique<Listener>(position());
    listener_->start(std::static_pointer_cast<InputPort>(shared_from_this()));
}

void InputPort::released()
{
    if (listener_)
        listener_->stop();
}

DWORD InputPort::timeStamp() const
{
    return startedAt_ ? static_cast<DWORD>((microseconds() - startedAt_) / 1000) : 0;
}

// Whether the piece belongs to the message that is arriving, or begins one. As on a wire, a new
// message puts an end to one that is unfinished.
bool InputPort::accepts(SourceId source, const SysExPiece& piece)
{
    if (!started_)
        return false;
    if (piece.first) {
        endSysEx(MIM_LONGERROR);
        sysExSource_ = source;
    } else if (sysExSource_ != source) {
        counters_.droppedBytes += piece.length;
        return false;
    }
    return true;
}

// Returns how many of the bytes found room.
size_t InputPort::fill(const SysExPiece& piece)
{
    const DWORD split = description().split;
    size_t taken = 0;
    while (taken < piece.length && !buffers_.empty()) {
        const MIDIHDR* header = buffers_.front();
        const DWORD room = split ? std::min(split, header->dwBufferLength) : header->dwBufferLength;
        const size_t length = std::min<size_t>(room - filled_, piece.length - taken);
        std::memcpy(header->lpData + filled_, piece.bytes + taken, length);
        filled_ += static_cast<DWORD>(length);
        taken += length;
        if (filled_ == room)
            giveBackFirst(MIM_LONGDATA);
    }
    if (taken == piece.length && piece.last)
        endSysEx(MIM_LONGDATA);
    return taken;
}

void InputPort::lose(const SysExPiece& piece)
{
    counters_.droppedBytes += piece.length;
    if (piece.last)
        endSysEx(MIM_LONGDATA);
}

// `message` is what the client hears if its buffer holds bytes of the message.
void InputPort::endSysEx(UINT message)
{
    if (filled_ > 0)
        giveBackFirst(message);
    sysExSource_ = 0;
}

void InputPort::giveBackFirst(UINT message)
{
    postHeader(message, buffers_.front(), filled_, timeStamp());
    buffers_.pop_front();
    filled_ = 0;
}

void InputPort::stop()
{
    if (!started_)
        return;
    endSysEx(MIM_LONGDATA);
    started_ = false;
    counters_.droppedShort += dropPosted(MIM_DATA);
}

DWORD InputPort::play()
{
    const std::vector<Generator>& generators = description().generators;
    const bool over = description().repeat != 0 && round_ == description().repeat;
    if (!started_ || generators.empty() || over)
        return INFINITE;
    const Generator& generator = generators[generator_];
    const LONGLONG now = microseconds();
    const LONGLONG due = generator.perSecond
                             ? generatorSince_ + LONGLONG(produced_) * 1000000 / generator.perSecond
                             : now;
    if (now < due)
        return static_cast<DWORD>((due - now + 999) / 1000);
    DWORD pause = 0;
    if (generator.kind == Generator::Kind::Flood) {
        post(MIM_DATA, floodWord(floodCounter_++), timeStamp());
        ++produced_;
    } else {
        pause = playDump(generator, now);
    }
    if (produced_ == generator.count)
        nextGenerator();
    return pause;
}

// Plays the next piece of the dump, or loses it. Returns a millisecond to wait if there was no
// buffer, or another's message has to end first: so that who brings a buffer, or closes the port,
// gets its lock.
DWORD InputPort::playDump(const Generator& dump, LONGLONG now)
{
    const SourceId self = id();
    const bool first = produced_ == 0;
    if (first && sysExSource_ != 0 && sysExSource_ != self)
        return 1;

    BYTE bytes[kDumpPiece];
    const DWORD most =
        dump.perSecond ? std::clamp<DWORD>(dump.perSecond / 100, 1, kDumpPiece) : kDumpPiece;
    const DWORD length = std::min(most, dump.count - produced_);
    for (DWORD i = 0; i < length; ++i)
        bytes[i] = dumpByte(produced_ + i, dump.count, dumpCounter_);

    SysExPiece piece{bytes, length, first, produced_ + length == dump.count};
    if (!accepts(self, piece)) { // another message has put an end to this one
        produced_ = dump.count;
        ++dumpCounter_;
        return 0;
    }
    const size_t taken = fill(piece);
    produced_ += static_cast<DWORD>(taken);
    if (taken > 0)
        lastPlayed_ = now;
    if (taken < length) {
        if (now - lastPlayed_ < LONGLONG(description().hold) * 1000)
            return 1;
        piece.length -= taken;
        lose(piece);
        produced_ += static_cast<DWORD>(piece.length);
    }
    if (produced_ == dump.count)
        ++dumpCounter_;
    return taken > 0 ? 0 : 1;
}

void InputPort::nextGenerator()
{
    produced_ = 0;
    generatorSince_ = microseconds();
    lastPlayed_ = generatorSince_;
    if (++generator_ == description().generators.size()) {
        generator_ = 0;
        if (description().repeat != 0)
            ++round_;
    }
}

} // namespace cable
