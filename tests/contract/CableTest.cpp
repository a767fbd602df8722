// The virtual cable beyond the contract of WinMM: its description, its wiring, its generators, and
// what it does between processes.
//
// The cable reads its description once per process, so each test runs in a process of its own: the
// test starts this program anew for itself alone, and the new process runs the body.

#include "workbench/cable/Cable.h"
#include "MidiRecorder.h"

#include <gtest/gtest.h>

#include <tlhelp32.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>

namespace {

using contract::Buffer;
using contract::Bytes;
using contract::Input;
using contract::Notice;
using contract::Output;
using contract::sysEx;
using contract::waitAWhile;

constexpr DWORD kNoteOn = 0x00644090;

// ---- Processes --------------------------------------------------------------------------------

constexpr DWORD kChildPatience = 60000; // milliseconds

std::wstring environment(const wchar_t* name)
{
    wchar_t text[64];
    const DWORD length = GetEnvironmentVariableW(name, text, 64);
    return {text, std::min<DWORD>(length, 63)};
}

// The role of this process in its test; empty in the one that was started first.
const std::wstring kRole = environment(L"LUMORA_CABLE_TEST_ROLE");
// Of the processes that a test starts.
const std::wstring kGroup = environment(L"LUMORA_CABLE_GROUP");

std::wstring temporaryFile(const std::wstring& purpose)
{
    return (std::filesystem::temp_directory_path() /
            (L"lumora-cable-" + std::to_wstring(GetCurrentProcessId()) + L"-" + purpose))
        .wstring();
}

// The text of a file, which is then deleted.
std::string takeText(const std::filesystem::path& path)
{
    std::string text;
    std::getline(std::ifstream(path, std::ios::binary), text, '\0');
    std::filesystem::remove(path);
    return text;
}

// The test that is running, in a further process with the role given.
class Child
{
public:
    explicit Child(const wchar_t* role) : outputFile(temporaryFile(role))
    {
        const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
        wchar_t program[MAX_PATH];
        GetModuleFileNameW(nullptr, program, MAX_PATH);
        const std::string name = std::string(test->test_suite_name()) + "." + test->name();
        std::wstring command = L"\"" + std::wstring(program) + L"\" --gtest_filter=" +
                               std::wstring(name.begin(), name.end());
        SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
        const HANDLE file =
            CreateFileW(outputFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        &inherited, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = startup.hStdError = file;
        SetEnvironmentVariableW(L"LUMORA_CABLE_TEST_ROLE", role);
        EXPECT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                   nullptr, &startup, &process))
            << "error " << GetLastError();
        CloseHandle(file);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { finish(); }

    // Waits for the end, which must be a success. What it wrote is then in `output`.
    void finish()
    {
        if (!process.hProcess)
            return;
        if (WaitForSingleObject(process.hProcess, kChildPatience) != WAIT_OBJECT_0)
            TerminateProcess(process.hProcess, 99);
        WaitForSingleObject(process.hProcess, INFINITE);
        DWORD exitCode = 98;
        GetExitCodeProcess(process.hProcess, &exitCode);
        CloseHandle(process.hProcess);
        CloseHandle(process.hThread);
        process = {};
        output = takeText(outputFile);
        EXPECT_EQ(0u, exitCode) << output;
    }

