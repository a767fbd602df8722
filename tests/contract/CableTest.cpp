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
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

namespace {

using contract::Buffer;
using contract::Bytes;
using contract::Input;
using contract::Notice;
using contract::Output;
using contract::Recorder;
using contract::sysEx;
using contract::waitAWhile;

constexpr DWORD kNoteOn = 0x00644090;

// ---- Processes --------------------------------------------------------------------------------

constexpr wchar_t kRoleVariable[] = L"LUMORA_CABLE_TEST_ROLE";
constexpr DWORD kChildPatience = 60000; // milliseconds

std::wstring wide(const std::string& utf8)
{
    const int bytes = static_cast<int>(utf8.size());
    std::wstring result(utf8.size(), L'\0');
    result.resize(static_cast<std::size_t>(
        MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, result.data(), bytes)));
    return result;
}

std::wstring temporaryFile(const wchar_t* purpose)
{
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    return folder + std::wstring(L"lumora-cable-") + std::to_wstring(GetCurrentProcessId()) + L"-" +
           purpose;
}

std::string fileText(const std::wstring& path)
{
    std::string text;
    if (FILE* file = _wfopen(path.c_str(), L"rb")) {
        char piece[4096];
        for (std::size_t n; (n = fread(piece, 1, sizeof piece, file)) > 0;)
            text.append(piece, n);
        fclose(file);
    }
    return text;
}

void writeFile(const std::wstring& path, const std::string& text)
{
    FILE* file = _wfopen(path.c_str(), L"wb");
    ASSERT_NE(nullptr, file);
    fwrite(text.data(), 1, text.size(), file);
    fclose(file);
}

// The role of this process in its test; empty in the one that was started first.
std::wstring role()
{
    wchar_t text[32];
    const DWORD length = GetEnvironmentVariableW(kRoleVariable, text, 32);
    return {text, std::min<DWORD>(length, 31)};
}

// An environment variable for the processes that a test starts, and for no later test.
class Variable
{
public:
    Variable(const wchar_t* name, const wchar_t* value) : name_(name)
    {
        wchar_t text[4096];
        const DWORD length = GetEnvironmentVariableW(name, text, 4096);
        wasSet_ = length > 0 && length < 4096;
        if (wasSet_)
            before_.assign(text, length);
        SetEnvironmentVariableW(name, value);
    }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;
    ~Variable() { SetEnvironmentVariableW(name_, wasSet_ ? before_.c_str() : nullptr); }

private:
    const wchar_t* name_;
    std::wstring before_;
    bool wasSet_ = false;
};

// The test that is running, in a further process with the role given.
class Child
{
public:
    explicit Child(const wchar_t* itsRole) : output_(temporaryFile(itsRole))
    {
        const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
        wchar_t program[MAX_PATH];
        GetModuleFileNameW(nullptr, program, MAX_PATH);
        std::wstring command = L"\"" + std::wstring(program) + L"\" --gtest_filter=" +
                               wide(std::string(test->test_suite_name()) + "." + test->name());

        SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
        const HANDLE file =
            CreateFileW(output_.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        &inherited, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = file;
        startup.hStdError = file;
        PROCESS_INFORMATION process = {};
        const Variable itsRoleVariable(kRoleVariable, itsRole);
        if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                           &startup, &process)) {
            CloseHandle(process.hThread);
            process_ = process.hProcess;
        } else {
            ADD_FAILURE() << "It does not start: error " << GetLastError();
        }
        CloseHandle(file);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        finish();
        DeleteFileW(output_.c_str());
    }

    // Waits for the end; what it wrote is then in `output`.
    bool succeeded()
    {
        finish();
        output = fileText(output_);
        return exitCode_ == 0;
    }

    std::string output;

private:
    void finish()
    {
        if (!process_)
            return;
        if (WaitForSingleObject(process_, kChildPatience) != WAIT_OBJECT_0)
            TerminateProcess(process_, 99);
        WaitForSingleObject(process_, INFINITE);
        GetExitCodeProcess(process_, &exitCode_);
        CloseHandle(process_);
        process_ = nullptr;
    }

    std::wstring output_;
    HANDLE process_ = nullptr;
    DWORD exitCode_ = 98;
};

// What a test's process finds in its environment besides the ports. Null: not set.
struct Settings
{
    const wchar_t* descriptionFile = nullptr;
    const wchar_t* log = nullptr;
};

