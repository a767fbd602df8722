#ifndef LUMORA_TESTS_SYSTEM_CHILDRUN_H
#define LUMORA_TESTS_SYSTEM_CHILDRUN_H

#include <string>
#include <vector>

// One run of a host, as a process of its own: makes an accessor, notes its ports, releases it.

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

/// In the child: whether this process is one, and its work.
bool isChildRun();
int childRun();

#endif
