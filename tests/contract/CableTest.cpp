// The virtual cable beyond the contract of WinMM: its description, its wiring, its generators, its
// log, and what it does between processes.
//
// The cable reads its description once per process, so each test runs in a process of its own: the
// test starts this program anew for itself alone, and the new process runs the body.

#include "workbench/cable/Cable.h"
#include "MidiRecorder.h"

#include <gtest/gtest.h>

#include <process.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <string>

namespace {

using contract::Bytes;
using contract::Input;
using contract::Notice;
using contract::Output;
using contract::sysEx;
using contract::waitAWhile;

constexpr DWORD kNoteOn = 0x00644090;
constexpr char kPair[] = "in \"a\"\nout \"b\"";

// ---- Processes --------------------------------------------------------------------------------

std::string environment(const char* name)
{
    const char* const text = std::getenv(name);
    return text ? text : "";
}

// The role of this process in its test; empty in the one that was started first.
const std::string kRole = environment("LUMORA_CABLE_TEST_ROLE");

// The test that is running, in a further process with the role given. That must succeed.
class Child
{
public:
    explicit Child(const char* role)
    {
        const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
        const std::string filter =
            std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
        char program[MAX_PATH];
        GetModuleFileNameA(nullptr, program, MAX_PATH);
        _putenv_s("LUMORA_CABLE_TEST_ROLE", role);
        process = reinterpret_cast<HANDLE>(
            _spawnl(_P_NOWAIT, program, program, filter.c_str(), "--gtest_brief=1", nullptr));
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        EXPECT_TRUE(endsWithin(60000));
        TerminateProcess(process, 99); // if it runs on
        DWORD exitCode = 98;
        GetExitCodeProcess(process, &exitCode);
        CloseHandle(process);
        EXPECT_EQ(0u, exitCode);
    }

    bool endsWithin(DWORD milliseconds) const
    {
        return WaitForSingleObject(process, milliseconds) == WAIT_OBJECT_0;
    }

private:
    HANDLE process;
};

std::filesystem::path temporaryFile(const std::string& name)
{
    return std::filesystem::temp_directory_path() /
           ("lumora-cable-" + std::to_string(GetCurrentProcessId()) + "-" + name);
}

// In the first process: runs the test's body in another one, with these ports and a log, and
// returns true. In that other process: returns false.
bool ranWithPorts(const char* ports = kPair)
{
    if (!kRole.empty())
        return false;
    const std::filesystem::path log = temporaryFile("log");
    std::filesystem::remove(log); // of an earlier process with this number
    _putenv_s("LUMORA_CABLE", ports);
    _putenv_s("LUMORA_CABLE_FILE", "");
    _putenv_s("LUMORA_CABLE_LOG", log.string().c_str());
    _putenv_s("LUMORA_CABLE_GROUP", ("test-" + std::to_string(GetCurrentProcessId())).c_str());
    {
        const Child body("body");
    }
    std::filesystem::remove(log);
    return true;
}

// At most ten seconds.
template <class Condition>
void waitUntil(Condition condition)
{
    for (int i = 0; i < 1000 && !condition(); ++i)
        Sleep(10);
}

// The lines of the log, without their times, which must be in milliseconds with three decimals.
std::vector<std::string> logLines()
{
    std::ifstream log(environment("LUMORA_CABLE_LOG"));
    std::vector<std::string> lines;
    for (std::string time, line; log >> time && std::getline(log >> std::ws, line);) {
        EXPECT_EQ(4u, time.size() - time.find('.')) << time;
        lines.push_back(line);
    }
    return lines;
}

// ---- The description --------------------------------------------------------------------------

using Names = std::vector<std::wstring>;

template <class Caps>
Names names(MMRESULT(WINAPI* query)(UINT_PTR device, Caps* caps, UINT size))
{
    Names result;
    Caps caps = {};
    while (query(result.size(), &caps, sizeof caps) == MMSYSERR_NOERROR)
        result.push_back(caps.szPname);
    return result;
}

TEST(CableDescription, WithoutOneThereIsAConnectedPair)
{
    if (ranWithPorts(""))
        return;
    EXPECT_EQ(Names{L"Lumora Cable"}, names(midiInGetDevCapsW));
    EXPECT_EQ(Names{L"Lumora Cable"}, names(midiOutGetDevCapsW));
    Input input;
    Output output;
    input.start();
    output.sendShort(kNoteOn);
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));
}

