#include "tests/system/ChildRun.h"

#include <QStringList>
#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <windows.h>

namespace {

const char kOrganization[] = "Lumora Tests";
const char kApplication[] = "Persistence";
const wchar_t kOrganizationKey[] = L"Software\\Lumora Tests\\Persistence";
const wchar_t kInputKey[] = L"Software\\Lumora Tests\\Persistence\\preferences\\SystemPorts\\Input";
const wchar_t kOutputKey[] =
    L"Software\\Lumora Tests\\Persistence\\preferences\\SystemPorts\\Output";

class PersistenceTest : public testing::Test
{
protected:
    void SetUp() override { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kOrganizationKey); }

    static std::vector<Port> run(const std::string& cable)
    {
        return runHost(cable, kOrganization, kApplication);
    }

    /// A list value of the registry, read without Qt; fails the test unless it is a REG_MULTI_SZ.
    static std::vector<std::string> registryList(const wchar_t* key, const wchar_t* value)
    {
        DWORD type = 0;
        DWORD size = 0;
        std::vector<std::string> list;
        if (RegGetValueW(HKEY_LOCAL_MACHINE, key, value, RRF_RT_ANY, &type, nullptr, &size) != 0)
            return list;
        EXPECT_EQ(type, DWORD(REG_MULTI_SZ));
        std::vector<wchar_t> text(size / sizeof(wchar_t) + 1);
        RegGetValueW(HKEY_LOCAL_MACHINE, key, value, RRF_RT_ANY, &type, text.data(), &size);
        for (const wchar_t* at = text.data(); *at; at += wcslen(at) + 1)
            list.push_back(QString::fromWCharArray(at).toStdString());
        return list;
    }

    static std::string idOf(const std::vector<Port>& ports, const std::string& label)
    {
        for (const Port& port : ports) {
            if (port.label == label)
                return port.id;
        }
        return std::string();
    }
};

const char kTwoInputs[] = "in \"First\"\nin \"Second\"\nout \"Out\"\n";

TEST_F(PersistenceTest, ASecondRunFindsTheIdentifiersOfTheFirst)
{
    const std::vector<Port> first = run(kTwoInputs);
    ASSERT_EQ(first.size(), 3u);
    EXPECT_EQ(run(kTwoInputs), first);
}

TEST_F(PersistenceTest, TheTableLiesInTheRegistryAsMultiStrings)
{
    SCOPED_TRACE("With another key or type every port gets a new identifier, and the set-ups that "
                 "users have stored no longer find their ports.");
    const std::vector<Port> ports = run(kTwoInputs);
    const std::vector<std::string> names = registryList(kInputKey, L"portNames");
    const std::vector<std::string> ids = registryList(kInputKey, L"portIds");
    ASSERT_EQ(names.size(), 2u);
    ASSERT_EQ(ids.size(), 2u);
    for (std::size_t k = 0; k < 2; ++k)
        EXPECT_EQ(idOf(ports, names[k]), ids[k]);
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
    EXPECT_EQ(registryList(kOutputKey, L"portNames"), std::vector<std::string>{"1;Out"});
    EXPECT_EQ(registryList(kOutputKey, L"portIds"), std::vector<std::string>{idOf(ports, "1;Out")});

    run(kTwoInputs);
    EXPECT_EQ(registryList(kInputKey, L"portNames"), names);
    EXPECT_EQ(registryList(kInputKey, L"portIds"), ids);
}

TEST_F(PersistenceTest, ADeviceThatMovesGetsANewIdentifierAndFindsItsOldOneAgain)
{
    const std::string old = idOf(run("in \"Synth\"\n"), "1;Synth");
    const std::vector<Port> moved = run("in \"Newcomer\"\nin \"Synth\"\n");
    EXPECT_NE(idOf(moved, "2;Synth"), old);
    EXPECT_EQ(idOf(run("in \"Synth\"\n"), "1;Synth"), old);
    const std::vector<std::string> names = registryList(kInputKey, L"portNames");
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
              (std::set<std::string>{"1;Synth", "2;Synth", "1;Newcomer"}));
}

TEST_F(PersistenceTest, EveryKindOfNameKeepsItsIdentifier)
{
    const char cable[] = "in \"Left;Right\"\n"
                         "in \"A name of thirty-one characters\"\n"
                         "in \"\"\n"
                         "in \"Unreadable\" caps=fail\n"
                         "in \"\u00c4ther \u97f3\u697d \U0001F3B9\"\n";
    const std::vector<Port> first = run(cable);
    std::set<std::string> labels;
    for (const Port& port : first)
        labels.insert(port.label);
    EXPECT_EQ(labels, (std::set<std::string>{"1;Left;Right", "2;A name of thirty-one characters",
                                             "3;", "4;", "5;\u00c4ther \u97f3\u697d \U0001F3B9"}));
    EXPECT_EQ(run(cable), first);
}

TEST_F(PersistenceTest, ATableWrittenByHandIsRead)
{
    SCOPED_TRACE("The table of an earlier version is no longer understood.");
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kInputKey, 0, nullptr, 0, KEY_WRITE, nullptr,
                              &key, nullptr),
              0);
    const wchar_t names[] = L"1;Synth\0";
    const wchar_t ids[] = L"{01234567-89AB-4CDE-8F01-23456789ABCD}\0";
    RegSetValueExW(key, L"portNames", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(names),
                   sizeof names);
    RegSetValueExW(key, L"portIds", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(ids),
                   sizeof ids);
    RegCloseKey(key);
    EXPECT_EQ(idOf(run("in \"Synth\"\n"), "1;Synth"), "{01234567-89ab-4cde-8f01-23456789abcd}");
    EXPECT_EQ(registryList(kInputKey, L"portIds"),
              (std::vector<std::string>{"{01234567-89AB-4CDE-8F01-23456789ABCD}",
                                        "{01234567-89ab-4cde-8f01-23456789abcd}"}));
}

