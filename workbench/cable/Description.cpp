#include "Description.h"

#include "System.h"

#include <optional>

#include <mmsystem.h>

namespace cable {
namespace {

constexpr size_t kLongestName = MAXPNAMELEN - 1; // the capability structures end a name with 0
constexpr DWORD kWireBytesPerSecond = 3125;      // 31,250 bit/s, 10 bits a byte
constexpr DWORD kShortestDump = 3;               // F0 7D F7
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
    explicit LineReader(std::string_view text) : text_(text) {}

    bool atEnd()
    {
        while (!text_.empty() && isSpace(text_.front()))
            text_.remove_prefix(1);
        return text_.empty() || text_.front() == '#';
    }

    std::string_view word()
    {
        size_t length = 0;
        while (length < text_.size() && !isSpace(text_[length]))
            ++length;
        const std::string_view result = text_.substr(0, length);
        text_.remove_prefix(length);
        return result;
    }

    // A name in double quotes; \" and \\ stand for the characters themselves.
    std::string quoted()
    {
        if (atEnd() || text_.front() != '"')
            throw BadLine{"a name in double quotes must follow the direction"};
        std::string name;
        for (size_t i = 1; i < text_.size(); ++i) {
            if (text_[i] == '"') {
                text_.remove_prefix(i + 1);
                return name;
            }
            const bool escaped = text_[i] == '\\' && i + 1 < text_.size() &&
                                 (text_[i + 1] == '"' || text_[i + 1] == '\\');
            if (escaped)
                ++i;
            name += text_[i];
        }
        throw BadLine{"the name has no closing quote"};
    }

private:
    std::string_view text_;
};

std::wstring wideName(const std::string& utf8)
{
    if (utf8.empty())
        return {};
    const int bytes = static_cast<int>(utf8.size());
    const int length =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), bytes, nullptr, 0);
    if (length <= 0)
        throw BadLine{"the name is not UTF-8"};
    std::wstring name(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), bytes, name.data(), length);
    if (name.size() > kLongestName)
        name.resize(kLongestName);
    return name;
}

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

class OptionReader
{
public:
    OptionReader(PortDescription& port, std::string_view option) : port_(port), option_(option)
    {
        const size_t equals = option.find('=');
        key_ = option.substr(0, equals);
        value_ = equals == std::string_view::npos ? std::string_view() : option.substr(equals + 1);
    }

    void apply()
    {
        if (applyCommon() || (port_.isInput ? applyInput() : applyOutput()))
            return;
        throw BadLine{"\"" + std::string(option_) + "\" is no option of an " +
                      (port_.isInput ? "input" : "output")};
    }

private:
    bool applyCommon()
    {
        if (key_ == "caps")
            port_.failCaps = fail();
        else if (key_ == "open")
            port_.failOpen = fail();
        else if (key_ == "prepare")
            port_.failPrepareAt = failAt();
        else if (key_ == "wait")
            port_.wait = waitKind();
        else
            return false;
        return true;
    }

    bool applyInput()
    {
        if (key_ == "start")
            port_.failStart = fail();
        else if (key_ == "addbuffer")
            port_.failAddBufferAt = failAt();
        else if (key_ == "split")
            port_.split = number(value_, 1);
        else if (key_ == "hold")
            port_.hold = number(value_, 0);
        else if (key_ == "flood")
            port_.generators.push_back(generator(Generator::Kind::Flood, 1));
        else if (key_ == "dump")
            port_.generators.push_back(generator(Generator::Kind::Dump, kShortestDump));
        else if (key_ == "repeat")
            port_.repeat = number(value_, 0);
        else if (key_ == "log")
            port_.logHeld = held();
        else
            return false;
        return true;
    }

    bool applyOutput()
    {
        if (key_ == "long")
            port_.failLongAt = failAt();
        else if (key_ == "to")
            port_.to = number(value_, 0);
        else if (key_ == "pace")
            port_.pace = value_ == "wire" ? kWireBytesPerSecond : number(value_, 1);
        else
            return false;
        return true;
    }

