#include "workbench/cable/Description.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
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

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

// Reads one line from left to right.
class LineReader
{
public:
    explicit LineReader(std::string_view line) : text(line) {}

    bool atEnd()
    {
        while (!text.empty() && isSpace(text.front()))
            text.remove_prefix(1);
        return text.empty() || text.front() == '#';
    }

    std::string_view word()
    {
        std::size_t length = 0;
        while (length < text.size() && !isSpace(text[length]))
            ++length;
        const std::string_view result = text.substr(0, length);
        text.remove_prefix(length);
        return result;
    }

    // A name in double quotes; \" and \\ stand for the characters themselves.
    std::string quoted()
    {
        if (atEnd() || text.front() != '"')
            throw BadLine{"a name in double quotes must follow the direction"};
        std::string name;
        for (std::size_t i = 1; i < text.size(); ++i) {
            if (text[i] == '"') {
                text.remove_prefix(i + 1);
                return name;
            }
            const bool escaped = text[i] == '\\' && i + 1 < text.size() &&
                                 (text[i + 1] == '"' || text[i + 1] == '\\');
            name += text[escaped ? ++i : i];
        }
        throw BadLine{"the name has no closing quote"};
    }

private:
    std::string_view text;
};

std::optional<DWORD> decimal(std::string_view text)
{
    if (text.empty() || text.size() > 9) // nine digits fit a DWORD
        return std::nullopt;
    DWORD value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + static_cast<DWORD>(c - '0');
    }
    return value;
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

void apply(PortDescription& port, std::string_view text)
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

PortDescription parseLine(LineReader line)
{
    PortDescription port;
    port.completion = device::Completion::Thread;
    port.to = kToUnset;
    const std::string_view direction = line.word();
    if (direction != "in" && direction != "out")
        throw BadLine{"a port begins with \"in\" or \"out\", not \"" + std::string(direction) +
                      "\""};
    port.isInput = direction == "in";
    port.name = wideName(line.quoted());
    while (!line.atEnd())
        apply(port, line.word());
    const bool isWindows11 = port.kind == device::DriverKind::Windows11;
    port.ownThread = !isWindows11;
    port.worker = isWindows11 && port.isInput;
    return port;
}

std::optional<std::string> environment(const wchar_t* name)
{
    constexpr DWORD kLongest = 32767; // that a variable can be
    std::wstring text(kLongest, L'\0');
    SetLastError(ERROR_SUCCESS);
    text.resize(GetEnvironmentVariableW(name, text.data(), kLongest));
    if (text.empty() && GetLastError() == ERROR_ENVVAR_NOT_FOUND)
        return std::nullopt;
    return std::filesystem::path(text).u8string();
}

std::optional<std::string> readFile(const std::string& path)
{
    std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    if (!file)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

} // namespace

Description parseDescription(std::string_view utf8)
{
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (utf8.substr(0, byteOrderMark.size()) == byteOrderMark)
        utf8.remove_prefix(byteOrderMark.size());

    Description result;
    for (unsigned number = 1; !utf8.empty(); ++number) {
        const std::size_t end = utf8.find('\n');
        LineReader line(utf8.substr(0, end));
        utf8.remove_prefix(end == std::string_view::npos ? utf8.size() : end + 1);
        if (line.atEnd())
            continue;
        try {
            PortDescription port = parseLine(line);
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
        return parseDescription(*text);
    const auto path = environment(L"LUMORA_CABLE_FILE");
    if (!path || path->empty())
        return parseDescription(kDefaultDescription);
    if (const auto text = readFile(*path))
        return parseDescription(*text);
    Description none;
    none.complaints.push_back("the description file \"" + *path +
                              "\" cannot be read, so there are no ports");
    return none;
}

} // namespace cable