    std::string output;

private:
    const std::wstring outputFile;
    PROCESS_INFORMATION process{};
};

// What a test's process left.
struct Trace
{
    std::string output;
    std::string log;
};

// In the first process: runs the test's body in another one, with these ports, and returns true.
// In that other process: returns false. The ports come from the file if there is one; null: from
// nowhere.
bool ranWithPorts(const wchar_t* ports, Trace* trace = nullptr, const wchar_t* file = nullptr)
{
    if (!kRole.empty())
        return false;
    const std::wstring log = temporaryFile(L"log");
    std::filesystem::remove(log); // of an earlier process with this number
    const std::wstring ownGroup = L"test-" + std::to_wstring(GetCurrentProcessId());
    SetEnvironmentVariableW(L"LUMORA_CABLE_GROUP", ownGroup.c_str());
    SetEnvironmentVariableW(L"LUMORA_CABLE", ports);
    SetEnvironmentVariableW(L"LUMORA_CABLE_FILE", file);
    SetEnvironmentVariableW(L"LUMORA_CABLE_LOG", trace ? log.c_str() : nullptr);
    Child child(L"body");
    child.finish();
    if (trace)
        *trace = {child.output, takeText(log)};
    return true;
}

// ---- What the cable tells ---------------------------------------------------------------------

std::wstring inputName(UINT device)
{
    MIDIINCAPSW caps = {};
    EXPECT_EQ(MMSYSERR_NOERROR, midiInGetDevCapsW(device, &caps, sizeof caps));
    return caps.szPname;
}

std::wstring outputName(UINT device)
{
    MIDIOUTCAPSW caps = {};
    EXPECT_EQ(MMSYSERR_NOERROR, midiOutGetDevCapsW(device, &caps, sizeof caps));
    return caps.szPname;
}

template <class Port>
LumoraCableCounters counters(const Port& port)
{
    LumoraCableCounters result = {};
    result.size = sizeof result;
    const auto address = reinterpret_cast<DWORD_PTR>(&result);
    if constexpr (std::is_same_v<Port, Input>)
        EXPECT_EQ(MMSYSERR_NOERROR,
                  midiInMessage(port.handle, LUMORA_CABLE_GET_COUNTERS, address, 0));
    else
        EXPECT_EQ(MMSYSERR_NOERROR,
                  midiOutMessage(port.handle, LUMORA_CABLE_GET_COUNTERS, address, 0));
    return result;
}

std::vector<std::size_t> lengths(const std::vector<Notice>& notices)
{
    std::vector<std::size_t> result;
    for (const Notice& notice : notices)
        result.push_back(notice.bytes.size());
    return result;
}

// Message number n of a flood, and dump number `number`, as the cable's README gives them.
DWORD floodWord(DWORD n)
{
    return 0x90 | ((n >> 14) & 0x0F) | ((n >> 7) & 0x7F) << 8 | (n & 0x7F) << 16;
}

std::vector<DWORD> floodWords(DWORD first, DWORD count)
{
    std::vector<DWORD> words;
    for (DWORD i = 0; i < count; ++i)
        words.push_back(floodWord(first + i));
    return words;
}

Bytes dumpBytes(std::size_t length, std::size_t number)
{
    Bytes bytes(length);
    for (std::size_t k = 0; k < length; ++k)
        bytes[k] = static_cast<unsigned char>((k + k / 128 + number) & 0x7F);
    bytes[0] = 0xF0;
    bytes[1] = 0x7D;
    bytes.back() = 0xF7;
    return bytes;
}

Bytes operator+(Bytes first, const Bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::size_t threadsOfThisProcess()
{
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    std::size_t count = 0;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
        count += entry.th32OwnerProcessID == GetCurrentProcessId() ? 1u : 0u;
    CloseHandle(snapshot);
    return count;
}

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// ---- The description --------------------------------------------------------------------------

TEST(CableDescription, WithoutOneThereIsAConnectedPair)
{
    if (ranWithPorts(nullptr))
        return;
    ASSERT_EQ(1u, midiInGetNumDevs());
    ASSERT_EQ(1u, midiOutGetNumDevs());
    EXPECT_EQ(L"Lumora Cable", inputName(0));
    EXPECT_EQ(L"Lumora Cable", outputName(0));

    Input input;
    Output output;
    input.start();
    output.sendShort(kNoteOn);
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));
}

TEST(CableDescription, CountsOfInputsAndOutputsMayDiffer)
{
    if (ranWithPorts(L"out \"a\"\n in \"x\"\nout \"b\" # comment\n\n# out \"no\"\nout \"c\""))
        return;
    EXPECT_EQ(1u, midiInGetNumDevs());
    ASSERT_EQ(3u, midiOutGetNumDevs());
    EXPECT_EQ(L"a", outputName(0));
    EXPECT_EQ(L"b", outputName(1));
    EXPECT_EQ(L"c", outputName(2));
}

TEST(CableDescription, AnEmptyOneHasNoPorts)
{
    if (ranWithPorts(L"# none"))
        return;
    EXPECT_EQ(0u, midiInGetNumDevs());
    EXPECT_EQ(0u, midiOutGetNumDevs());
}