    [[noreturn]] void refuse(const std::string& expected) const
    {
        throw BadLine{"\"" + std::string(option_) + "\" needs " + expected};
    }

    bool fail() const
    {
        if (value_ != "fail")
            refuse("the value \"fail\"");
        return true;
    }

    bool held() const
    {
        if (value_ != "held")
            refuse("the value \"held\"");
        return true;
    }

    DWORD failAt() const
    {
        constexpr std::string_view prefix = "fail@";
        const std::optional<DWORD> call = value_.substr(0, prefix.size()) == prefix
                                              ? decimal(value_.substr(prefix.size()))
                                              : std::nullopt;
        if (!call || *call == 0)
            refuse("the value \"fail@K\", K from 1");
        return *call;
    }

    DWORD number(std::string_view text, DWORD least) const
    {
        const std::optional<DWORD> value = decimal(text);
        if (!value || *value < least)
            refuse("a number from " + std::to_string(least));
        return *value;
    }

    WaitKind waitKind() const
    {
        if (value_ == "reset")
            return WaitKind::Reset;
        if (value_ == "close")
            return WaitKind::Close;
        if (value_ != "none")
            refuse("the value \"reset\", \"close\" or \"none\"");
        return WaitKind::None;
    }

    Generator generator(Generator::Kind kind, DWORD least) const
    {
        const size_t at = value_.find('@');
        const bool hasRate = at != std::string_view::npos;
        return {kind, number(value_.substr(0, at), least),
                hasRate ? number(value_.substr(at + 1), 1) : 0};
    }

    PortDescription& port_;
    std::string_view option_;
    std::string_view key_;
    std::string_view value_;
};

PortDescription parseLine(LineReader line)
{
    PortDescription port;
    port.to = kToUnset;
    const std::string_view direction = line.word();
    if (direction != "in" && direction != "out")
        throw BadLine{"a port begins with \"in\" or \"out\", not \"" + std::string(direction) +
                      "\""};
    port.isInput = direction == "in";
    port.name = wideName(line.quoted());
    while (!line.atEnd())
        OptionReader(port, line.word()).apply();
    return port;
}

std::optional<std::string> environment(const wchar_t* name)
{
    SetLastError(ERROR_SUCCESS);
    const DWORD room = GetEnvironmentVariableW(name, nullptr, 0);
    if (room == 0)
        return GetLastError() == ERROR_ENVVAR_NOT_FOUND ? std::nullopt
                                                        : std::optional<std::string>("");
    std::wstring wide(room, L'\0');
    wide.resize(GetEnvironmentVariableW(name, wide.data(), room));
    const int units = static_cast<int>(wide.size());
    const int bytes =
        WideCharToMultiByte(CP_UTF8, 0, wide.data(), units, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), units, utf8.data(), bytes, nullptr, nullptr);
    return utf8;
}

std::wstring widePath(const std::string& utf8)
{
    const int bytes = static_cast<int>(utf8.size());
    const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, nullptr, 0);
    std::wstring path(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, path.data(), length);
    return path;
}

std::optional<std::string> readFile(const std::string& path)
{
    const Handle file(CreateFileW(widePath(path).c_str(), GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, 0, nullptr));
    if (!file)
        return std::nullopt;
    std::string text;
    char piece[4096];
    DWORD length = 0;
    while (ReadFile(file.get(), piece, sizeof piece, &length, nullptr) && length > 0)
        text.append(piece, length);
    return text;
}

} // namespace

Description parseDescription(std::string_view utf8)
{
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (utf8.substr(0, byteOrderMark.size()) == byteOrderMark)
        utf8.remove_prefix(byteOrderMark.size());

    Description result;
    for (unsigned number = 1; !utf8.empty(); ++number) {
        const size_t end = utf8.find('\n');
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
    for (size_t i = 0; i < result.outputs.size(); ++i) {
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
