#include "workbench/cable/Description.h"

#include "workbench/cable/EventLog.h"
#include "workbench/cable/System.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

namespace cable {

namespace {

constexpr std::size_t kLongestName = MAXPNAMELEN - 1; // the capability structures end a name with 0
constexpr DWORD kWireBytesPerSecond = 3125;           // 31,250 bit/s, 10 bits a byte
constexpr DWORD kShortestDump = 3;                    // F0 7D F7

constexpr char kDefaultDescription[] = "in \"Lumora Cable\"\nout \"Lumora Cable\"\n";

// ---- Options ------------------------------------------------------------------------------------

using Text = std::string_view;
using device::DriverKind;
using device::Generator;
using FailedLong = device::Windows11::FailedLong;

std::optional<DWORD> number(Text text, DWORD least)
{
    DWORD value = 0;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, value);
    const bool isOne = error == std::errc() && last == end && value >= least;
    return isOne ? std::optional(value) : std::nullopt;
}

// Throws if the direction has no such option, or not with this value.
void setOption(PortDescription& port, const std::string& text)
{
    const Text option = text;
    const Text key = option.substr(0, option.find('=') + 1);
    bool isKnown = false;
    bool isAllowed = false;
    const auto after = [&](Text beginning) {
        isKnown |= key == beginning.substr(0, beginning.find('=') + 1);
        const bool begins = option.substr(0, beginning.size()) == beginning;
        return begins ? std::optional(option.substr(beginning.size())) : std::nullopt;
    };
    const auto set = [&](auto& target, auto value) {
        target = static_cast<std::decay_t<decltype(target)>>(value);
        isAllowed = true;
    };
    const auto word = [&](Text whole, auto& target, auto value) {
        if (after(whole) == "")
            set(target, value);
    };
    const auto amount = [&](Text beginning, DWORD least, auto& target) {
        if (const auto value = number(after(beginning).value_or(""), least))
            set(target, *value);
    };
    const auto generator = [&](Text beginning, DWORD least, Generator::Kind kind) {
        const Text value = after(beginning).value_or(""); // N or N@R
        const std::size_t at = value.find('@');
        const auto count = number(value.substr(0, at), least);
        const auto rate = at == Text::npos ? 0 : number(value.substr(at + 1), 1);
        if (count && rate)
            set(port.generators.emplace_back(), Generator{kind, *count, *rate});
    };

    device::Windows11& windows11 = port.windows11;
    word("caps=fail", port.capsResult, MMSYSERR_NODRIVER);
    word("open=fail", port.openResult, MMSYSERR_ALLOCATED);
    word("wait=reset", port.kind, DriverKind::WaitsInReset);
    word("wait=close", port.kind, DriverKind::WaitsInClose);
    word("wait=none", port.kind, DriverKind::WaitsInNeither);
    word("driver=windows11", port.kind, DriverKind::Windows11);
    word("removal=unnoticed", windows11.noticesRemoval, false);
    word("removal=cleanup", windows11.cleansUpAfterRemoval, true);
    if (port.isInput) {
        generator("flood=", 1, Generator::Kind::Flood);
        generator("dump=", kShortestDump, Generator::Kind::Dump);
        amount("repeat=", 0, port.repeat);
        word("log=held", port.logHeld, true);
    } else {
        amount("to=", 0, port.to);
        word("pace=wire", port.pace, kWireBytesPerSecond);
        amount("pace=", 1, port.pace);
        amount("late=", 1, port.resetTakes);
        amount("long=fail@", 1, port.failLongAt);
        amount("timeout=", 1, windows11.sendPiece);
        word("failed=error", windows11.failedLong, FailedLong::DoneWithError);
        word("failed=success", windows11.failedLong, FailedLong::DoneWithSuccess);
        word("shorts=wait", windows11.shortsDoNotWait, false);
    }
    if (!isKnown)
        throw std::invalid_argument("this direction has no option " + text);
    if (!isAllowed)
        throw std::invalid_argument('"' + text + "\" has a value that is not allowed");
}

// ---- Lines --------------------------------------------------------------------------------------

// Nothing if the line is empty or a comment. Throws what is wrong with the line.
std::optional<PortDescription> parseLine(std::istream& line)
{
    PortDescription port;
    std::string direction;
    std::string name;
    if (!(line >> direction) || direction[0] == '#')
        return std::nullopt;
    if (direction != "in" && direction != "out")
        throw std::invalid_argument("a port begins with \"in\" or \"out\"");
    if ((line >> std::ws).peek() != '"' || !(line >> std::quoted(name)))
        throw std::invalid_argument("a name in double quotes must follow the direction");
    port.isInput = direction == "in";
    port.name = std::filesystem::u8path(name).wstring().substr(0, kLongestName);
    for (std::string option; line >> option && option[0] != '#';)
        setOption(port, option);
    port.completion = device::Completion::Thread;
    port.ownThread = port.kind != device::DriverKind::Windows11;
    return port;
}

std::vector<PortDescription> parse(std::istream& utf8)
{
    if (utf8.peek() == 0xEF)
        utf8.ignore(3); // a byte order mark
    std::vector<PortDescription> ports;
    std::string text;
    for (int lineNumber = 1; std::getline(utf8, text); ++lineNumber) {
        std::istringstream line(text);
        try {
            if (auto port = parseLine(line))
                ports.push_back(std::move(*port));
        } catch (const std::exception& wrong) { // also of a name that is not UTF-8
            complain("line " + std::to_string(lineNumber) +
                     " of the description is left out: " + wrong.what());
        }
    }
    return ports;
}

} // namespace

std::vector<PortDescription> readDescription()
{
    const auto text = environment(L"LUMORA_CABLE");
    const std::filesystem::path path = environment(L"LUMORA_CABLE_FILE").value_or(L"");
    if (text || path.empty()) {
        std::istringstream lines(text ? std::filesystem::path(*text).u8string()
                                      : kDefaultDescription);
        return parse(lines);
    }
    std::ifstream file(path, std::ios::binary);
    if (!file)
        complain("the description file \"" + path.u8string() +
                 "\" cannot be read, so there are no ports");
    return parse(file);
}

} // namespace cable
