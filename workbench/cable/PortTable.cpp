#include "PortTable.h"

#include "EventLog.h"

namespace cable {
namespace {

template <class AnyPlace>
void fill(std::vector<std::unique_ptr<AnyPlace>>& places, std::vector<PortDescription>& ports)
{
    for (PortDescription& port : ports) {
        auto place = std::make_unique<AnyPlace>();
        place->description = std::move(port);
        place->position = static_cast<unsigned>(places.size() + 1);
        places.push_back(std::move(place));
    }
}

} // namespace

PortTable& PortTable::instance()
{
    // Never destroyed: the ports' threads may run until the process has ended.
    static PortTable& table = *new PortTable;
    return table;
}

PortTable::PortTable()
{
    Description description = readDescription();
    for (const std::string& complaint : description.complaints)
        complain(complaint.c_str());
    fill(inputs_, description.inputs);
    fill(outputs_, description.outputs);
}

std::shared_ptr<InputPort> openInputAt(DWORD position)
{
    if (position == 0)
        return nullptr;
    InputPlace* place = PortTable::instance().input(position - 1);
    return place ? place->current() : nullptr;
}

} // namespace cable