TEST(CableDescription, NamesMayHaveAnyCharacterAndAreCutAt31Units)
{
    // From a file: Wine converts the environment through the code page of the Unix side.
    const std::wstring path = temporaryFile(L"names");
    if (kRole.empty())
        std::ofstream(std::filesystem::path(path), std::ios::binary)
            << "\xEF\xBB\xBFin \"Gr\xC3\xB6\xC3\x9F"
               "e \xE2\x99\xAA \xF0\x9D\x84\x9E\"\r\n"
               "in \"two; three; \"\r\n"
               "in \"\"\r\n"
               "in \"1234567890123456789012345678901\"\r\n"
               "in \"12345678901234567890123456789012\"\r\n"
               "in \"a \\\"quoted\\\" \\\\ # name\"\r\n";
    if (ranWithPorts(nullptr, nullptr, path.c_str())) {
        takeText(path);
        return;
    }
    ASSERT_EQ(6u, midiInGetNumDevs());
    EXPECT_EQ(L"Gr\u00F6\u00DFe \u266A \xD834\xDD1E", inputName(0));
    EXPECT_EQ(L"two; three; ", inputName(1));
    EXPECT_EQ(L"", inputName(2));
    EXPECT_EQ(L"1234567890123456789012345678901", inputName(3));
    EXPECT_EQ(L"1234567890123456789012345678901", inputName(4));
    EXPECT_EQ(L"a \"quoted\" \\ # name", inputName(5));
    EXPECT_EQ(0u, midiOutGetNumDevs());
}

TEST(CableDescription, AFileThatCannotBeReadGivesNoPortsAndASentence)
{
    Trace trace;
    if (ranWithPorts(nullptr, &trace, L"C:\\no\\such\\file")) {
        EXPECT_NE(std::string::npos, trace.output.find("C:\\no\\such\\file")) << trace.output;
        return;
    }
    EXPECT_EQ(0u, midiInGetNumDevs());
    EXPECT_EQ(0u, midiOutGetNumDevs());
}

TEST(CableDescription, ABadLineIsLeftOutAndReportedByItsNumber)
{
    Trace trace;
    if (ranWithPorts(L"in \"good\"\n"
                     "inn \"bad\"\n"
                     "in bad\n"
                     "in \"bad\n"
                     "in \"bad\" to=1\n"
                     "out \"bad\" flood=5\n"
                     "out \"bad\" pace=fast\n"
                     "out \"bad\" pace=0\n"
                     "in \"bad\" dump=2\n"
                     "in \"bad\" caps\n"
                     "in \"bad\" flood=1@\n"
                     "in \"bad\" addbuffer=fail@0\n"
                     "in \"bad\" wait=never\n"
                     "out \"good too\"\n",
                     &trace)) {
        for (int line = 1; line <= 14; ++line) {
            const bool reported =
                trace.output.find("line " + std::to_string(line) + " ") != std::string::npos;
            EXPECT_EQ(line != 1 && line != 14, reported) << "line " << line << "\n" << trace.output;
        }
        return;
    }
    ASSERT_EQ(1u, midiInGetNumDevs());
    ASSERT_EQ(1u, midiOutGetNumDevs());
    EXPECT_EQ(L"good", inputName(0));
    EXPECT_EQ(L"good too", outputName(0));
}

TEST(CableDescription, FaultsHitTheCallThatTheyName)
{
    if (ranWithPorts(
            L"in \"a\" prepare=fail@2 addbuffer=fail@3\nin \"b\" start=fail\n"
            "in \"c\" caps=fail\nin \"d\" open=fail\n"
            "out \"e\" prepare=fail@3 long=fail@2\nout \"f\" caps=fail\nout \"g\" open=fail"))
        return;
    MIDIINCAPSW inputCaps = {};
    MIDIOUTCAPSW outputCaps = {};
    ASSERT_EQ(4u, midiInGetNumDevs());
    EXPECT_EQ(MMSYSERR_NODRIVER, midiInGetDevCapsW(2, &inputCaps, sizeof inputCaps));
    EXPECT_EQ(MMSYSERR_NODRIVER, midiOutGetDevCapsW(1, &outputCaps, sizeof outputCaps));
    EXPECT_EQ(L"d", inputName(3));
    EXPECT_EQ(MMSYSERR_NOERROR, Input(2).result);
    EXPECT_EQ(MMSYSERR_ALLOCATED, Input(3).result);
    EXPECT_EQ(MMSYSERR_ALLOCATED, Output(2).result);

    Input input(0);
    Buffer buffers[] = {Buffer(8), Buffer(8), Buffer(8), Buffer(8)};
    EXPECT_EQ(MMSYSERR_NOERROR, input.prepare(buffers[0]));
    EXPECT_EQ(MMSYSERR_NOMEM, input.prepare(buffers[1]));
    for (Buffer& buffer : buffers)
        EXPECT_EQ(MMSYSERR_NOERROR, input.prepare(buffer));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(i == 2 ? MMSYSERR_NOMEM : MMSYSERR_NOERROR, input.queue(buffers[i])) << i;
    EXPECT_EQ(MHDR_PREPARED, static_cast<int>(buffers[2].flags()));
    EXPECT_EQ(MMSYSERR_NOMEM, Input(1).start());
    input.reset();

    Output output;
    EXPECT_TRUE(output.sendLong(sysEx(8)));
    EXPECT_EQ(nullptr, output.beginLong(sysEx(8)));
    EXPECT_EQ(nullptr, output.beginLong(sysEx(8)));
    EXPECT_TRUE(output.sendLong(sysEx(8)));
}

