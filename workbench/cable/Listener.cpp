#include "workbench/cable/Listener.h"

#include "workbench/cable/Frame.h"
#include "workbench/cable/System.h"

#include <cstring>
#include <system_error>
#include <vector>

namespace cable {

namespace {

constexpr std::size_t kMostConnections = 16; // senders at once; a further one waits for its turn
constexpr DWORD kRetryMilliseconds = 10;

// One instance of the pipe: waits for a sender, then takes its frames.
class Connection
{
public:
    explicit Connection(const std::wstring& itsName, bool first)
        : pipe(CreateNamedPipeW(itsName.c_str(),
                                PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED |
                                    (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0),
                                PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
                                PIPE_UNLIMITED_INSTANCES, kLargestFrame, kLargestFrame, 0,
                                nullptr)),
          event(CreateEventW(nullptr, TRUE, FALSE, nullptr)), frame(kLargestFrame)
    {
        if (!pipe)
            return;
        io.hEvent = event.get();
        if (ConnectNamedPipe(pipe.get(), &io))
            return;
        switch (GetLastError()) {
        case ERROR_IO_PENDING:
            pending = true;
            break;
        case ERROR_PIPE_CONNECTED:
            SetEvent(event.get());
            break;
        default:
            pipe.reset();
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection()
    {
        if (!pending)
            return;
        // The system writes to `io` and `frame` until the operation has ended.
        CancelIoEx(pipe.get(), &io);
        DWORD ignored = 0;
        GetOverlappedResult(pipe.get(), &io, &ignored, TRUE);
    }

    bool isOpen() const { return static_cast<bool>(pipe); }
    bool isConnected() const { return connected; }
    HANDLE signal() const { return event.get(); }

    // Goes on after the event was signalled. False if the sender has gone.
    bool advance(device::InputPort& input)
    {
        DWORD length = 0;
        if (pending) {
            pending = false;
            if (!GetOverlappedResult(pipe.get(), &io, &length, FALSE))
                return false;
        }
        if (connected && (!deliver(input, length) || !answer()))
            return false;
        connected = true;
        return read();
    }

private:
    // A read that ends at once signals the event just like one that ends later.
    bool read()
    {
        ResetEvent(event.get());
        pending = ReadFile(pipe.get(), frame.data(), kLargestFrame, nullptr, &io) ||
                  GetLastError() == ERROR_IO_PENDING;
        return pending;
    }

    bool answer()
    {
        ResetEvent(event.get());
        DWORD written = 0;
        if (!WriteFile(pipe.get(), &kFrameTaken, 1, nullptr, &io) &&
            GetLastError() != ERROR_IO_PENDING)
            return false;
        return GetOverlappedResult(pipe.get(), &io, &written, TRUE) && written == 1;
    }

    // False if the frame is not one of ours.
    bool deliver(device::InputPort& input, std::size_t length)
    {
        const BYTE* at = frame.data();
        const BYTE* const end = at + length;
        while (at < end) {
            MIDIPiece piece;
            if (static_cast<std::size_t>(end - at) < sizeof piece)
                return false;
            std::memcpy(&piece, at, sizeof piece);
            at += sizeof piece;
            if (static_cast<std::size_t>(end - at) < piece.length)
                return false;
            piece.bytes = at;
            input.take(source, piece);
            at += piece.length;
        }
        return true;
    }

    Handle pipe;
    Handle event;
    OVERLAPPED io = {};
    bool pending = false;
    bool connected = false;
    const device::SourceId source = device::nextSourceId();
    std::vector<BYTE> frame;
};

} // namespace

struct Listener::State
{
    explicit State(unsigned position) : name(pipeName(position)) {}

    void run(device::InputPort& input);
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

void Listener::State::run(device::InputPort& input)
{
    for (;;) {
        const bool offered = offer();
        HANDLE handles[kMostConnections + 1] = {stopped.get()};
        DWORD count = 1;
        for (const auto& connection : connections)
            handles[count++] = connection->signal();
        const DWORD result =
            WaitForMultipleObjects(count, handles, FALSE, offered ? INFINITE : kRetryMilliseconds);
        if (result == WAIT_OBJECT_0 || result == WAIT_FAILED)
            break;
        if (result == WAIT_TIMEOUT)
            continue;
        const auto at = connections.begin() + (result - WAIT_OBJECT_0 - 1);
        if (!(*at)->advance(input))
            connections.erase(at);
    }
    connections.clear();
}

Listener::Listener(unsigned inputPosition) : state(std::make_shared<State>(inputPosition)) {}

Listener::~Listener() = default;

void Listener::start(std::shared_ptr<device::InputPort> input)
{
    // The first instance exists before the input's opening returns, so that a sender finds it from
    // then on.
    state->offer();
    try {
        thread = std::thread([state = state, input = std::move(input)] { state->run(*input); });
    } catch (const std::system_error&) { // only this process reaches the input
    }
}

void Listener::stop()
{
    if (!thread.joinable())
        return;
    SetEvent(state->stopped.get());
    thread.join();
}

} // namespace cable