// In the first process: runs the test's body in another one, with these ports, and returns true.
// In that other process: returns false.
bool ranWithPorts(const char* description, const Settings& settings = {},
                  std::string* output = nullptr)
{
    if (!role().empty())
        return false;
    const std::wstring ownGroup = L"test-" + std::to_wstring(GetCurrentProcessId());
    const std::wstring ports = description ? wide(description) : std::wstring();
    const Variable variables[] = {
        {L"LUMORA_CABLE_GROUP", ownGroup.c_str()},
        {L"LUMORA_CABLE", description ? ports.c_str() : nullptr},
        {L"LUMORA_CABLE_FILE", settings.descriptionFile},
        {L"LUMORA_CABLE_LOG", settings.log},
    };
    Child child(L"body");
    EXPECT_TRUE(child.succeeded()) << child.output;
    if (output)
        *output = child.output;
    return true;
}

// The group of the processes of this test.
std::wstring group()
{
    wchar_t text[64];
    const DWORD length = GetEnvironmentVariableW(L"LUMORA_CABLE_GROUP", text, 64);
    return {text, std::min<DWORD>(length, 63)};
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

LumoraCableCounters counters(const Input& input)
{
    LumoraCableCounters result = {};
    result.size = sizeof result;
    EXPECT_EQ(MMSYSERR_NOERROR, midiInMessage(input.handle, LUMORA_CABLE_GET_COUNTERS,
                                              reinterpret_cast<DWORD_PTR>(&result), 0));
    return result;
}

LumoraCableCounters counters(const Output& output)
{
    LumoraCableCounters result = {};
    result.size = sizeof result;
    EXPECT_EQ(MMSYSERR_NOERROR, midiOutMessage(output.handle, LUMORA_CABLE_GET_COUNTERS,
                                               reinterpret_cast<DWORD_PTR>(&result), 0));
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

class Stopwatch
{
public:
    double milliseconds() const
    {
        return std::chrono::duration<double, std::milli>(Clock::now() - begin_).count();
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point begin_ = Clock::now();
};

// Lets a callback wait until the test opens it.
class Gate
{
public:
    void pass()
    {
        SetEvent(entered_);
        WaitForSingleObject(open_, 10000);
    }
    bool waitUntilEntered() { return WaitForSingleObject(entered_, 10000) == WAIT_OBJECT_0; }
    void open() { SetEvent(open_); }

private:
    HANDLE entered_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE open_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};

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
    if (ranWithPorts("out \"a\"\n in \"x\"\nout \"b\" # comment\n\n# out \"no\"\nout \"c\""))
        return;
    EXPECT_EQ(1u, midiInGetNumDevs());
    ASSERT_EQ(3u, midiOutGetNumDevs());
    EXPECT_EQ(L"a", outputName(0));
    EXPECT_EQ(L"b", outputName(1));
    EXPECT_EQ(L"c", outputName(2));
}

TEST(CableDescription, AnEmptyOneHasNoPorts)
{
    if (ranWithPorts("# none"))
        return;
    EXPECT_EQ(0u, midiInGetNumDevs());
    EXPECT_EQ(0u, midiOutGetNumDevs());
}

TEST(CableDescription, NamesMayHaveAnyCharacterAndAreCutAt31Units)
{
    // From a file: Wine converts the environment through the code page of the Unix side.
    const std::wstring path = temporaryFile(L"names");
    if (role().empty())
        writeFile(path, "\xEF\xBB\xBFin \"Gr\xC3\xB6\xC3\x9F"
                        "e \xE2\x99\xAA \xF0\x9D\x84\x9E\"\r\n"
                        "in \"two; three; \"\r\n"
                        "in \"\"\r\n"
                        "in \"1234567890123456789012345678901\"\r\n"
                        "in \"12345678901234567890123456789012\"\r\n"
                        "in \"a \\\"quoted\\\" \\\\ # name\"\r\n");
    if (ranWithPorts(nullptr, {path.c_str()})) {
        DeleteFileW(path.c_str());
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
    std::string output;
    if (ranWithPorts(nullptr, {L"C:\\no\\such\\file"}, &output)) {
        EXPECT_NE(std::string::npos, output.find("C:\\no\\such\\file")) << output;
        return;
    }
    EXPECT_EQ(0u, midiInGetNumDevs());
    EXPECT_EQ(0u, midiOutGetNumDevs());
}

TEST(CableDescription, ABadLineIsLeftOutAndReportedByItsNumber)
{
    std::string output;
    if (ranWithPorts("in \"good\"\n"
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
                     {}, &output)) {
        for (int line = 1; line <= 14; ++line) {
            const bool reported =
                output.find("line " + std::to_string(line) + " ") != std::string::npos;
            EXPECT_EQ(line != 1 && line != 14, reported) << "line " << line << "\n" << output;
        }
        return;
    }
    ASSERT_EQ(1u, midiInGetNumDevs());
    ASSERT_EQ(1u, midiOutGetNumDevs());
    EXPECT_EQ(L"good", inputName(0));
    EXPECT_EQ(L"good too", outputName(0));
}

TEST(CableDescription, ACapabilityQueryMayFailWhileTheOthersAnswer)
{
    if (ranWithPorts("in \"a\"\nin \"b\" caps=fail\nin \"c\"\nout \"d\" caps=fail"))
        return;
    ASSERT_EQ(3u, midiInGetNumDevs());
    MIDIINCAPSW inputCaps = {};
    EXPECT_NE(MMSYSERR_NOERROR, midiInGetDevCapsW(1, &inputCaps, sizeof inputCaps));
    EXPECT_EQ(L"a", inputName(0));
    EXPECT_EQ(L"c", inputName(2));
    MIDIOUTCAPSW outputCaps = {};
    EXPECT_NE(MMSYSERR_NOERROR, midiOutGetDevCapsW(0, &outputCaps, sizeof outputCaps));
    EXPECT_EQ(MMSYSERR_NOERROR, Input(1).result);
}

TEST(CableDescription, APortMayRefuseToOpen)
{
    if (ranWithPorts("in \"a\" open=fail\nin \"b\"\nout \"c\" open=fail"))
        return;
    EXPECT_EQ(MMSYSERR_ALLOCATED, Input(0).result);
    EXPECT_EQ(MMSYSERR_NOERROR, Input(1).result);
    EXPECT_EQ(MMSYSERR_ALLOCATED, Output(0).result);
}

TEST(CableDescription, FaultsHitTheCallThatTheyName)
{
    if (ranWithPorts("in \"a\" prepare=fail@2 addbuffer=fail@3\nin \"b\" start=fail\n"
                     "out \"c\" prepare=fail@3 long=fail@2"))
        return;
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
    if (ranWithPorts("in \"a\"\nout \"b\""))
        return;
    ASSERT_EQ(1u, midiInGetNumDevs());
    const std::size_t before = threadsOfThisProcess();
    EXPECT_EQ(L"a", inputName(0));
    EXPECT_EQ(L"b", outputName(0));
    EXPECT_EQ(before, threadsOfThisProcess());
    const std::wstring pipe = L"\\\\.\\pipe\\lumora-cable-" + group() + L"-in-1";
    EXPECT_FALSE(WaitNamedPipeW(pipe.c_str(), 1));
    const Input input;
    EXPECT_LT(before, threadsOfThisProcess());
    EXPECT_TRUE(WaitNamedPipeW(pipe.c_str(), 1));
}

// ---- The wire ---------------------------------------------------------------------------------

TEST(CableWire, OutputsFeedTheInputsThatTheyName)
{
    if (ranWithPorts(
            "in \"a\"\nin \"b\"\nout \"c\" to=2\nout \"d\"\nout \"e\" to=0\nout \"f\" to=1"))
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
    if (ranWithPorts("in \"a\" split=10 hold=5000\nout \"b\""))
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
    std::vector<std::size_t> lengths;
    for (const Notice& notice : input.recorder.notices(MIM_LONGDATA))
        lengths.push_back(notice.bytes.size());
    EXPECT_EQ((std::vector<std::size_t>{10, 10, 5}), lengths);
    EXPECT_EQ(0u, counters(input).droppedBytes);
}

TEST(CableWire, TheVolumeOfAnOutputIsNotSupported)
{
    if (ranWithPorts("out \"b\""))
        return;
    DWORD volume = 0;
    EXPECT_EQ(MMSYSERR_NOTSUPPORTED, midiOutGetVolume(nullptr, &volume)); // of device 0
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiOutGetVolume(nullptr, nullptr));
    Output output;
    EXPECT_EQ(MMSYSERR_NOTSUPPORTED, midiOutGetVolume(output.handle, &volume));
}

TEST(CableWire, LostLongDataIsCounted)
{
    if (ranWithPorts("in \"a\"\nout \"b\""))
        return;
    Input input;
    Output output;
    input.giveBuffers(2, 16);
    input.start();
    ASSERT_TRUE(output.sendLong(sysEx(100)));
    input.recorder.waitForLong(32);
    EXPECT_EQ(68u, counters(input).droppedBytes);
    EXPECT_EQ(32u, counters(input).deliveredBytes);
    EXPECT_EQ(0u, counters(input).queuedBuffers);
    EXPECT_EQ(100u, counters(output).deliveredBytes);
}

TEST(CableWire, ARefusedCloseLeavesThePortToTheNextClient)
{
    if (ranWithPorts("in \"a\"\nout \"b\""))
        return;
    Output output;
    for (int i = 0; i < 3; ++i) {
        Recorder recorder;
        HMIDIIN handle = nullptr;
        ASSERT_EQ(MMSYSERR_NOERROR, midiInOpen(&handle, 0, Recorder::inputCallback(),
                                               recorder.instance(), CALLBACK_FUNCTION));
        recorder.waitFor(MIM_OPEN, 1);
        {
            Buffer buffer(16);
            midiInPrepareHeader(handle, buffer.header(), sizeof(MIDIHDR));
            midiInAddBuffer(handle, buffer.header(), sizeof(MIDIHDR));
            midiInStart(handle);
            ASSERT_EQ(MIDIERR_STILLPLAYING, midiInClose(handle));
            // The next client comes while the old buffer still exists, and does not inherit it.
            Input next;
            ASSERT_EQ(MMSYSERR_NOERROR, next.result);
            next.start();
            EXPECT_TRUE(output.sendLong(sysEx(10)));
            EXPECT_EQ(10u, counters(next).droppedBytes);
        }
        EXPECT_EQ(1u, recorder.notices().size());
    }
}

// ---- Pacing -----------------------------------------------------------------------------------

TEST(CablePace, BytesTakeTheirTimeOnTheWire)
{
    if (ranWithPorts("in \"a\"\nout \"b\" pace=wire"))
        return;
    Input input;
    Output output;
    input.giveBuffers(8, 64);
    input.start();
    const Stopwatch stopwatch;
    ASSERT_TRUE(output.sendLong(sysEx(500))); // 160 ms
    const double taken = stopwatch.milliseconds();
    EXPECT_LE(159, taken);
    EXPECT_GE(400, taken);
    EXPECT_EQ(sysEx(500), input.recorder.waitForLong(500));
}

TEST(CablePace, CloseIsRefusedWhileAMessageIsUnderWay)
{
    if (ranWithPorts("out \"b\" pace=1000"))
        return;
    static Recorder recorder;
    static Buffer buffer(sysEx(2000));
    HMIDIOUT handle = nullptr;
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutOpen(&handle, 0, Recorder::outputCallback(),
                                            recorder.instance(), CALLBACK_FUNCTION));
    midiOutPrepareHeader(handle, buffer.header(), sizeof(MIDIHDR));
    ASSERT_EQ(MMSYSERR_NOERROR, midiOutLongMsg(handle, buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(MIDIERR_STILLPLAYING, midiOutClose(handle));
    EXPECT_EQ(MMSYSERR_NOERROR, Output().result);
}

// ---- Generators -------------------------------------------------------------------------------

TEST(CableGenerator, AFloodIsNumberedAndLosesNothing)
{
    if (ranWithPorts("in \"a\" flood=20000"))
        return;
    Input input;
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty());
    input.start();
    EXPECT_EQ(floodWords(0, 20000), input.recorder.waitForShort(20000));
    waitAWhile();
    EXPECT_EQ(20000u, input.recorder.notices(MIM_DATA).size());
    EXPECT_EQ(20000u, counters(input).deliveredShort);
}

TEST(CableGenerator, ADumpIsASysExMessageOfItsLength)
{
    if (ranWithPorts("in \"a\" dump=10000 repeat=2"))
        return;
    Input input;
    input.giveBuffers(8, 4096);
    input.start();
    Bytes expected = dumpBytes(10000, 0);
    const Bytes second = dumpBytes(10000, 1);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_TRUE(expected == input.recorder.waitForLong(20000));
    std::vector<std::size_t> lengths;
    for (const Notice& notice : input.recorder.notices(MIM_LONGDATA))
        lengths.push_back(notice.bytes.size());
    EXPECT_EQ((std::vector<std::size_t>{4096, 4096, 1808, 4096, 4096, 1808}), lengths);
}

TEST(CableGenerator, AnEndlessDumpThatFindsNoBuffersLetsThePortClose)
{
    if (ranWithPorts("in \"a\" dump=1000000 repeat=0"))
        return;
    for (int cycle = 0; cycle < 20; ++cycle) {
        Input input;
        ASSERT_EQ(MMSYSERR_NOERROR, input.result);
        input.start();
        Sleep(5);
    }
}

TEST(CableGenerator, OpeningAndClosingUnderAFullFlood)
{
    if (ranWithPorts("in \"a\" flood=100000 dump=3000 repeat=0 wait=reset\n"
                     "in \"b\" flood=100000 dump=3000 repeat=0 wait=close\n"
                     "in \"c\" flood=100000 dump=3000 repeat=0 wait=none"))
        return;
    const std::size_t threads = threadsOfThisProcess();
    double longest = 0;
    for (UINT device = 0; device < 3; ++device) {
        for (int cycle = 0; cycle < 40; ++cycle) {
            // Outlives the port: a driver that waits for nothing may call it late.
            static std::atomic<int> returned;
            returned = 0;
            HMIDIIN handle = nullptr;
            const auto callback = +[](HMIDIIN, UINT message, DWORD_PTR, DWORD_PTR, DWORD_PTR) {
                if (message == MIM_LONGDATA)
                    ++returned;
            };
            ASSERT_EQ(MMSYSERR_NOERROR,
                      midiInOpen(&handle, device, reinterpret_cast<DWORD_PTR>(callback), 0,
                                 CALLBACK_FUNCTION));
            std::vector<std::unique_ptr<Buffer>> buffers;
            for (int i = 0; i < 64; ++i) {
                buffers.push_back(std::make_unique<Buffer>(4096));
                MIDIHDR* header = buffers.back()->header();
                midiInPrepareHeader(handle, header, sizeof(MIDIHDR));
                ASSERT_EQ(MMSYSERR_NOERROR, midiInAddBuffer(handle, header, sizeof(MIDIHDR)));
            }
            ASSERT_EQ(MMSYSERR_NOERROR, midiInStart(handle));
            Sleep(static_cast<DWORD>(cycle % 5));
            const Stopwatch stopwatch;
            ASSERT_EQ(MMSYSERR_NOERROR, midiInReset(handle));
            for (const auto& buffer : buffers)
                ASSERT_EQ(MMSYSERR_NOERROR,
                          midiInUnprepareHeader(handle, buffer->header(), sizeof(MIDIHDR)));
            ASSERT_EQ(MMSYSERR_NOERROR, midiInClose(handle)) << "cycle " << cycle;
            longest = std::max(longest, stopwatch.milliseconds());
            EXPECT_EQ(64, returned) << "device " << device << " cycle " << cycle;
        }
    }
    EXPECT_GT(2000, longest);
    for (int i = 0; i < 100 && threadsOfThisProcess() > threads; ++i)
        Sleep(10);
    EXPECT_EQ(threads, threadsOfThisProcess());
}

// ---- Who waits for the callback in progress ---------------------------------------------------

// Resets and closes an input whose callback is held up; tells when each returned.
struct ClosingUnderACallback
{
    explicit ClosingUnderACallback(UINT device)
    {
        Input input(device, [this](const Notice& notice) {
            if (notice.message == MIM_DATA)
                gate.pass();
        });
        Output output(device);
        input.start();
        output.sendShort(kNoteOn);
        EXPECT_TRUE(gate.waitUntilEntered());
        std::thread closer([&] {
            midiInReset(input.handle);
            resetReturned = true;
            midiInClose(input.handle);
            closeReturned = true;
        });
        Sleep(200);
        resetWaited = !resetReturned;
        closeWaited = !closeReturned;
        gate.open();
        closer.join();
        input.handle = nullptr;
        // The recorder lives until the callback has left it.
        Sleep(200);
        closings = input.recorder.notices(MIM_CLOSE).size();
    }

    Gate gate;
    std::atomic<bool> resetReturned{false};
    std::atomic<bool> closeReturned{false};
    bool resetWaited = false;
    bool closeWaited = false;
    std::size_t closings = 0;
};

TEST(CableWait, IsWhereTheDescriptionSays)
{
    if (ranWithPorts("in \"a\"\nin \"b\" wait=close\nin \"c\" wait=none\n"
                     "out \"a\"\nout \"b\"\nout \"c\""))
        return;
    for (const UINT device : {0u, 1u, 2u}) {
        const ClosingUnderACallback closing(device);
        EXPECT_EQ(device == 0, closing.resetWaited) << device;
        EXPECT_EQ(device <= 1, closing.closeWaited) << device;
        EXPECT_EQ(1u, closing.closings) << device;
    }
}

// ---- Windows 11's driver ----------------------------------------------------------------------

BOOL control(int command, BOOL input)
{
    const auto function = reinterpret_cast<LumoraCableControlFunction>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"winelumora.drv"), "LumoraCableControl")));
    return function && function(command, input, 0);
}