TEST(CableDescription, ListingThePortsStartsNothing)
{
    if (ranWithPorts(L"in \"a\"\nout \"b\""))
        return;
    ASSERT_EQ(1u, midiInGetNumDevs());
    const std::size_t before = threadsOfThisProcess();
    EXPECT_EQ(L"a", inputName(0));
    EXPECT_EQ(L"b", outputName(0));
    EXPECT_EQ(before, threadsOfThisProcess());
    const std::wstring pipe = L"\\\\.\\pipe\\lumora-cable-" + kGroup + L"-in-1";
    EXPECT_FALSE(WaitNamedPipeW(pipe.c_str(), 1));
    const Input input;
    EXPECT_LT(before, threadsOfThisProcess());
    EXPECT_TRUE(WaitNamedPipeW(pipe.c_str(), 1));
}

// ---- The wire ---------------------------------------------------------------------------------

TEST(CableWire, OutputsFeedTheInputsThatTheyName)
{
    if (ranWithPorts(
            L"in \"a\"\nin \"b\"\nout \"c\" to=2\nout \"d\"\nout \"e\" to=0\nout \"f\" to=1"))
        return;
    Input a(0);
    Input b(1);
    a.start();
    b.start();
    Output toB(0);
    Output alsoToB(1);
    Output toNobody(2);
    Output toA(3);
    toB.sendShort(0x010090);
    b.recorder.waitForShort(1);
    alsoToB.sendShort(0x020090);
    toNobody.sendShort(0x030090);
    toNobody.sendLong(sysEx(10));
    toA.sendShort(0x040090);
    EXPECT_EQ((std::vector<DWORD>{0x010090, 0x020090}), b.recorder.waitForShort(2));
    EXPECT_EQ((std::vector<DWORD>{0x040090}), a.recorder.waitForShort(1));
    EXPECT_EQ(1u, counters(toNobody).droppedShort);
    EXPECT_EQ(10u, counters(toNobody).droppedBytes);
    EXPECT_EQ(1u, counters(toB).deliveredShort);
}

TEST(CableWire, SplitAndHoldAreOptionsOfAnInput)
{
    if (ranWithPorts(L"in \"a\" split=10 hold=5000\nout \"b\""))
        return;
    Input input;
    Output output;
    input.giveBuffers(1, 64);
    input.start();
    const Buffer* const message = output.beginLong(sysEx(25));
    waitAWhile();
    EXPECT_NE(0u, message->flags() & MHDR_INQUEUE);
    input.giveBuffers(2, 64);
    EXPECT_EQ(sysEx(25), input.recorder.waitForLong(25));
    EXPECT_EQ((std::vector<std::size_t>{10, 10, 5}), lengths(input.recorder.notices(MIM_LONGDATA)));
    EXPECT_EQ(0u, counters(input).droppedBytes);
}

TEST(CableWire, TheVolumeOfAnOutputIsNotSupported)
{
    if (ranWithPorts(L"out \"b\""))
        return;
    DWORD volume = 0;
    EXPECT_EQ(MMSYSERR_NOTSUPPORTED, midiOutGetVolume(nullptr, &volume)); // of device 0
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiOutGetVolume(nullptr, nullptr));
    Output output;
    EXPECT_EQ(MMSYSERR_NOTSUPPORTED, midiOutGetVolume(output.handle, &volume));
}

