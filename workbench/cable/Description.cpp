#include "workbench/cable/Description.h"

#include "workbench/cable/System.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>

namespace cable {

namespace {

constexpr std::size_t kLongestName = MAXPNAMELEN - 1; // the capability structures end a name with 0
constexpr DWORD kWireBytesPerSecond = 3125;           // 31,250 bit/s, 10 bits a byte
constexpr DWORD kShortestDump = 3;                    // F0 7D F7
constexpr DWORD kToUnset = MAXDWORD;

constexpr char kDefaultDescription[] = "in \"Lumora Cable\"\nout \"Lumora Cable\"\n";

// Why a line is refused; caught where the line number is known.
struct BadLine
{
    std::string reason;
};

std::optional<DWORD> decimal(std::string_view text)
{
    DWORD value = 0;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && last == end ? std::optional(value) : std::nullopt;
}

// The part of an option behind its equals sign.
class Value
{
public:
    Value(std::string_view itsOption, std::string_view itsText) : option(itsOption), text(itsText)
    {}

    // Which of the words it is.
    std::size_t oneOf(std::initializer_list<std::string_view> words) const
    {
        std::string expected;
        for (auto word = words.begin(); word != words.end(); ++word) {
            if (text == *word)
                return static_cast<std::size_t>(word - words.begin());
            expected += (expected.empty() ? "the value \"" : "\" or \"") + std::string(*word);
        }
        refuse(expected + "\"");
    }

    DWORD number(DWORD least) const { return number(text, least); }

    // The number of a call: "fail@K".
    DWORD failAt() const
    {
        constexpr std::string_view prefix = "fail@";
        const auto call = text.substr(0, prefix.size()) == prefix
                              ? decimal(text.substr(prefix.size()))
                              : std::nullopt;
        if (!call || *call == 0)
            refuse("the value \"fail@K\", K from 1");
        return *call;
    }

    // "N" or "N@R".
    device::Generator generator(device::Generator::Kind kind, DWORD least) const
    {
        const std::size_t at = text.find('@');
        const bool hasRate = at != std::string_view::npos;
        return {kind, number(text.substr(0, at), least),
                hasRate ? number(text.substr(at + 1), 1) : 0};
    }

    bool is(std::string_view word) const { return text == word; }

private:
    DWORD number(std::string_view digits, DWORD least) const
    {
        const std::optional<DWORD> value = decimal(digits);
        if (!value || *value < least)
            refuse("a number from " + std::to_string(least));
        return *value;
    }

    [[noreturn]] void refuse(const std::string& expected) const
    {
        throw BadLine{"\"" + std::string(option) + "\" needs " + expected};
    }

