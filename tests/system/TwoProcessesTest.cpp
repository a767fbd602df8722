// A process that stores its ports while another one does: at each of its calls of the registry, the
// whole life of another host.

#include "tests/system/ChildRun.h"

#include "ports/MIDIPortAccessor.h"

#include <QStringList>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <windows.h>

namespace {

const char kOrganization[] = "Lumora Tests";
const char kApplication[] = "Two Processes";
const wchar_t kApplicationKey[] = L"Software\\Lumora Tests\\Two Processes";
const wchar_t kPortsKey[] = L"Software\\Lumora Tests\\Two Processes\\preferences\\SystemPorts";

std::function<void()> onRegistryCall; // before each read or write of a list

bool isList(const wchar_t* value)
{
    return value && (wcscmp(value, L"portNames") == 0 || wcscmp(value, L"portIds") == 0);
}

LSTATUS WINAPI query(HKEY key, const wchar_t* value, DWORD* reserved, DWORD* type, BYTE* data,
                     DWORD* size)
{
    if (onRegistryCall && isList(value))
        onRegistryCall();
    return RegQueryValueExW(key, value, reserved, type, data, size);
}

LSTATUS WINAPI set(HKEY key, const wchar_t* value, DWORD reserved, DWORD type, const BYTE* data,
                   DWORD size)
{
    if (onRegistryCall && isList(value))
        onRegistryCall();
    return RegSetValueExW(key, value, reserved, type, data, size);
}

/// Has `module` call `replacement` where it imports `original`; false if it does not import it.
bool replaceImport(HMODULE module, const void* original, const void* replacement)
{
    auto* const base = reinterpret_cast<BYTE*>(module);
    const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    auto* library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
    for (; library->Name; ++library) {
        auto* address = reinterpret_cast<const void**>(base + library->FirstThunk);
        for (; *address; ++address) {
            if (*address != original)
                continue;
            DWORD before = 0;
            VirtualProtect(address, sizeof *address, PAGE_READWRITE, &before);
            *address = replacement;
            VirtualProtect(address, sizeof *address, before, &before);
            return true;
        }
    }
    return false;
}

/// A host with one input.
class OneInput : public UniIMIDIPortAccessor
{
public:
    explicit OneInput(const char* name)
        : UniIMIDIPortAccessor(kOrganization, kApplication), name(QLatin1String(name))
    {}

protected:
    ~OneInput() override = default;
    QString systemPortName(int, bool) override { return name; }
    int numberOfSystemPorts(bool output) override { return output ? 0 : 1; }

private:
    const QString name;
};

/// The parameter: the name of the device that this process has.
class TwoProcessesTest : public testing::TestWithParam<const char*>
{
protected:
    // For the rest of the program; without onRegistryCall they change nothing.
    static void SetUpTestSuite()
    {
        const HMODULE qt =
            GetModuleHandleW(QT_VERSION_MAJOR >= 6 ? L"Qt6Core.dll" : L"Qt5Core.dll");
        ASSERT_TRUE(qt);
        ASSERT_TRUE(replaceImport(qt, reinterpret_cast<const void*>(&RegQueryValueExW),
                                  reinterpret_cast<const void*>(&query)));
        ASSERT_TRUE(replaceImport(qt, reinterpret_cast<const void*>(&RegSetValueExW),
                                  reinterpret_cast<const void*>(&set)));
    }

    void TearDown() override { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kApplicationKey); }

    static void store(const wchar_t* value, const std::wstring& text)
    {
        const std::wstring key = std::wstring(kPortsKey) + L"\\Input";
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, REG_MULTI_SZ, text.c_str(),
                        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }

    static std::vector<std::string> stored(const wchar_t* value)
    {
        const std::wstring key = std::wstring(kPortsKey) + L"\\Input";
        std::vector<wchar_t> text(10000);
        DWORD size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
        RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, RRF_RT_REG_MULTI_SZ, nullptr,
                     text.data(), &size);
        std::vector<std::string> list;
        for (const wchar_t* at = text.data(); *at; at += wcslen(at) + 1)
            list.push_back(QString::fromWCharArray(at).toStdString());
        return list;
    }
};

const wchar_t kWideKnown[] = L"{01234567-89ab-4cde-8f01-23456789abcd}";
const char kKnown[] = "{01234567-89ab-4cde-8f01-23456789abcd}";

TEST_P(TwoProcessesTest, NoLabelComesToStandBesideAnothersIdentifier)
{
    int calls = 0;
    int losses = 0;
    for (int moment = 0; moment <= calls; ++moment) {
        SCOPED_TRACE("the other process before call " + std::to_string(moment));
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kApplicationKey);
        store(L"portNames", std::wstring(L"1;Known") + L'\0');
        store(L"portIds", std::wstring(kWideKnown) + L'\0');
        auto* const ours = new OneInput(GetParam());
        ours->init();
        std::map<std::string, std::string> identifiers = {{"1;Known", kKnown}};
        identifiers[std::string("1;") + GetParam()] =
            ours->plugs(false).firstKey().toString().toStdString();
        int call = 0;
        onRegistryCall = [&] {
            if (++call != moment)
                return;
            for (const Port& port : runHost("in \"Other\"\n", kOrganization, kApplication))
                identifiers[port.label] = port.id;
        };
        ours->Release();
        onRegistryCall = nullptr;
        if (moment == 0)
            calls = call;

        const std::vector<std::string> names = stored(L"portNames");
        const std::vector<std::string> ids = stored(L"portIds");
        ASSERT_EQ(names.size(), ids.size());
        for (std::size_t k = 0; k < names.size(); ++k)
            EXPECT_EQ(ids[k], identifiers[names[k]]) << names[k];
        // Nothing keeps one from writing over the other.
        EXPECT_GE(names.size(), identifiers.size() - 1);
        losses += names.size() < identifiers.size();
    }
    EXPECT_GT(calls, 8);
    EXPECT_LT(losses, calls / 2);
    std::printf("%d calls; before %d of them, one process lost what it appends\n", calls, losses);
}

INSTANTIATE_TEST_SUITE_P(Device, TwoProcessesTest, testing::Values("Ours", "Known"),
                         [](const auto& device) { return std::string(device.param); });

} // namespace