TEST(CableWire, ARefusedCloseLeavesThePortToTheNextClient)
{
    if (ranWithPorts(L"in \"a\"\nout \"b\""))
        return;
    Output output;
    for (int i = 0; i < 3; ++i) {
        Input refused;
        refused.giveBuffers(1, 16);
        refused.start();
        refused.recorder.waitFor(MIM_OPEN, 1);
        ASSERT_EQ(MIDIERR_STILLPLAYING, midiInClose(refused.handle));
        refused.handle = nullptr;
        // The next client comes while the old buffer still exists, and does not inherit it.
        Input next;
        ASSERT_EQ(MMSYSERR_NOERROR, next.result);
        next.start();
        EXPECT_TRUE(output.sendLong(sysEx(10)));
        EXPECT_EQ(10u, counters(next).droppedBytes);
        next.close();
        EXPECT_EQ(1u, refused.recorder.notices().size()); // the opening
    }
}

// ---- Pacing -----------------------------------------------------------------------------------

TEST(CablePace, BytesTakeTheirTimeOnTheWire)
{
    if (ranWithPorts(L"in \"a\"\nout \"b\" pace=wire"))
        return;
    Input input;
    Output output;
    input.giveBuffers(8, 64);
    input.start();
    const auto start = Clock::now();
    ASSERT_TRUE(output.sendLong(sysEx(500))); // 160 ms
    const double taken = millisecondsSince(start);
    EXPECT_LE(159, taken);
    EXPECT_GE(400, taken);
    EXPECT_EQ(sysEx(500), input.recorder.waitForLong(500));
}

// ---- Generators -------------------------------------------------------------------------------

TEST(CableGenerator, SendsNumberedMessagesAndLosesNone)
{
    if (ranWithPorts(L"in \"a\" flood=20000 dump=10000 repeat=2"))
        return;
    Input input;
    input.giveBuffers(8, 4096);
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty());
    input.start();
    EXPECT_EQ(floodWords(0, 40000), input.recorder.waitForShort(40000));
    EXPECT_TRUE(dumpBytes(10000, 0) + dumpBytes(10000, 1) == input.recorder.waitForLong(20000));
    EXPECT_EQ((std::vector<std::size_t>{4096, 4096, 1808, 4096, 4096, 1808}),
              lengths(input.recorder.notices(MIM_LONGDATA)));
    EXPECT_EQ(40000u, counters(input).deliveredShort);
}

// ---- Who waits for the callback in progress ---------------------------------------------------

TEST(CableWait, IsWhereTheDescriptionSays)
{
    if (ranWithPorts(L"in \"a\"\nin \"b\" wait=close\nin \"c\" wait=none\n"
                     "out \"a\"\nout \"b\"\nout \"c\""))
        return;
    for (const UINT device : {0u, 1u, 2u}) {
        std::promise<void> entered;
        std::promise<void> release;
        Input input(device, [&](const Notice& notice) {
            if (notice.message == MIM_DATA) {
                entered.set_value();
                release.get_future().wait();
            }
        });
        Output output(device);
        input.start();
        output.sendShort(kNoteOn);
        entered.get_future().wait();
        std::atomic<bool> resetReturned{false};
        std::atomic<bool> closeReturned{false};
        std::thread closer([&] {
            midiInReset(input.handle);
            resetReturned = true;
            midiInClose(input.handle);
            closeReturned = true;
        });
        Sleep(200);
        EXPECT_EQ(device != 0, resetReturned) << device;
        EXPECT_EQ(device == 2, closeReturned) << device;
        release.set_value();
        closer.join();
        input.handle = nullptr;
        Sleep(200); // until the callback has left the recorder
        EXPECT_EQ(1u, input.recorder.notices(MIM_CLOSE).size()) << device;
    }
}

// ---- Windows 11's driver ----------------------------------------------------------------------

BOOL control(int command, bool input)
{
    return controlCable(command, input, 0);
}