    std::string_view option;
    std::string_view text;
};

struct Option
{
    std::string_view key;
    bool ofInputs;
    bool ofOutputs;
    void (*apply)(PortDescription& port, const Value& value);
};

using Port = PortDescription&;
using Of = const Value&;
using Play = device::Generator::Kind;

DWORD refusal(Of value, MMRESULT result)
{
    return value.oneOf({"fail"}) == 0 ? result : MMSYSERR_NOERROR;
}

const Option kOptions[] = {
    {"caps", true, true, [](Port p, Of v) { p.capsResult = refusal(v, MMSYSERR_NODRIVER); }},
    {"open", true, true, [](Port p, Of v) { p.openResult = refusal(v, MMSYSERR_ALLOCATED); }},
    {"prepare", true, true, [](Port p, Of v) { p.failPrepareAt = v.failAt(); }},
    {"wait", true, true,
     [](Port p, Of v) {
         p.kind = device::DriverKind(v.oneOf({"reset", "close", "none"}));
     }},
    {"driver", true, true,
     [](Port p, Of v) {
         v.oneOf({"windows11"});
         p.kind = device::DriverKind::Windows11;
     }},
    {"unplug", true, true, [](Port p, Of v) { p.unplugAfter = v.number(1); }},
    {"removal", true, true,
     [](Port p, Of v) {
         const bool unnoticed = v.oneOf({"unnoticed", "cleanup"}) == 0;
         p.windows11.noticesRemoval = !unnoticed;
         p.windows11.cleansUpAfterRemoval = !unnoticed;
     }},
    {"timeout", false, true, [](Port p, Of v) { p.windows11.sendPiece = v.number(1); }},
    {"failed", false, true,
     [](Port p, Of v) {
         p.windows11.failedLong =
             device::Windows11::FailedLong(v.oneOf({"kept", "error", "success"}));
     }},
    {"shorts", false, true,
     [](Port p, Of v) { p.windows11.shortsDoNotWait = v.oneOf({"wait"}) != 0; }},
    {"start", true, false, [](Port p, Of v) { p.startResult = refusal(v, MMSYSERR_NOMEM); }},
    {"addbuffer", true, false, [](Port p, Of v) { p.failAddBufferAt = v.failAt(); }},
    {"split", true, false, [](Port p, Of v) { p.split = v.number(1); }},
    {"hold", true, false, [](Port p, Of v) { p.hold = v.number(0); }},
    {"flood", true, false,
     [](Port p, Of v) { p.generators.push_back(v.generator(Play::Flood, 1)); }},
    {"dump", true, false,
     [](Port p, Of v) { p.generators.push_back(v.generator(Play::Dump, kShortestDump)); }},
    {"repeat", true, false, [](Port p, Of v) { p.repeat = v.number(0); }},
    {"log", true, false, [](Port p, Of v) { p.logHeld = v.oneOf({"held"}) == 0; }},
    {"long", false, true, [](Port p, Of v) { p.failLongAt = v.failAt(); }},
    {"late", false, true, [](Port p, Of v) { p.resetTakes = v.number(1); }},
    {"to", false, true, [](Port p, Of v) { p.to = v.number(0); }},
    {"pace", false, true,
     [](Port p, Of v) { p.pace = v.is("wire") ? kWireBytesPerSecond : v.number(1); }},
};

void setOption(PortDescription& port, std::string_view text)
{
    const std::size_t equals = text.find('=');
    const std::string_view key = text.substr(0, equals);
    const std::string_view value =
        equals == std::string_view::npos ? std::string_view() : text.substr(equals + 1);
    for (const Option& option : kOptions) {
        if (option.key == key && (port.isInput ? option.ofInputs : option.ofOutputs)) {
            option.apply(port, Value(text, value));
            return;
        }
    }
    throw BadLine{"\"" + std::string(text) + "\" is no option of an " +
                  (port.isInput ? "input" : "output")};
}

std::wstring wideName(const std::string& utf8)
{
    try {
        return std::filesystem::u8path(utf8).wstring().substr(0, kLongestName);
    } catch (const std::system_error&) {
        throw BadLine{"the name is not UTF-8"};
    }
}

// In double quotes; \" and \\ stand for the characters themselves.
std::string quotedName(std::istream& line)
{
    std::string name;
    if ((line >> std::ws).peek() != '"')
        throw BadLine{"a name in double quotes must follow the direction"};
    if (!(line >> std::quoted(name)))
        throw BadLine{"the name has no closing quote"};
    return name;
}

PortDescription parseLine(const std::string& direction, std::istream& line)
{
    PortDescription port;
    port.completion = device::Completion::Thread;
    port.to = kToUnset;
    if (direction != "in" && direction != "out")
        throw BadLine{"a port begins with \"in\" or \"out\", not \"" + direction + "\""};
    port.isInput = direction == "in";
    port.name = wideName(quotedName(line));
    for (std::string option; line >> option && option[0] != '#';)
        setOption(port, option);
    port.ownThread = port.kind != device::DriverKind::Windows11;
    return port;
}

} // namespace

Description parseDescription(const std::string& utf8)
{
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    std::istringstream text(utf8);
    if (utf8.compare(0, byteOrderMark.size(), byteOrderMark) == 0)
        text.ignore(byteOrderMark.size());

    Description result;
    unsigned number = 0;
    for (std::string wholeLine; std::getline(text, wholeLine);) {
        ++number;
        std::istringstream line(wholeLine);
        std::string direction;
        if (!(line >> direction) || direction[0] == '#')
            continue;
        try {
            PortDescription port = parseLine(direction, line);
            (port.isInput ? result.inputs : result.outputs).push_back(std::move(port));
        } catch (const BadLine& bad) {
            result.complaints.push_back("line " + std::to_string(number) +
                                        " of the description is left out: " + bad.reason);
        }
    }

    // Only now is it known whether an output has an input at its own position.
    for (std::size_t i = 0; i < result.outputs.size(); ++i) {
        PortDescription& output = result.outputs[i];
        if (output.to == kToUnset)
            output.to = i < result.inputs.size() ? static_cast<DWORD>(i + 1) : 0;
    }
    return result;
}

Description readDescription()
{
    if (const auto text = environment(L"LUMORA_CABLE"))
        return parseDescription(std::filesystem::path(*text).u8string());
    const std::filesystem::path path = environment(L"LUMORA_CABLE_FILE").value_or(L"");
    if (path.empty())
        return parseDescription(kDefaultDescription);
    if (std::ifstream file(path, std::ios::binary); file)
        return parseDescription(std::string(std::istreambuf_iterator<char>(file), {}));
    Description none;
    none.complaints.push_back("the description file \"" + path.u8string() +
                              "\" cannot be read, so there are no ports");
    return none;
}

} // namespace cable