TEST(CableDescription, NamesThePortsAndItsBadLinesAreReportedByTheirNumber)
{
    if (ranWithPorts(""))
        return;
    // A file: Wine converts the environment through the code page of the Unix side.
    const std::filesystem::path file = temporaryFile("ports");
    std::ofstream(file, std::ios::binary) << "\xEF\xBB\xBFin \"Gr\xC3\xB6\xC3\x9F"
                                             "e \xE2\x99\xAA \xF0\x9D\x84\x9E\"\r\n"
                                             "  out \"two; three; \" # comment\r\n"
                                             "\n"
                                             "# in \"no\"\n"
                                             "in \"\"\n"
                                             "in \"12345678901234567890123456789012\"\n"
                                             "in \"a \\\"quoted\\\" \\\\ # name\"\n"
                                             "inn \"bad\"\n" // from line 8 on
                                             "in bad\n"
                                             "in \"bad\n"
                                             "in \"bad\xC3\"\n"
                                             "in \"bad\" to=1\n"
                                             "out \"bad\" flood=5\n"
                                             "in \"bad\" caps\n"
                                             "out \"bad\" pace=fast\n"
                                             "out \"bad\" pace=0\n"
                                             "in \"bad\" dump=2\n"
                                             "in \"bad\" flood=1@\n"
                                             "out \"bad\" long=fail@0\n"
                                             "in \"bad\" wait=never\n";
    _putenv_s("LUMORA_CABLE_FILE", file.string().c_str());
    testing::internal::CaptureStderr();
    EXPECT_EQ((Names{L"Gr\u00F6\u00DFe \u266A \xD834\xDD1E", L"",
                     L"1234567890123456789012345678901", L"a \"quoted\" \\ # name"}),
              names(midiInGetDevCapsW));
    EXPECT_EQ(Names{L"two; three; "}, names(midiOutGetDevCapsW));
    std::istringstream complaints(testing::internal::GetCapturedStderr());
    int expected = 8;
    for (std::string line; std::getline(complaints, line); ++expected) {
        EXPECT_NE(std::string::npos, line.find("line " + std::to_string(expected) + " ")) << line;
        const bool isAboutTheValue = line.find(" has a value that is not allowed") != line.npos;
        EXPECT_EQ(expected >= 15, isAboutTheValue) << line;
    }
    EXPECT_EQ(21, expected);
    std::filesystem::remove(file);
}

TEST(CableDescription, AFileThatCannotBeReadGivesNoPortsAndASentence)
{
    if (ranWithPorts(""))
        return;
    _putenv_s("LUMORA_CABLE_FILE", "C:\\no\\such\\file");
    testing::internal::CaptureStderr();
    EXPECT_EQ(Names{}, names(midiInGetDevCapsW));
    EXPECT_EQ(Names{}, names(midiOutGetDevCapsW));
    const std::string complaint = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, complaint.find("C:\\no\\such\\file")) << complaint;
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
    for (UINT i = 0; i < 4; ++i) {
        Output output(i);
        output.sendShort(kNoteOn + (i << 8));
    }
    EXPECT_EQ((std::vector<DWORD>{kNoteOn, kNoteOn + 0x100}), b.recorder.waitForShort(2));
    EXPECT_EQ(std::vector<DWORD>{kNoteOn + 0x300}, a.recorder.waitForShort(1));
}

TEST(CableWire, TheVolumeOfAnOutputIsNotSupported)
{
    if (ranWithPorts())
        return;
    DWORD volume = 0;
    EXPECT_EQ(MMSYSERR_NOTSUPPORTED, midiOutGetVolume(nullptr, &volume)); // of device 0
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiOutGetVolume(nullptr, nullptr));
    const Output output;
    EXPECT_EQ(MMSYSERR_NOTSUPPORTED, midiOutGetVolume(output.handle, &volume));
}

TEST(CableWire, BytesTakeTheirTimeOnIt)
{
    if (ranWithPorts("out \"b\" pace=wire"))
        return;
    Output output;
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    ASSERT_TRUE(output.sendLong(sysEx(500)));
    const std::chrono::duration<double, std::milli> taken = Clock::now() - start;
    EXPECT_LE(159, taken.count());
    EXPECT_GE(400, taken.count());
}

// ---- Generators -------------------------------------------------------------------------------

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

TEST(CableGenerator, SendsNumberedMessagesAndLosesNone)
{
    if (ranWithPorts("in \"a\" flood=20000 dump=10000 repeat=2"))
        return;
    Input input;
    input.giveBuffers(8, 4096);
    input.start();
    EXPECT_EQ(floodWords(0, 40000), input.recorder.waitForShort(40000));
    const Bytes dumps = input.recorder.waitForLong(20000);
    ASSERT_EQ(20000u, dumps.size());
    for (std::size_t i = 0; i < dumps.size(); ++i) {
        const std::size_t k = i % 10000;
        const std::size_t inside = (k + k / 128 + i / 10000) % 128;
        ASSERT_EQ(k == 0 ? 0xF0 : k == 1 ? 0x7D : k == 9999 ? 0xF7 : inside, dumps[i]) << i;
    }
}