TEST(CableWindows11, LosesADeviceAndGetsItBack)
{
    if (ranWithPorts(L"in \"a\" driver=windows11\nout \"b\" driver=windows11"))
        return;
    Input lost;
    Buffer& kept = *lost.giveBuffers(1, 16).front();
    lost.start();
    ASSERT_TRUE(control(LUMORA_CABLE_UNPLUG, true));
    EXPECT_EQ(MMSYSERR_NODRIVER, lost.stop());
    EXPECT_EQ(MMSYSERR_NODRIVER, lost.reset());
    EXPECT_EQ(MMSYSERR_NODRIVER, lost.queue(kept));
    EXPECT_EQ(MIDIERR_STILLPLAYING, lost.unprepare(kept));
    EXPECT_EQ(MIDIERR_STILLPLAYING, midiInClose(lost.handle));
    lost.handle = nullptr;
    EXPECT_EQ(MMSYSERR_NODRIVER, Input().result);

    ASSERT_TRUE(control(LUMORA_CABLE_PLUG_IN, true));
    Output output;
    {
        Input first;
        Input second;
        first.start();
        second.start();
        output.sendShort(kNoteOn);
        EXPECT_EQ(std::vector<DWORD>{kNoteOn}, first.recorder.waitForShort(1));
        EXPECT_EQ(std::vector<DWORD>{kNoteOn}, second.recorder.waitForShort(1));
    }
    EXPECT_EQ(1u, lost.recorder.notices().size());
    ASSERT_TRUE(control(LUMORA_CABLE_UNLOAD, true));
    EXPECT_EQ(1u, lost.recorder.notices(MIM_CLOSE).size());
    EXPECT_NE(0u, kept.flags() & MHDR_INQUEUE);
}

TEST(CableWindows11, MayLoseItsDeviceByTheClockAndCleanUp)
{
    if (ranWithPorts(L"in \"a\" driver=windows11 unplug=30 removal=cleanup"))
        return;
    Input input;
    input.giveBuffers(2, 16);
    const auto start = Clock::now();
    while (input.start() != MMSYSERR_NODRIVER && millisecondsSince(start) < 10000)
        Sleep(1);
    EXPECT_EQ(MMSYSERR_NODRIVER, input.start());
    EXPECT_EQ(MMSYSERR_NOERROR, input.reset());
    EXPECT_EQ(2u, input.recorder.notices(MIM_LONGDATA).size());
    EXPECT_EQ(MMSYSERR_NOERROR, midiInClose(input.handle));
    input.handle = nullptr;
}

TEST(CableWindows11, AnOutputThatIsNotTakenFromTimesOut)
{
    if (ranWithPorts(L"out \"b\" driver=windows11 timeout=20 shorts=wait failed=error"))
        return;
    Output output;
    ASSERT_TRUE(control(LUMORA_CABLE_STALL, false));
    Buffer message(sysEx(8));
    output.prepare(message);
    EXPECT_EQ(MMSYSERR_ERROR, output.queue(message));
    EXPECT_EQ(1u, output.recorder.notices(MOM_DONE).size());
    EXPECT_EQ(MMSYSERR_ERROR, output.sendShort(kNoteOn));
    ASSERT_TRUE(control(LUMORA_CABLE_GO_ON, false));
    EXPECT_EQ(MMSYSERR_NOERROR, output.sendShort(kNoteOn));
    EXPECT_EQ(MMSYSERR_NOERROR, output.unprepare(message));
}

// ---- The log ----------------------------------------------------------------------------------

// The lines of a log, without their times, which must be in milliseconds with three decimals.
std::vector<std::string> logLines(const Trace& trace)
{
    std::istringstream log(trace.log);
    std::vector<std::string> lines;
    for (std::string line; std::getline(log, line);) {
        const std::size_t space = line.find(' ');
        EXPECT_EQ(4u, space - line.find('.')) << line;
        EXPECT_LT(0, std::strtod(line.c_str(), nullptr)) << line;
        lines.push_back(space == std::string::npos ? line : line.substr(space + 1));
    }
    return lines;
}

TEST(CableLog, HasALineForEachEvent)
{
    Trace trace;
    if (ranWithPorts(L"in \"a\"\nout \"b\"", &trace)) {
        EXPECT_EQ((std::vector<std::string>{"in 1 open", "out 1 open", "out 1 short 644090",
                                            "out 1 long 20", "out 1 reset",
                                            "out 1 close dropped 0 bytes 0 short",
                                            "in 1 close dropped 20 bytes 0 short"}),
                  logLines(trace));
        return;
    }
    Input input;
    Output output;
    input.start();
    output.sendShort(kNoteOn);
    input.recorder.waitForShort(1); // the closing would drop it
    output.sendLong(sysEx(20));
    output.close();
    input.close();
}

