#include "workbench/cable/Description.h"

#include "workbench/cable/EventLog.h"
#include "workbench/cable/System.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace cable {

namespace {

constexpr std::size_t kLongestName = MAXPNAMELEN - 1; // the capability structures end a name with 0
constexpr DWORD kWireBytesPerSecond = 3125;           // 31,250 bit/s, 10 bits a byte
constexpr DWORD kShortestDump = 3;                    // F0 7D F7

constexpr char kDefaultDescription[] = "in \"Lumora Cable\"\nout \"Lumora Cable\"\n";

// ---- Options ------------------------------------------------------------------------------------

using Port = PortDescription&;
using Text = std::string_view;
using Play = device::Generator::Kind;

// Each returns false if the text is no such value.

bool number(Text text, DWORD least, DWORD& value)
{
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && last == end && value >= least;
}

// The value is the position of the word in the list.
template <class Enumeration>
bool oneOf(Text text, std::initializer_list<Text> words, Enumeration& value)
{
    const Text* const word = std::find(words.begin(), words.end(), text);
    value = static_cast<Enumeration>(word - words.begin());
    return word != words.end();
}

template <class Target, class Value>
bool is(Text text, Text word, Target& target, Value value)
{
    if (text == word)
        target = static_cast<Target>(value);
    return text == word;
}

// "N" or "N@R".
bool generator(Text text, Play kind, DWORD least, Port port)
{
    const std::size_t at = text.find('@');
    device::Generator& added = port.generators.emplace_back(device::Generator{kind, 0, 0});
    return number(text.substr(0, at), least, added.count) &&
           (at == Text::npos || number(text.substr(at + 1), 1, added.perSecond));
}

enum Of { kInputs, kOutputs, kBoth };

struct Option
{
    Text key;
    Of ports;
    bool (*set)(Port port, Text value);
};

const Option kOptions[] = {
    {"caps", kBoth, [](Port p, Text v) { return is(v, "fail", p.capsResult, MMSYSERR_NODRIVER); }},
    {"open", kBoth, [](Port p, Text v) { return is(v, "fail", p.openResult, MMSYSERR_ALLOCATED); }},
    {"wait", kBoth,
     [](Port p, Text v) {
         return oneOf(v, {"reset", "close", "none"}, p.kind);
     }},
    {"driver", kBoth,
     [](Port p, Text v) { return is(v, "windows11", p.kind, device::DriverKind::Windows11); }},
    {"removal", kBoth,
     [](Port p, Text v) {
         return is(v, "unnoticed", p.windows11.noticesRemoval, false) ||
                is(v, "cleanup", p.windows11.cleansUpAfterRemoval, true);
     }},
    {"flood", kInputs, [](Port p, Text v) { return generator(v, Play::Flood, 1, p); }},
    {"dump", kInputs, [](Port p, Text v) { return generator(v, Play::Dump, kShortestDump, p); }},
    {"repeat", kInputs, [](Port p, Text v) { return number(v, 0, p.repeat); }},
    {"log", kInputs, [](Port p, Text v) { return is(v, "held", p.logHeld, true); }},
    {"to", kOutputs, [](Port p, Text v) { return number(v, 0, p.to.emplace()); }},
    {"pace", kOutputs,
     [](Port p, Text v) {
         return is(v, "wire", p.pace, kWireBytesPerSecond) || number(v, 1, p.pace);
     }},
    {"late", kOutputs, [](Port p, Text v) { return number(v, 1, p.resetTakes); }},
    {"long", kOutputs,
     [](Port p, Text v) {
         return v.substr(0, 5) == "fail@" && number(v.substr(5), 1, p.failLongAt);
     }},
    {"timeout", kOutputs, [](Port p, Text v) { return number(v, 1, p.windows11.sendPiece); }},
    {"failed", kOutputs,
     [](Port p, Text v) {
         return oneOf(v, {"kept", "error", "success"}, p.windows11.failedLong);
     }},
    {"shorts", kOutputs,
     [](Port p, Text v) { return is(v, "wait", p.windows11.shortsDoNotWait, false); }},
};

bool setOption(Port port, Text text)
{
    const Text key = text.substr(0, text.find('='));
    const Text value = text.substr(std::min(key.size() + 1, text.size()));
    const Of opposite = port.isInput ? kOutputs : kInputs;
    for (const Option& option : kOptions) {
        if (option.key == key && option.ports != opposite)
            return option.set(port, value);
    }
    return false;
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
    for (std::string option; line >> option && option[0] != '#';) {
        if (!setOption(port, option))
            throw std::invalid_argument("this direction has no option " + option);
    }
    port.completion = device::Completion::Thread;
    port.ownThread = port.kind != device::DriverKind::Windows11;
    return port;
}

std::vector<PortDescription> parse(std::istream& utf8)
{
    if (utf8.peek() == 0xEF)
        utf8.ignore(3); // a byte order mark
    std::vector<PortDescription> ports;
    int lineNumber = 0;
    for (std::string text; std::getline(utf8, text);) {
        ++lineNumber;
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