// ---- Who waits for the callback in progress ---------------------------------------------------

TEST(CableWait, IsWhereTheDescriptionSays)
{
    if (ranWithPorts("in \"a\"\nin \"b\" wait=close\nin \"c\" wait=none\n"
                     "out \"a\"\nout \"b\"\nout \"c\""))
        return;
    for (const int device : {0, 1, 2}) { // and as many of the two calls do not wait
        std::promise<void> entered;
        std::promise<void> release;
        Input input(static_cast<UINT>(device), [&](const Notice& notice) {
            if (notice.message == MIM_DATA) {
                entered.set_value();
                release.get_future().wait();
            }
        });
        Output output(static_cast<UINT>(device));
        input.start();
        output.sendShort(kNoteOn);
        entered.get_future().wait();
        std::atomic<int> returned{0};
        std::thread closer([&] {
            midiInReset(input.handle);
            ++returned;
            midiInClose(input.handle);
            ++returned;
        });
        waitUntil([&] { return returned == device; });
        waitAWhile();
        EXPECT_EQ(device, returned);
        release.set_value();
        closer.join();
        input.handle = nullptr;
        waitAWhile(); // until the callback has left the recorder
    }
}

// ---- Windows 11's driver ----------------------------------------------------------------------

TEST(CableWindows11, ReachesEveryClientOfADevice)
{
    if (ranWithPorts("in \"a\" driver=windows11\nout \"b\" driver=windows11"))
        return;
    Input first;
    Input second;
    Output output;
    first.start();
    second.start();
    output.sendShort(kNoteOn);
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, first.recorder.waitForShort(1));
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, second.recorder.waitForShort(1));
}

TEST(CableWindows11, HasSwitches)
{
    if (ranWithPorts("in \"a\" driver=windows11 removal=cleanup\n"
                     "in \"b\" driver=windows11 removal=unnoticed\n"
                     "out \"c\" driver=windows11 timeout=20 shorts=wait failed=success"))
        return;
    Input cleansUp(0);
    cleansUp.giveBuffers(2, 16);
    Input unnoticed(1);
    Output output;
    for (const UINT device : {0u, 1u})
        ASSERT_TRUE(controlCable(LUMORA_CABLE_UNPLUG, true, device));
    ASSERT_TRUE(controlCable(LUMORA_CABLE_STALL, false, 0));
    EXPECT_EQ(MMSYSERR_NODRIVER, cleansUp.start());
    EXPECT_EQ(MMSYSERR_NOERROR, cleansUp.reset());
    EXPECT_EQ(2u, cleansUp.recorder.notices(MIM_LONGDATA).size());
    EXPECT_EQ(MMSYSERR_NOERROR, unnoticed.start());
    EXPECT_EQ(MMSYSERR_ERROR, output.sendShort(kNoteOn));
    EXPECT_TRUE(output.sendLong(sysEx(8)));
}

// ---- The log ----------------------------------------------------------------------------------

TEST(CableLog, HasALineForEachEventAndCountsWhatIsLost)
{
    if (ranWithPorts("in \"a\"\nout \"b\"\nout \"c\" to=0\nout \"d\" to=2"))
        return;
    {
        Input input;
        input.start();
        for (UINT i = 0; i < 3; ++i) {
            Output output(i);
            output.sendShort(kNoteOn);
            ASSERT_TRUE(output.sendLong(sysEx(20)));
        }
        input.recorder.waitForShort(1); // the closing would drop it
    }
    std::vector<std::string> expected = {"in 1 open"};
    for (const char* const output : {"out 1 ", "out 2 ", "out 3 "})
        for (const char* const event :
             {"open", "short 644090", "long 20", "reset", "close dropped "})
            expected.push_back(std::string(output) + event);
    expected[5] += "0 bytes 0 short";
    expected[10] += "20 bytes 1 short"; // feeds nobody
    expected[15] += "20 bytes 1 short"; // feeds an input that nobody has open
    expected.push_back("in 1 close dropped 20 bytes 0 short"); // had no buffer
    EXPECT_EQ(expected, logLines());
}

