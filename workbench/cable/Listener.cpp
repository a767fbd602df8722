#include "Listener.h"

#include "Frame.h"
#include "InputPort.h"

#include <cstring>
#include <vector>

namespace cable {
namespace {

constexpr size_t kMostConnections = 16; // senders at once; a further one waits for its turn
constexpr DWORD kRetryMilliseconds = 10;

// One instance of the pipe: waits for a sender, then takes its frames.
class Connection
{
public:
    explicit Connection(const std::wstring& name, bool first)
        : pipe_(CreateNamedPipeW(name.c_str(),
                                 PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED |
                                     (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0),
                                 PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                 PIPE_UNLIMITED_INSTANCES, kLargestFrame, kLargestFrame, 0,
                                 nullptr)),
          event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)), source_(nextPortId()),
          frame_(kLargestFrame)
    {
        if (!pipe_)
            return;
        io_.hEvent = event_.get();
        if (ConnectNamedPipe(pipe_.get(), &io_))
            return;
        switch (GetLastError()) {
        case ERROR_IO_PENDING:
            pending_ = true;
            break;
        case ERROR_PIPE_CONNECTED:
            SetEvent(event_.get());
            break;
        default:
            pipe_.reset();
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection()
    {
        if (!pending_)
            return;
        // The system writes to `io_` and `frame_` until the operation has ended.
        CancelIoEx(pipe_.get(), &io_);
        DWORD ignored = 0;
        GetOverlappedResult(pipe_.get(), &io_, &ignored, TRUE);
    }

    bool isOpen() const { return static_cast<bool>(pipe_); }
    bool isConnected() const { return connected_; }
    HANDLE event() const { return event_.get(); }

    // Goes on after the event was signalled. False if the sender has gone.
    bool advance(InputPort& input, const Pause& pause)
    {
        DWORD length = 0;
        if (pending_) {
            pending_ = false;
            if (!GetOverlappedResult(pipe_.get(), &io_, &length, FALSE))
                return false;
        }
        if (connected_ && (!deliver(input, length, pause) || !answer()))
            return false;
        connected_ = true;
        return read();
    }

private:
    // A read that ends at once signals the event just like one that ends later.
    bool read()
    {
        ResetEvent(event_.get());
        pending_ = ReadFile(pipe_.get(), frame_.data(), kLargestFrame, nullptr, &io_) ||
                   GetLastError() == ERROR_IO_PENDING;
        return pending_;
    }

    bool answer()
    {
        ResetEvent(event_.get());
        DWORD written = 0;
        if (!WriteFile(pipe_.get(), &kFrameTaken, 1, nullptr, &io_) &&
            GetLastError() != ERROR_IO_PENDING)
            return false;
        return GetOverlappedResult(pipe_.get(), &io_, &written, TRUE) && written == 1;
    }

    // False if the frame is not one of ours.
    bool deliver(InputPort& input, size_t length, const Pause& pause)
    {
        const BYTE* at = frame_.data();
        const BYTE* const end = at + length;
        while (at < end) {
            PieceHeader header;
            if (static_cast<size_t>(end - at) < sizeof header)
                return false;
            std::memcpy(&header, at, sizeof header);
            at += sizeof header;
            if (header.kind == PieceHeader::Short) {
                input.shortMessage(header.value);
            } else if (header.kind == PieceHeader::SysExBroken) {
                input.sysExBroken(source_);
            } else {
                if (header.value == 0 || header.value > static_cast<size_t>(end - at))
                    return false;
                input.sysEx(source_,
                            {at, header.value, (header.flags & PieceHeader::First) != 0,
                             (header.flags & PieceHeader::Last) != 0},
                            pause);
                at += header.value;
            }
        }
        return true;
    }

    Handle pipe_;
    Handle event_;
    OVERLAPPED io_ = {};
    bool pending_ = false;
    bool connected_ = false;
    const SourceId source_;
    std::vector<BYTE> frame_;
};

} // namespace

struct Listener::State
{
    explicit State(unsigned position) : name(pipeName(position)) {}

    void run(InputPort& input);
    // Sees to it that one instance waits for a sender, if there is room for one more.
    bool offer();

    const std::wstring name;
    const Handle stopped{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::vector<std::unique_ptr<Connection>> connections;
};

bool Listener::State::offer()
{
    if (connections.size() >= kMostConnections ||
        (!connections.empty() && !connections.back()->isConnected()))
        return true;
    auto connection = std::make_unique<Connection>(name, connections.empty());
    if (!connection->isOpen())
        return false;
    connections.push_back(std::move(connection));
    return true;
}

void Listener::State::run(InputPort& input)
{
    const Pause pause = [this](DWORD milliseconds) {
        return WaitForSingleObject(stopped.get(), milliseconds) == WAIT_TIMEOUT;
    };
    for (;;) {
        const bool offered = offer();
        HANDLE handles[kMostConnections + 1] = {stopped.get()};
        DWORD count = 1;
        for (const auto& connection : connections)
            handles[count++] = connection->event();
        const DWORD result =
            WaitForMultipleObjects(count, handles, FALSE, offered ? INFINITE : kRetryMilliseconds);
        if (result == WAIT_OBJECT_0 || result == WAIT_FAILED)
            break;
        if (result == WAIT_TIMEOUT)
            continue;
        const auto at = connections.begin() + (result - WAIT_OBJECT_0 - 1);
        if (!(*at)->advance(input, pause))
            connections.erase(at);
    }
    connections.clear();
}

Listener::Listener(unsigned inputPosition) : state_(std::make_shared<State>(inputPosition)) {}

Listener::~Listener() = default;

void Listener::start(std::shared_ptr<InputPort> input)
{
    // The first instance exists before the input's opening returns, so that a sender finds it from
    // then on.
    state_->offer();
    thread_ = startThread([state = state_, input = std::move(input)] { state->run(*input); });
}

void Listener::stop()
{
    if (!thread_)
        return;
    SetEvent(state_->stopped.get());
    join(thread_);
}

} // namespace cable