TEST(CableLog, TellsHowLongEachShortMessageHeldTheThread)
{
    Trace trace;
    if (ranWithPorts(L"in \"a\" flood=12 log=held", &trace)) {
        std::vector<double> held;
        const std::string begin = "in 1 held";
        for (const std::string& line : logLines(trace)) {
            if (line.compare(0, begin.size(), begin) != 0)
                continue;
            std::istringstream numbers(line.substr(begin.size()));
            for (double microseconds = 0; numbers >> microseconds;)
                held.push_back(microseconds);
        }
        ASSERT_EQ(12u, held.size());
        EXPECT_LE(50000, held[7]);
        // The others were quick, save where another program had the processor.
        std::sort(held.begin(), held.end());
        EXPECT_GT(50000, held[6]);
        return;
    }
    int count = 0;
    Input input(0, [&](const Notice& notice) {
        if (notice.message == MIM_DATA && ++count == 8)
            Sleep(51);
    });
    input.start();
    input.recorder.waitForShort(12);
    input.close();
}

TEST(CableLog, SeveralProcessesAppendToItWithoutLosingALine)
{
    constexpr std::size_t count = 4000;
    // Both write at the same time, or the test would show nothing.
    if (kRole == L"first" || kRole == L"second") {
        const HANDLE ready =
            OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, (L"lumora-ready-" + kGroup).c_str());
        const HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, (L"lumora-go-" + kGroup).c_str());
        Output output;
        ASSERT_TRUE(ReleaseSemaphore(ready, 1, nullptr));
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(go, 20000));
        for (std::size_t i = 0; i < count; ++i)
            output.sendShort(kRole == L"first" ? 0x010090 : 0x020090);
        return;
    }
    Trace trace;
    if (ranWithPorts(L"out \"b\" to=0", &trace)) {
        const std::vector<std::string> lines = logLines(trace);
        for (const char* expected : {"out 1 short 010090", "out 1 short 020090"})
            EXPECT_EQ(count, static_cast<std::size_t>(
                                 std::count(lines.begin(), lines.end(), std::string(expected))));
        EXPECT_EQ(2 * (count + 3), lines.size()); // and open, reset, close of each
        return;
    }
    const HANDLE ready = CreateSemaphoreW(nullptr, 0, 2, (L"lumora-ready-" + kGroup).c_str());
    const HANDLE go = CreateEventW(nullptr, TRUE, FALSE, (L"lumora-go-" + kGroup).c_str());
    Child first(L"first");
    Child second(L"second");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(ready, 20000));
    SetEvent(go);
    first.finish();
    second.finish();
}

// ---- Between processes ------------------------------------------------------------------------

TEST(CableAcrossProcesses, ShortMessagesArriveInOrder)
{
    constexpr DWORD count = 3000;
    if (kRole == L"sender") {
        Output output;
        for (const DWORD word : floodWords(0, count))
            ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(word));
        output.close();
        return;
    }
    if (ranWithPorts(L"in \"a\"\nout \"b\""))
        return;
    Input input;
    input.start();
    Child sender(L"sender");
    EXPECT_EQ(floodWords(0, count), input.recorder.waitForShort(count));
    sender.finish();
}

TEST(CableAcrossProcesses, BulkDataIsThereBeforeItIsDone)
{
    constexpr std::size_t length = 60000; // more than a frame
    constexpr int messages = 20;
    if (kRole == L"sender") {
        Output output;
        for (int i = 0; i < messages; ++i)
            ASSERT_TRUE(output.sendLong(sysEx(length)));
        EXPECT_EQ(length * messages, counters(output).deliveredBytes);
        EXPECT_EQ(0u, counters(output).droppedBytes);
        return;
    }
    if (ranWithPorts(L"in \"a\"\nout \"b\""))
        return;
    Input input;
    input.giveBuffers((length / 4096 + 1) * messages, 4096);
    input.start();
    Child sender(L"sender");
    sender.finish();
    Bytes expected;
    for (int i = 0; i < messages; ++i)
        expected = expected + sysEx(length);
    EXPECT_TRUE(expected == input.recorder.waitForLong(length * messages));
    EXPECT_EQ(0u, counters(input).droppedBytes);
}