TEST(CableLog, TellsHowLongEachShortMessageHeldTheThread)
{
    if (ranWithPorts("in \"a\" flood=12 log=held"))
        return;
    {
        int count = 0;
        Input input(0, [&](const Notice& notice) {
            if (notice.message == MIM_DATA && ++count == 8)
                Sleep(51);
        });
        input.start();
        input.recorder.waitForShort(12);
    }
    const std::string begin = "in 1 held";
    const std::string line = logLines().at(1);
    ASSERT_EQ(begin, line.substr(0, begin.size()));
    std::istringstream numbers(line.substr(begin.size()));
    std::vector<double> held{std::istream_iterator<double>(numbers), {}};
    ASSERT_EQ(12u, held.size());
    EXPECT_LE(50000, held[7]);
    // The others were quick, save where another program had the processor.
    std::sort(held.begin(), held.end());
    EXPECT_GT(50000, held[6]);
}

// ---- Between processes ------------------------------------------------------------------------

TEST(CableAcrossProcesses, SeveralSendersLoseNeitherAMessageNorALineOfTheLog)
{
    constexpr DWORD count = 500;
    constexpr DWORD otherStatus = 1 << 14;  // words from there on begin with 91
    const Bytes longMessage = sysEx(60000); // more than the pipe buffers
    if (kRole == "first" || kRole == "second") {
        Output output;
        for (const DWORD word : floodWords(kRole == "first" ? 0 : otherStatus, count))
            ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(word));
        EXPECT_TRUE(kRole == "second" || output.sendLong(longMessage));
        return;
    }
    if (ranWithPorts())
        return;
    Input input;
    input.giveBuffers(13, 5000);
    input.start();
    {
        const Child first("first");
        const Child second("second");
    }
    const std::vector<DWORD> all = input.recorder.waitForShort(2 * count);
    EXPECT_EQ(2u * count, all.size());
    for (const DWORD number : {DWORD(0), otherStatus}) {
        std::vector<DWORD> heard;
        std::copy_if(all.begin(), all.end(), std::back_inserter(heard),
                     [&](DWORD word) { return (word & 0xFF) == (floodWord(number) & 0xFF); });
        EXPECT_EQ(floodWords(number, count), heard);
    }
    EXPECT_TRUE(longMessage == input.recorder.waitForLong(longMessage.size()));
    // Here open, and of each sender open, reset and close.
    EXPECT_EQ(1 + 2 * (count + 3) + 1, logLines().size());
}

TEST(CableAcrossProcesses, AReceiverThatHangsDoesNotHoldUpTheResetAndTheClose)
{
    if (ranWithPorts("out \"b\" to=1"))
        return;
    // Connects, and never answers.
    const std::string pipe =
        "\\\\.\\pipe\\lumora-cable-" + environment("LUMORA_CABLE_GROUP") + "-in-1";
    CreateNamedPipeA(pipe.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE, 1, 65536, 65536, 0,
                     nullptr);
    Output output;
    ASSERT_NE(nullptr, output.beginLong(sysEx(100)));
    waitAWhile();
    EXPECT_TRUE(output.recorder.notices(MOM_DONE).empty());
    EXPECT_EQ(MMSYSERR_NOERROR, output.reset());
    EXPECT_EQ(1u, output.recorder.notices(MOM_DONE).size());
    output.close();
    EXPECT_EQ(1u, output.recorder.notices(MOM_CLOSE).size());
}

TEST(CableAcrossProcesses, TheSenderFindsAnInputThatHasBeenOpenedAnew)
{
    if (kRole == "receiver") {
        DWORD last = 0;
        for (int opening = 0; opening < 3; ++opening) {
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
                ASSERT_TRUE(n == 0 ? number > last : number == last + 1)
                    << number << " behind " << last << ", opening " << opening;
                last = number;
            }
        }
        return;
    }
    if (ranWithPorts())
        return;
    Output output;
    const Child receiver("receiver");
    for (DWORD number = 1; !receiver.endsWithin(number % 4 == 0 ? 1 : 0); ++number)
        output.sendShort(floodWord(number));
}

TEST(CableAcrossProcesses, TheSecondListenerHearsItsOwnProcessAndTakesOverFromTheFirst)
{
    if (kRole == "second") {
        Input input;
        Output output;
        input.start();
        output.sendShort(kNoteOn);
        std::vector<DWORD> heard = input.recorder.waitForShort(2);
        heard.resize(2); // more may have come
        EXPECT_EQ((std::vector<DWORD>{kNoteOn, 0xF8}), heard);
        return;
    }
    if (ranWithPorts())
        return;
    Input input;
    input.start();
    const Child second("second");
    waitUntil([] { return logLines().back() == "out 1 short 644090"; });
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty());
    input.close();
    Output output;
    while (!second.endsWithin(1))
        output.sendShort(0xF8);
}

} // namespace