TEST(CableWindows11, LosesADeviceAndGetsItBack)
{
    if (ranWithPorts("in \"a\" driver=windows11\nout \"b\" driver=windows11"))
        return;
    static Recorder recorder; // the driver keeps the header
    static Buffer buffer(16);
    HMIDIIN lost = nullptr;
    ASSERT_EQ(MMSYSERR_NOERROR, midiInOpen(&lost, 0, Recorder::inputCallback(), recorder.instance(),
                                           CALLBACK_FUNCTION));
    midiInPrepareHeader(lost, buffer.header(), sizeof(MIDIHDR));
    midiInAddBuffer(lost, buffer.header(), sizeof(MIDIHDR));
    midiInStart(lost);
    ASSERT_TRUE(control(LUMORA_CABLE_UNPLUG, TRUE));
    EXPECT_EQ(MMSYSERR_NODRIVER, midiInStop(lost));
    EXPECT_EQ(MMSYSERR_NODRIVER, midiInReset(lost));
    EXPECT_EQ(MMSYSERR_NODRIVER, midiInAddBuffer(lost, buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(MIDIERR_STILLPLAYING, midiInUnprepareHeader(lost, buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(MIDIERR_STILLPLAYING, midiInClose(lost));
    EXPECT_EQ(MMSYSERR_NODRIVER, Input().result);

    ASSERT_TRUE(control(LUMORA_CABLE_PLUG_IN, TRUE));
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
    EXPECT_EQ(1u, recorder.notices().size());
    ASSERT_TRUE(control(LUMORA_CABLE_UNLOAD, TRUE));
    EXPECT_EQ(1u, recorder.notices(MIM_CLOSE).size());
    EXPECT_NE(0u, buffer.flags() & MHDR_INQUEUE);
}

TEST(CableWindows11, MayLoseItsDeviceByTheClockAndCleanUp)
{
    if (ranWithPorts("in \"a\" driver=windows11 unplug=30 removal=cleanup"))
        return;
    Input input;
    input.giveBuffers(2, 16);
    const Stopwatch stopwatch;
    while (input.start() != MMSYSERR_NODRIVER && stopwatch.milliseconds() < 10000)
        Sleep(1);
    EXPECT_EQ(MMSYSERR_NODRIVER, input.start());
    EXPECT_EQ(MMSYSERR_NOERROR, input.reset());
    EXPECT_EQ(2u, input.recorder.notices(MIM_LONGDATA).size());
    EXPECT_EQ(MMSYSERR_NOERROR, midiInClose(input.handle));
    input.handle = nullptr;
}

TEST(CableWindows11, AnOutputThatIsNotTakenFromTimesOut)
{
    if (ranWithPorts("out \"b\" driver=windows11 timeout=20 shorts=wait failed=error"))
        return;
    Output output;
    ASSERT_TRUE(control(LUMORA_CABLE_STALL, FALSE));
    Buffer message(sysEx(8));
    output.prepare(message);
    EXPECT_EQ(MMSYSERR_ERROR, output.queue(message));
    EXPECT_EQ(1u, output.recorder.notices(MOM_DONE).size());
    EXPECT_EQ(MMSYSERR_ERROR, output.sendShort(kNoteOn));
    ASSERT_TRUE(control(LUMORA_CABLE_GO_ON, FALSE));
    EXPECT_EQ(MMSYSERR_NOERROR, output.sendShort(kNoteOn));
    EXPECT_EQ(MMSYSERR_NOERROR, output.unprepare(message));
}

// ---- The log ----------------------------------------------------------------------------------

// The lines of a log, without their times, which must be in milliseconds with three decimals.
std::vector<std::string> logLines(const std::wstring& path)
{
    const std::string log = fileText(path);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < log.size();) {
        const std::size_t end = log.find('\n', at);
        const std::string line = log.substr(at, end - at);
        const std::size_t space = line.find(' ');
        EXPECT_EQ(4u, space - line.find('.')) << line;
        EXPECT_LT(0, std::strtod(line.c_str(), nullptr)) << line;
        lines.push_back(space == std::string::npos ? line : line.substr(space + 1));
        at = end == std::string::npos ? log.size() : end + 1;
    }
    return lines;
}

TEST(CableLog, HasALineForEachEvent)
{
    const std::wstring path = temporaryFile(L"log");
    if (role().empty())
        DeleteFileW(path.c_str()); // of an earlier process with this number
    if (ranWithPorts("in \"a\"\nout \"b\"", {nullptr, path.c_str()})) {
        EXPECT_EQ((std::vector<std::string>{"in 1 open", "out 1 open", "out 1 short 644090",
                                            "out 1 long 20", "out 1 reset",
                                            "out 1 close dropped 0 bytes 0 short",
                                            "in 1 close dropped 20 bytes 0 short"}),
                  logLines(path));
        DeleteFileW(path.c_str());
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
    const std::wstring path = temporaryFile(L"log");
    if (role().empty())
        DeleteFileW(path.c_str());
    if (ranWithPorts("in \"a\" flood=12 log=held", {nullptr, path.c_str()})) {
        std::vector<double> held;
        const std::string begin = "in 1 held";
        for (const std::string& line : logLines(path)) {
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
        DeleteFileW(path.c_str());
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
    if (role() == L"first" || role() == L"second") {
        const HANDLE ready =
            OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, (L"lumora-ready-" + group()).c_str());
        const HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, (L"lumora-go-" + group()).c_str());
        Output output;
        ASSERT_TRUE(ReleaseSemaphore(ready, 1, nullptr));
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(go, 20000));
        for (std::size_t i = 0; i < count; ++i)
            output.sendShort(role() == L"first" ? 0x010090 : 0x020090);
        return;
    }
    const std::wstring path = temporaryFile(L"log");
    if (role().empty())
        DeleteFileW(path.c_str());
    if (ranWithPorts("out \"b\" to=0", {nullptr, path.c_str()})) {
        const std::vector<std::string> lines = logLines(path);
        for (const char* expected : {"out 1 short 010090", "out 1 short 020090"})
            EXPECT_EQ(count, static_cast<std::size_t>(
                                 std::count(lines.begin(), lines.end(), std::string(expected))));
        EXPECT_EQ(2 * (count + 3), lines.size()); // and open, reset, close of each
        DeleteFileW(path.c_str());
        return;
    }
    const HANDLE ready = CreateSemaphoreW(nullptr, 0, 2, (L"lumora-ready-" + group()).c_str());
    const HANDLE go = CreateEventW(nullptr, TRUE, FALSE, (L"lumora-go-" + group()).c_str());
    Child first(L"first");
    Child second(L"second");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(ready, 20000));
    SetEvent(go);
    EXPECT_TRUE(first.succeeded()) << first.output;
    EXPECT_TRUE(second.succeeded()) << second.output;
}

// ---- Between processes ------------------------------------------------------------------------

TEST(CableAcrossProcesses, ShortMessagesArriveInOrder)
{
    constexpr DWORD count = 3000;
    if (role() == L"sender") {
        Output output;
        for (const DWORD word : floodWords(0, count))
            ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(word));
        output.close();
        return;
    }
    if (ranWithPorts("in \"a\"\nout \"b\""))
        return;
    Input input;
    input.start();
    Child sender(L"sender");
    EXPECT_EQ(floodWords(0, count), input.recorder.waitForShort(count));
    EXPECT_TRUE(sender.succeeded()) << sender.output;
}

TEST(CableAcrossProcesses, BulkDataIsThereBeforeItIsDone)
{
    constexpr std::size_t length = 60000; // more than a frame
    constexpr int messages = 20;
    if (role() == L"sender") {
        Output output;
        for (int i = 0; i < messages; ++i)
            ASSERT_TRUE(output.sendLong(sysEx(length)));
        EXPECT_EQ(length * messages, counters(output).deliveredBytes);
        EXPECT_EQ(0u, counters(output).droppedBytes);
        return;
    }
    if (ranWithPorts("in \"a\"\nout \"b\""))
        return;
    Input input;
    input.giveBuffers((length / 4096 + 1) * messages, 4096);
    input.start();
    Child sender(L"sender");
    EXPECT_TRUE(sender.succeeded()) << sender.output;
    const Bytes all = input.recorder.waitForLong(length * messages);
    ASSERT_EQ(length * messages, all.size());
    const Bytes expected = sysEx(length);
    for (std::size_t i = 0; i < messages; ++i)
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(),
                               all.begin() + static_cast<std::ptrdiff_t>(i * length)))
            << "message " << i;
    EXPECT_EQ(0u, counters(input).droppedBytes);
}

