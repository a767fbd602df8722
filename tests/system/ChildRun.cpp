#include "tests/system/ChildRun.h"

#include "ports/MIDIPortAccessor.h"

#include <QFile>
#include <QTemporaryFile>
#include <cstdlib>
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

static const char kResultVariable[] = "LUMORA_TEST_CHILD_RESULT";
static const char kOrganizationVariable[] = "LUMORA_TEST_CHILD_ORGANIZATION";
static const char kApplicationVariable[] = "LUMORA_TEST_CHILD_APPLICATION";
static const char kOwnCableVariable[] = "LUMORA_TEST_OWN_CABLE";

// The description is UTF-8; the C runtime's narrow environment is not.
static void setCable(const std::string& cable)
{
    _wputenv_s(L"LUMORA_CABLE", QString::fromStdString(cable).toStdWString().c_str());
}

std::vector<Port> runHost(const std::string& cable, const char* organization,
                          const char* application)
{
    QTemporaryFile result;
    EXPECT_TRUE(result.open());
    const std::string ownCable = std::getenv("LUMORA_CABLE");
    setCable(cable);
    _putenv_s(kResultVariable, result.fileName().toLocal8Bit().constData());
    _putenv_s(kOrganizationVariable, organization);
    _putenv_s(kApplicationVariable, application);
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    EXPECT_EQ(_spawnl(_P_WAIT, program, program, nullptr), 0);
    _putenv_s(kResultVariable, "");
    setCable(ownCable);

    std::vector<Port> ports;
    QFile written(result.fileName());
    EXPECT_TRUE(written.open(QIODevice::ReadOnly));
    while (!written.atEnd()) {
        const QByteArray line = written.readLine().trimmed();
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() == 3)
            ports.push_back({fields[0] == "out", fields[1].toStdString(), fields[2].toStdString()});
    }
    return ports;
}

bool ranWithCable(const char* cable)
{
    if (hasOwnCable())
        return false;
    const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + '.' + test->name();
    const std::string ownCable = std::getenv("LUMORA_CABLE");
    setCable(cable);
    _putenv_s(kOwnCableVariable, "1");
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    EXPECT_EQ(_spawnl(_P_WAIT, program, program, filter.c_str(), nullptr), 0);
    _putenv_s(kOwnCableVariable, "");
    setCable(ownCable);
    return true;
}

bool hasOwnCable()
{
    const char* const own = std::getenv(kOwnCableVariable);
    return own && *own;
}

bool isChildRun()
{
    const char* const result = std::getenv(kResultVariable);
    return result && *result;
}

int childRun()
{
    QFile result(QString::fromLocal8Bit(std::getenv(kResultVariable)));
    if (!result.open(QIODevice::WriteOnly))
        return 1;
    IMIDIPortAccessor* const accessor =
        MIDIPortAccessor(std::getenv(kOrganizationVariable), std::getenv(kApplicationVariable));
    for (const bool output : {false, true}) {
        const TSystemMIDIMap& map = accessor->plugs(output);
        for (auto port = map.begin(); port != map.end(); ++port) {
            result.write(output ? "out\t" : "in\t");
            result.write(port.key().toString().toUtf8() + '\t' + port.value().toUtf8() + '\n');
        }
    }
    accessor->Release();
    return 0;
}