TEST(CableAcrossProcesses, ASlowReceiverHoldsTheSenderUp)
{
    constexpr std::size_t length = 100000;
    if (kRole == L"sender") {
        Output output;
        const auto start = Clock::now();
        Buffer* message = output.beginLong(sysEx(length));
        ASSERT_NE(nullptr, message);
        EXPECT_GT(100, millisecondsSince(start)); // the caller is not held up
        EXPECT_EQ(1u, output.recorder.waitFor(MOM_DONE, 1).size());
        return;
    }
    if (ranWithPorts(L"in \"a\" hold=10000\nout \"b\""))
        return;
    HMIDIIN handle = nullptr;
    Input input(0, [&handle](const Notice& notice) {
        if (notice.message != MIM_LONGDATA || notice.bytes.empty())
            return;
        Sleep(1);
        midiInAddBuffer(handle, notice.header, sizeof(MIDIHDR));
    });
    handle = input.handle;
    input.giveBuffers(4, 1024);
    input.start();
    Child sender(L"sender");
    EXPECT_TRUE(sysEx(length) == input.recorder.waitForLong(length));
    EXPECT_EQ(0u, counters(input).droppedBytes);
    sender.finish();
    input.stop();
}

TEST(CableAcrossProcesses, WithoutAListenerMessagesAreDroppedAndCounted)
{
    if (ranWithPorts(L"in \"a\"\nout \"b\""))
        return;
    Output output;
    output.sendShort(kNoteOn);
    ASSERT_TRUE(output.sendLong(sysEx(100)));
    EXPECT_EQ(1u, counters(output).droppedShort);
    EXPECT_EQ(100u, counters(output).droppedBytes);
    EXPECT_EQ(0u, counters(output).deliveredBytes);
}

TEST(CableAcrossProcesses, TheSenderFindsAnInputThatHasBeenOpenedAnew)
{
    if (kRole == L"receiver") {
        DWORD last = 0;
        for (int i = 0; i < 3; ++i) {
            Input input;
            input.start();
            ASSERT_LE(20u, input.recorder.waitForShort(20).size());
            input.close();
            // None is missing while the input is open, and none comes a second time afterwards.
            const std::vector<Notice> heard = input.recorder.notices(MIM_DATA);
            for (std::size_t n = 0; n < heard.size(); ++n) {
                const DWORD word = heard[n].parameter1;
                const DWORD number =
                    (word & 0x0F) << 14 | ((word >> 8) & 0x7F) << 7 | ((word >> 16) & 0x7F);
                if (n == 0)
                    ASSERT_LT(last, number) << "opening " << i;
                else
                    ASSERT_EQ(last + 1, number) << "opening " << i;
                last = number;
            }
        }
        return;
    }
    if (ranWithPorts(L"in \"a\"\nout \"b\""))
        return;
    Output output;
    Child receiver(L"receiver");
    // Until the receiver has heard enough: it tells by ending.
    std::atomic<bool> ended{false};
    std::thread waiter([&] {
        receiver.finish();
        ended = true;
    });
    for (DWORD number = 1; !ended; ++number) {
        output.sendShort(floodWord(number));
        if (number % 4 == 0)
            Sleep(1);
    }
    waiter.join();
    EXPECT_LE(60u, counters(output).deliveredShort);
}

TEST(CableAcrossProcesses, AnInputOpenInTheSameProcessIsPreferred)
{
    if (kRole == L"sender") {
        Input input;
        Output output;
        input.start();
        output.sendShort(kNoteOn);
        EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));
        return;
    }
    if (ranWithPorts(L"in \"a\"\nout \"b\""))
        return;
    Input input;
    input.start();
    Child sender(L"sender");
    sender.finish();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty());
}

TEST(CableAcrossProcesses, SeveralSendersReachOneInput)
{
    constexpr DWORD count = 200;
    constexpr DWORD otherStatus = 1 << 14; // words from there on begin with 91
    if (kRole == L"first" || kRole == L"second") {
        Output output;
        for (const DWORD word : floodWords(kRole == L"first" ? 0 : otherStatus, count)) {
            ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(word));
            ASSERT_TRUE(output.sendLong({0xFE}));
        }
        EXPECT_EQ(0u, counters(output).droppedShort);
        return;
    }
    if (ranWithPorts(L"in \"a\"\nout \"b\""))
        return;
    Input input;
    input.start();
    Child first(L"first");
    Child second(L"second");
    first.finish();
    second.finish();
    const std::vector<DWORD> all = input.recorder.waitForShort(4 * count);
    EXPECT_EQ(4u * count, all.size());
    for (const DWORD number : {DWORD(0), otherStatus}) {
        std::vector<DWORD> heard;
        std::copy_if(all.begin(), all.end(), std::back_inserter(heard),
                     [&](DWORD word) { return (word & 0xFF) == (floodWord(number) & 0xFF); });
        EXPECT_EQ(floodWords(number, count), heard);
    }
}

} // namespace