TEST(CableAcrossProcesses, ASlowReceiverHoldsTheSenderUp)
{
    constexpr std::size_t length = 100000;
    if (role() == L"sender") {
        Output output;
        const Stopwatch stopwatch;
        Buffer* message = output.beginLong(sysEx(length));
        ASSERT_NE(nullptr, message);
        EXPECT_GT(100, stopwatch.milliseconds()); // the caller is not held up
        EXPECT_EQ(1u, output.recorder.waitFor(MOM_DONE, 1).size());
        return;
    }
    if (ranWithPorts("in \"a\" hold=10000\nout \"b\""))
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
    EXPECT_TRUE(sender.succeeded()) << sender.output;
    input.stop();
}

TEST(CableAcrossProcesses, WithoutAListenerMessagesAreDroppedAndCounted)
{
    if (ranWithPorts("in \"a\"\nout \"b\""))
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
    if (role() == L"receiver") {
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
    if (ranWithPorts("in \"a\"\nout \"b\""))
        return;
    Output output;
    Child receiver(L"receiver");
    // Until the receiver has heard enough: it tells by ending.
    std::atomic<bool> ended{false};
    std::thread waiter([&] {
        EXPECT_TRUE(receiver.succeeded()) << receiver.output;
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
    if (role() == L"sender") {
        Input input;
        Output output;
        input.start();
        output.sendShort(kNoteOn);
        EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));
        return;
    }
    if (ranWithPorts("in \"a\"\nout \"b\""))
        return;
    Input input;
    input.start();
    Child sender(L"sender");
    EXPECT_TRUE(sender.succeeded()) << sender.output;
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty());
}