TEST_F(PersistenceTest, WithoutDevicesNothingIsListed)
{
    EXPECT_TRUE(run("# no ports\n").empty());
}

/// One value of the table, as another program may have left it.
void writeValue(const wchar_t* value, DWORD type, const std::wstring& text)
{
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kInputKey, value, type, text.c_str(),
                              static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
              0);
}

const char kId[] = "{01234567-89ab-4cde-8f01-23456789abcd}";
const wchar_t kWideId[] = L"{01234567-89ab-4cde-8f01-23456789abcd}";

TEST_F(PersistenceTest, ValuesThatAreOneStringAreListsOfOne)
{
    for (const DWORD type : {REG_SZ, REG_EXPAND_SZ}) {
        writeValue(L"portNames", type, L"1;Synth");
        writeValue(L"portIds", type, kWideId);
        EXPECT_EQ(idOf(run("in \"Synth\"\n"), "1;Synth"), kId);
        EXPECT_EQ(registryList(kInputKey, L"portNames"), std::vector<std::string>{"1;Synth"});
        EXPECT_EQ(registryList(kInputKey, L"portIds"), std::vector<std::string>{kId});
    }
}

TEST_F(PersistenceTest, BinaryValuesAreTheirTextAsAListOfOne)
{
    const wchar_t name[] = L"1;Synth"; // without the zero at its end
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kInputKey, L"portNames", REG_BINARY, name,
                    sizeof name - sizeof(wchar_t));
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kInputKey, L"portIds", REG_BINARY, kWideId,
                    sizeof kWideId - sizeof(wchar_t));
    EXPECT_EQ(idOf(run("in \"Synth\"\n"), "1;Synth"), kId);
    EXPECT_EQ(registryList(kInputKey, L"portNames"), std::vector<std::string>{"1;Synth"});
    EXPECT_EQ(registryList(kInputKey, L"portIds"), std::vector<std::string>{kId});
}

TEST_F(PersistenceTest, AnIdentifierWithoutBracesIsReadAndAppendedOnceWithThem)
{
    const std::string bare = std::string(kId).substr(1, 36);
    writeValue(L"portNames", REG_SZ, L"1;Synth");
    writeValue(L"portIds", REG_SZ, std::wstring(kWideId).substr(1, 36));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(idOf(run("in \"Synth\"\n"), "1;Synth"), kId);
        EXPECT_EQ(registryList(kInputKey, L"portNames"),
                  (std::vector<std::string>{"1;Synth", "1;Synth"}));
        EXPECT_EQ(registryList(kInputKey, L"portIds"), (std::vector<std::string>{bare, kId}));
    }
}

TEST_F(PersistenceTest, WithoutDevicesEmptyListsAreStoredAndFullOnesStay)
{
    run("# no ports\n");
    for (const wchar_t* const key : {kInputKey, kOutputKey}) {
        for (const wchar_t* const value : {L"portNames", L"portIds"}) {
            EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, key, value, RRF_RT_REG_MULTI_SZ, nullptr,
                                   nullptr, nullptr),
                      0);
            EXPECT_EQ(registryList(key, value), std::vector<std::string>());
        }
    }
    run(kTwoInputs);
    const std::vector<std::string> names = registryList(kInputKey, L"portNames");
    const std::vector<std::string> ids = registryList(kInputKey, L"portIds");
    EXPECT_EQ(names.size(), 2u);
    run("# no ports\n");
    EXPECT_EQ(registryList(kInputKey, L"portNames"), names);
    EXPECT_EQ(registryList(kInputKey, L"portIds"), ids);
}

TEST_F(PersistenceTest, AnOrganizationWithABackslashIsAKeyInAKey)
{
    const char organization[] = "Lumora Tests\\Persistence\\Inner";
    const std::vector<Port> first = runHost("in \"Synth\"\n", organization, "Editor");
    EXPECT_EQ(runHost("in \"Synth\"\n", organization, "Editor"), first);
    EXPECT_EQ(registryList(L"Software\\Lumora Tests\\Persistence\\Inner\\Editor"
                           L"\\preferences\\SystemPorts\\Input",
                           L"portIds"),
              std::vector<std::string>{idOf(first, "1;Synth")});
}

TEST_F(PersistenceTest, AnOrganizationWithASlashIsOneKey)
{
    const wchar_t organizationKey[] = L"Software\\Lumora/Tests";
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, organizationKey);
    const std::vector<Port> first = runHost("in \"Synth\"\n", "Lumora/Tests", "Editor");
    EXPECT_EQ(runHost("in \"Synth\"\n", "Lumora/Tests", "Editor"), first);
    EXPECT_EQ(registryList(L"Software\\Lumora/Tests\\Editor\\preferences\\SystemPorts\\Input",
                           L"portIds"),
              std::vector<std::string>{idOf(first, "1;Synth")});
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, organizationKey);
}

TEST_F(PersistenceTest, WithoutAnOrganizationNothingIsStored)
{
    const std::string first = idOf(runHost("in \"Synth\"\n", "", "Editor"), "1;Synth");
    const std::string second = idOf(runHost("in \"Synth\"\n", "", "Editor"), "1;Synth");
    EXPECT_EQ(first.size(), 38u);
    EXPECT_EQ(second.size(), 38u);
    EXPECT_NE(first, second);
}

} // namespace
