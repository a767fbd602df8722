#ifndef LUMORA_TESTS_SYSTEM_CHILDRUN_H
#define LUMORA_TESTS_SYSTEM_CHILDRUN_H

#include <string>
#include <vector>

// Processes that a test starts: runs of a host, which makes an accessor, notes its ports and
// releases it, and tests with a cable of their own.

struct Port
{
    bool output;
    std::string id;
    std::string label;

    bool operator==(const Port& other) const
    {
        return output == other.output && id == other.id && label == other.label;
    }
};

/// The ports that a host finds with the ports of `cable`, in order of their identifiers, inputs
/// first.
std::vector<Port> runHost(const std::string& cable, const char* organization,
                          const char* application);

/// In the first process: runs the current test alone in another one that finds `cable`, and returns
/// true. In that other process: false. The cable is read once per process, and what a test does to
/// a device is for no later one.
bool ranWithCable(const char* cable);

/// Whether this process is one that ranWithCable() started.
bool hasOwnCable();

/// In the child: whether this process is one, and its work.
bool isChildRun();
int childRun();

#endif