TEST(CableAcrossProcesses, SeveralSendersReachOneInput)
{
    constexpr DWORD count = 200;
    const auto words = [](DWORD status) {
        std::vector<DWORD> result;
        for (DWORD i = 0; i < count; ++i)
            result.push_back(status | (i & 0x7F) << 8 | (i >> 7) << 16);
        return result;
    };
    if (role() == L"first" || role() == L"second") {
        Output output;
        for (const DWORD word : words(role() == L"first" ? 0x90 : 0x91)) {
            ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(word));
            ASSERT_TRUE(output.sendLong({0xFE}));
        }
        EXPECT_EQ(0u, counters(output).droppedShort);
        return;
    }
    if (ranWithPorts("in \"a\"\nout \"b\""))
        return;
    Input input;
    input.start();
    Child first(L"first");
    Child second(L"second");
    EXPECT_TRUE(first.succeeded()) << first.output;
    EXPECT_TRUE(second.succeeded()) << second.output;
    const std::vector<DWORD> all = input.recorder.waitForShort(4 * count);
    EXPECT_EQ(4u * count, all.size());
    for (const DWORD status : {0x90u, 0x91u}) {
        std::vector<DWORD> heard;
        std::copy_if(all.begin(), all.end(), std::back_inserter(heard),
                     [status](DWORD word) { return (word & 0xFF) == status; });
        EXPECT_EQ(words(status), heard);
    }
}

} // namespace
